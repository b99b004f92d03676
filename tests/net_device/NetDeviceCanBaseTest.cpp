// The CAN transport without a bus: the encoder on its own, then the portable
// half of the device, reassembling with its decoders, over an in-memory bus.
#include <gtest/gtest.h>

#include <string>

#include "support/can_test_device.h"
#include "support/frame_recorder.h"
#include "vostrelka/net_device/CanEncoder.h"

using namespace vostrelka::net_device;
using test_support::make_frame;
using test_support::RecordedFrame;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<RecordedFrame>;

namespace {

Bytes counting_bytes(size_t n) {
    Bytes bytes(n);
    for (size_t i = 0; i < n; i++) bytes[i] = static_cast<uint8_t>(1 + i);
    return bytes;
}
const Bytes TWENTY = counting_bytes(20);  // a header frame and three data frames

// What a peer with this transfer counter puts on the bus for proto_id 5 unless told otherwise.
std::vector<CanFrame> encode(uint8_t src, uint8_t dst, uint8_t counter, const Bytes& payload = TWENTY,
                             uint8_t proto_id = 5, uint8_t priority = 1) {
    const Frame frame = make_frame(proto_id, src, dst, payload);
    CanEncoder encoder(frame, counter, priority);
    std::vector<CanFrame> out;
    while (!encoder.finished() && out.size() < 300) out.push_back(encoder.next());
    EXPECT_EQ(out.size(), encoder.get_frames_number());
    return out;
}

// The portable half with 128-byte reassembly buffers, recording what it delivers.
struct Device : test_support::CanTestDevice<16, 128, 16> {
    explicit Device(uint8_t address = 0xFF) : CanTestDevice(address) { set_handler(&recorder); }
    // What handling the frames, in `order` when given, printed.
    std::string log_of(const std::vector<CanFrame>& frames, std::vector<size_t> order = {}) {
        const bool all = order.empty();
        for (size_t i = 0; all && i < frames.size(); i++) order.push_back(i);
        testing::internal::CaptureStdout();
        for (size_t i : order) handle_can_frame(frames[i]);
        return testing::internal::GetCapturedStdout();
    }
    test_support::FrameRecorder recorder;
};

}  // namespace

TEST(CanEncoder, PutsEveryFieldInTheIdentifier) {
    const std::vector<CanFrame> frames = encode(0x10, 0x20, 3);
    const std::vector<uint32_t> ids = {frames.at(0).id, frames.at(1).id, frames.at(2).id, frames.at(3).id};
    EXPECT_EQ(ids, (std::vector<uint32_t>{0x10064021, 0x10164021, 0x10264021, 0x10364021}));
    // CRC-32 of {20, 0, 5} and the payload, least significant byte first.
    EXPECT_EQ(Bytes(frames[0].data, frames[0].data + frames[0].len), (Bytes{0xC8, 0x80, 0x98, 0x62, 20, 0, 5}));
    EXPECT_EQ(Bytes(frames[3].data, frames[3].data + frames[3].len), (Bytes{17, 18, 19, 20}));
    // Single frames carry proto_id; the counter keeps 3 bits and the priority 1.
    EXPECT_EQ(encode(0x10, 0x20, 7, {0xAA}, 0xFF)[0].id, 0x0FFE4021u);
    EXPECT_EQ(encode(0x10, 0x20, 9, {0xAA}, 8, 2)[0].id, 0x00824020u);
    const CanAcceptanceFilter any = make_acceptance_filter(0x20, 0xFF), one = make_acceptance_filter(0x20, 0x10);
    EXPECT_EQ((std::vector<uint32_t>{any.id, any.mask, one.id, one.mask}),
              (std::vector<uint32_t>{0x4000, 0x1FE00, 0x4020, 0x1FFFE}));
}

// Frames may come in any order; the message completes on whichever fills the last gap. With 16 data
// frames, the first bitmap byte (frames 1 to 7) is examined, so a gap there keeps the message waiting.
TEST(NetDeviceCanBase, ReassemblesEverySizeInAnyOrderForItsAddressOrBroadcast) {
    std::vector<size_t> gap_at_3 = {0, 1, 2};
    for (size_t i = 4; i <= 16; i++) gap_at_3.push_back(i);
    gap_at_3.push_back(3);
    const std::pair<size_t, std::vector<size_t>> cases[] = {{0, {0}},           {8, {0}},           {9, {2, 0, 1}},
                                                            {20, {3, 2, 1, 0}}, {20, {1, 2, 3, 0}}, {128, gap_at_3}};
    Device device(0x20);
    Frames expected;
    for (const auto& [size, order] : cases) {
        const std::vector<CanFrame> frames = encode(0x10, 0x20, 3, counting_bytes(size), 14);
        ASSERT_EQ(frames.size(), order.size()) << size;
        EXPECT_EQ(device.log_of(frames, order), "") << size;
        expected.push_back({14, 0x10, 0x20, counting_bytes(size)});
    }
    for (uint8_t dst : {0x21, 0xFF}) device.log_of(encode(0x10, dst, dst & 7));  // only broadcasts for others
    expected.push_back({5, 0x10, 0xFF, TWENTY});
    EXPECT_EQ(device.recorder.frames, expected);
}

