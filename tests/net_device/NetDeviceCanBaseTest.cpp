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

// The portable half over an in-memory bus, recording what it delivers.
struct Device : test_support::CanTestDevice<16, 64, 16> {
    explicit Device(uint8_t address = 0xFF) : CanTestDevice(address) { set_handler(&recorder); }
    std::string log_of(const std::vector<CanFrame>& frames) {
        testing::internal::CaptureStdout();
        for (const CanFrame& f : frames) handle_can_frame(f);
        return testing::internal::GetCapturedStdout();
    }
    test_support::FrameRecorder recorder;
};

// What a peer with this transfer counter puts on the bus: a 20-byte message is a header and three data frames.
std::vector<CanFrame> peer_frames(uint8_t src, uint8_t dst, uint8_t counter, const Bytes& payload = Bytes(20, 1)) {
    const Frame frame = make_frame(5, src, dst, payload);
    CanEncoder encoder(frame, counter, 1);
    std::vector<CanFrame> out;
    while (!encoder.finished()) out.push_back(encoder.next());
    return out;
}

}  // namespace

TEST(NetDeviceCanBase, RefusesAFrameWholeWhenTheQueueLacksRoomAndStillAdvancesTheCounter) {
    Device device(0x10);
    device.bus_room = 0;                                                      // nothing leaves the queue
    ASSERT_EQ(device.send_raw(make_frame(5, 0x10, 0x20, Bytes(88, 1))), 0);   // 12 frames of 16
    EXPECT_EQ(device.send_raw(make_frame(5, 0x10, 0x20, Bytes(32, 1))), -1);  // 5 do not fit
    EXPECT_EQ(device.get_stats().tx_queue_full, 1u);
    ASSERT_EQ(device.send_raw(make_frame(5, 0x10, 0x20, Bytes(24, 1))), 0) << "4 fit exactly";
    device.bus_room = static_cast<size_t>(-1);
    EXPECT_TRUE(device.do_write());
    ASSERT_EQ(device.written.size(), 16u);
    EXPECT_EQ(can_id_transfer_counter(device.written[12].id), 2) << "the refused frame used counter 1";
    EXPECT_EQ(device.send_raw_highprio(make_frame(5, 0x10, 0x20, {1})), -1) << "no high-priority queue";
}

TEST(NetDeviceCanBase, DeliversForItsAddressOrBroadcastUnlessItTakesEverything) {
    for (uint8_t dst : {0x20, 0x21, 0xFF}) {
        Device own(0x20), every(0xFF);
        const Bytes single = {1, 2, 3};
        for (const CanFrame& f : peer_frames(0x10, dst, 2, single)) own.handle_can_frame(f);
        for (const CanFrame& f : peer_frames(0x10, dst, 2)) own.handle_can_frame(f);
        for (const CanFrame& f : peer_frames(0x10, dst, 3)) every.handle_can_frame(f);
        const Frames both = {{5, 0x10, dst, single}, {5, 0x10, dst, Bytes(20, 1)}};
        EXPECT_EQ(own.recorder.frames, dst == 0x21 ? Frames{} : both) << int(dst);
        EXPECT_EQ(every.recorder.frames, (Frames{{5, 0x10, dst, Bytes(20, 1)}})) << int(dst);
    }
}

// A sender's counter 3 to 5 ahead of an unfinished message means that
// message is dead: its slot restarts. 1, 2, 6 and 7 are neighbours in flight.
TEST(NetDeviceCanBase, CounterJumpOfThreeToFiveStallsTheReceiver) {
    for (uint8_t diff = 1; diff <= 7; diff++) {
        const bool stalls = diff >= 3 && diff <= 5;
        const uint8_t counter = (6 + diff) % 8;
        Device device;
        const std::vector<CanFrame> old_message = peer_frames(0x2A, 1, 6),
                                    new_message = peer_frames(0x2A, 1, counter, {7, 7, 7, 7, 7, 7, 7, 7, 7});
        device.log_of({old_message[0], old_message[1]});
        EXPECT_EQ(device.log_of({new_message[0]}),
                  stalls
                      ? "NetDeviceCanBase: WARNING: stall receiver for addr=0x2A, resetting decoder, last_seq=6, seq=" +
                            std::to_string(counter) + "\n"
                      : "")
            << int(diff);
        EXPECT_EQ(device.get_stats().receivers_stalled, stalls ? 1u : 0u);
        device.log_of({new_message[1], new_message[2], old_message[2], old_message[3]});
        Frames expected = {{5, 0x2A, 1, Bytes(9, 7)}};
        if (!stalls) expected.push_back({5, 0x2A, 1, Bytes(20, 1)});
        EXPECT_EQ(device.recorder.frames, expected) << int(diff);
    }
}

TEST(NetDeviceCanBase, SeventeenthSenderOverwritesTheLeastRecentlyUsedReceiver) {
    Device device;
    std::vector<std::vector<CanFrame>> messages;  // messages[src - 1]
    for (uint8_t src = 1; src <= 17; src++) messages.push_back(peer_frames(src, 1, 0));
    for (uint8_t src = 1; src <= 16; src++) device.handle_can_frame(messages[src - 1][0]);
    device.handle_can_frame(messages[0][1]);  // sender 1 is now the most recent; sender 2 the oldest
    EXPECT_EQ(device.log_of({messages[16][0]}), "NetDeviceCan: WARNING: overwriting receiver for addr=0x11\n");
    EXPECT_EQ(device.get_stats().receivers_overwritten, 1u);
    for (uint8_t src : {17, 1, 2, 3}) {
        for (size_t i = src == 1 ? 2 : 1; i < 4; i++) device.handle_can_frame(messages[src - 1][i]);
    }
    std::vector<uint8_t> delivered_from;
    for (const RecordedFrame& f : device.recorder.frames) delivered_from.push_back(f.src);
    EXPECT_EQ(delivered_from, (std::vector<uint8_t>{17, 1, 3})) << "sender 2 lost its header with its slot";
}

TEST(NetDeviceCanBase, CountsAndLogsDecoderErrors) {
    std::vector<CanFrame> duplicate = peer_frames(7, 1, 5), crc = peer_frames(8, 1, 5), overflow = peer_frames(9, 1, 5);
    duplicate[2] = duplicate[1];
    crc[3].data[0] ^= 0x80;
    overflow[3].id |= 0xF0u << CAN_ID_FIELD_SHIFT;  // a sequence number far past the 64-byte buffer
    Device device;
    EXPECT_EQ(device.log_of(duplicate) + device.log_of(crc) + device.log_of(overflow),
              "NetDeviceCan: ERROR decoding frame: 3, seq=5\nNetDeviceCan: ERROR decoding frame: 2, seq=5\n"
              "NetDeviceCan: ERROR decoding frame: 1, seq=5\n");
    const CanDeviceStats stats = device.get_stats();
    EXPECT_EQ((std::vector<uint32_t>{stats.duplicate_seq, stats.crc_errors, stats.rx_overflows}),
              (std::vector<uint32_t>{1, 1, 1}));
    EXPECT_TRUE(device.recorder.frames.empty());
}