TEST(NetDeviceCanBase, RefusesAFrameWholeWhenTheQueueLacksRoomAndStillAdvancesTheCounter) {
    Device device(0x10);
    device.bus_room = 0;                                                      // nothing leaves the queue
    ASSERT_EQ(device.send_raw(make_frame(5, 0x10, 0x20, Bytes(88, 1))), 0);   // 12 frames of 16
    EXPECT_EQ(device.send_raw(make_frame(5, 0x10, 0x20, Bytes(32, 1))), -1);  // 5 do not fit
    EXPECT_EQ(device.counters().can.tx_queue_full, 1u);
    EXPECT_EQ(device.counters().drops.queue_full, 1u);
    ASSERT_EQ(device.send_raw(make_frame(5, 0x10, 0x20, Bytes(24, 1))), 0) << "4 fit exactly";
    device.bus_room = static_cast<size_t>(-1);
    EXPECT_TRUE(device.do_write());
    ASSERT_EQ(device.written.size(), 16u);
    EXPECT_EQ(can_id_transfer_counter(device.written[12].id), 2) << "the refused frame used counter 1";
    EXPECT_EQ(device.send_raw_highprio(make_frame(5, 0x10, 0x20, {1})), -1) << "no high-priority queue";
}

// A sender's counter 3 to 5 ahead of an unfinished message means that
// message is dead: its slot restarts. 1, 2, 6 and 7 are neighbours in flight.
TEST(NetDeviceCanBase, CounterJumpOfThreeToFiveStallsTheReceiver) {
    for (uint8_t diff = 1; diff <= 7; diff++) {
        const bool stalls = diff >= 3 && diff <= 5;
        const uint8_t counter = (6 + diff) % 8;
        Device device;
        const std::vector<CanFrame> old_message = encode(0x2A, 1, 6),
                                    new_message = encode(0x2A, 1, counter, Bytes(9, 7));
        device.log_of({old_message[0], old_message[1]});
        EXPECT_EQ(device.log_of({new_message[0]}),
                  stalls
                      ? "NetDeviceCanBase: WARNING: stall receiver for addr=0x2A, resetting decoder, last_seq=6, seq=" +
                            std::to_string(counter) + "\n"
                      : "")
            << int(diff);
        EXPECT_EQ(device.counters().can.receivers_stalled, stalls ? 1u : 0u);
        device.log_of({new_message[1], new_message[2], old_message[2], old_message[3]});
        Frames expected = {{5, 0x2A, 1, Bytes(9, 7)}};
        if (!stalls) expected.push_back({5, 0x2A, 1, TWENTY});
        EXPECT_EQ(device.recorder.frames, expected) << int(diff);
    }
}

TEST(NetDeviceCanBase, SeventeenthSenderOverwritesTheLeastRecentlyUsedReceiver) {
    Device device;
    std::vector<std::vector<CanFrame>> messages;  // messages[src - 1]
    for (uint8_t src = 1; src <= 17; src++) messages.push_back(encode(src, 1, 0));
    for (uint8_t src = 1; src <= 16; src++) device.handle_can_frame(messages[src - 1][0]);
    device.handle_can_frame(messages[0][1]);  // sender 1 is now the most recent; sender 2 the oldest
    EXPECT_EQ(device.log_of({messages[16][0]}), "NetDeviceCan: WARNING: overwriting receiver for addr=0x11\n");
    EXPECT_EQ(device.counters().can.receivers_overwritten, 1u);
    for (uint8_t src : {17, 1, 2, 3}) {
        for (size_t i = src == 1 ? 2 : 1; i < 4; i++) device.handle_can_frame(messages[src - 1][i]);
    }
    std::vector<uint8_t> delivered_from;
    for (const RecordedFrame& f : device.recorder.frames) delivered_from.push_back(f.src);
    EXPECT_EQ(delivered_from, (std::vector<uint8_t>{17, 1, 3})) << "sender 2 lost its header with its slot";
}

// With 9 data frames the bitmap byte before the last one's (frames 1 to 7) is not
// examined: the header and frames 8 and 9 complete the message, which the CRC rejects.
TEST(NetDeviceCanBase, CountsAndLogsDecoderErrors) {
    std::vector<CanFrame> duplicate = encode(7, 1, 5), overflow = encode(9, 1, 5);
    duplicate[2] = duplicate[1];
    overflow[3].id |= 0xF0u << CAN_ID_FIELD_SHIFT;  // a sequence number far past the buffer
    Device device;
    EXPECT_EQ(
        device.log_of(duplicate) + device.log_of(encode(8, 1, 5, Bytes(72, 0xC3)), {0, 8, 9}) + device.log_of(overflow),
        "NetDeviceCan: ERROR decoding frame: 3, seq=5\nNetDeviceCan: ERROR decoding frame: 2, seq=5\n"
        "NetDeviceCan: ERROR decoding frame: 1, seq=5\n");
    const CanDeviceStats stats = device.counters().can;
    EXPECT_EQ((std::vector<uint32_t>{stats.duplicate_seq, stats.crc_errors, stats.rx_overflows}),
              (std::vector<uint32_t>{1, 1, 1}));
    EXPECT_TRUE(device.recorder.frames.empty());
}
