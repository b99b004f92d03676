#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/can_test_device.h"
#include "support/frame_recorder.h"
#include "vostrelka/net_device/CanEncoder.h"

using namespace vostrelka;
using namespace vostrelka::net_device;
using test_support::FrameRecorder;
using test_support::RecordedFrame;

namespace {

using Device = test_support::CanTestDevice<16, 2048, 16>;

std::vector<uint8_t> counting_bytes(size_t n, uint8_t first = 1) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; i++) bytes[i] = static_cast<uint8_t>(first + i);
    return bytes;
}

Frame make_frame(const std::vector<uint8_t>& payload, uint8_t src, uint8_t dst, uint8_t proto_id = 5) {
    Frame frame;
    frame.proto_id = proto_id;
    frame.src = src;
    frame.dst = dst;
    frame.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
    return frame;
}

// What a peer with this transfer counter puts on the bus for the frame.
std::vector<CanFrame> peer_frames(const std::vector<uint8_t>& payload, uint8_t src, uint8_t dst, uint8_t counter) {
    const Frame frame = make_frame(payload, src, dst);
    CanEncoder encoder(frame, counter, 1);
    std::vector<CanFrame> out;
    while (!encoder.finished()) out.push_back(encoder.next());
    return out;
}

uint8_t counter_of(const CanFrame& f) {
    return can_id_transfer_counter(f.id);
}

std::string captured(const std::function<void()>& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(NetDeviceCanBase, RefusesAFrameWholeWhenTheQueueLacksRoomAndStillAdvancesTheCounter) {
    Device device(0x10);
    device.bus_room = 0;  // nothing leaves the queue
    const std::vector<uint8_t> twelve_frames = counting_bytes(88);
    const std::vector<uint8_t> five_frames = counting_bytes(32);
    const std::vector<uint8_t> four_frames = counting_bytes(24);

    ASSERT_EQ(device.send_raw(make_frame(twelve_frames, 0x10, 0x20)), 0);
    EXPECT_EQ(device.normal_queue().size(), 12u);
    EXPECT_EQ(device.send_raw(make_frame(five_frames, 0x10, 0x20)), -1);
    EXPECT_EQ(device.normal_queue().size(), 12u) << "nothing of a refused frame is queued";
    EXPECT_EQ(device.get_stats().tx_queue_full, 1u);
    ASSERT_EQ(device.send_raw(make_frame(four_frames, 0x10, 0x20)), 0) << "exactly the room left";
    EXPECT_EQ(device.normal_queue().size(), 16u);

    device.bus_room = static_cast<size_t>(-1);
    EXPECT_TRUE(device.do_write());
    ASSERT_EQ(device.written.size(), 16u);
    EXPECT_EQ(counter_of(device.written[0]), 0);
    EXPECT_EQ(counter_of(device.written[12]), 2) << "the refused frame used counter 1";
    EXPECT_EQ(device.get_stats().tx_queue_full, 1u);
}

TEST(NetDeviceCanBase, TransferCounterWrapsAfterSeven) {
    Device device(0x10);
    const std::vector<uint8_t> payload = {1};
    for (int i = 0; i < 9; i++) ASSERT_EQ(device.send_raw(make_frame(payload, 0x10, 0x20)), 0);
    std::vector<uint8_t> counters;
    for (const CanFrame& f : device.written) counters.push_back(counter_of(f));
    EXPECT_EQ(counters, (std::vector<uint8_t>{0, 1, 2, 3, 4, 5, 6, 7, 0}));
}

TEST(NetDeviceCanBase, PayloadBeyond255DataFramesIsRefused) {
    test_support::CanTestDevice<1, 8, 512> device(0x10);
    const std::vector<uint8_t> too_long = counting_bytes(CAN_MAX_PAYLOAD_BYTES + 1);
    EXPECT_EQ(device.send_raw(make_frame(too_long, 0x10, 0x20)), -1);
    EXPECT_TRUE(device.written.empty());
    const std::vector<uint8_t> longest = counting_bytes(CAN_MAX_PAYLOAD_BYTES);
    EXPECT_EQ(device.send_raw(make_frame(longest, 0x10, 0x20)), 0);
    EXPECT_EQ(device.written.size(), 256u);
}

TEST(NetDeviceCanBase, HighPriorityQueueGoesFirstWithPriorityBitClear) {
    test_support::CanTestDevice<1, 64, 8, 8> device(0x10);
    const std::vector<uint8_t> payload = {7};
    device.bus_room = 0;
    ASSERT_EQ(device.send_raw(make_frame(payload, 0x10, 0x20)), 0);
    ASSERT_EQ(device.send_raw_highprio(make_frame(payload, 0x10, 0x21)), 0);
    ASSERT_EQ(device.send_raw_highprio(make_frame(payload, 0x10, 0x22)), 0);

    // While the high-priority queue cannot be emptied, the normal one is not tried.
    device.bus_room = 1;
    device.write_calls.clear();
    EXPECT_FALSE(device.do_write());
    EXPECT_EQ(device.write_calls, (std::vector<const void*>{&device.highprio_queue()}));
    ASSERT_EQ(device.written.size(), 1u);
    EXPECT_EQ(device.written[0].id, 0x00524220u) << "counter 1, priority bit 0";

    device.bus_room = static_cast<size_t>(-1);
    device.write_calls.clear();
    EXPECT_TRUE(device.do_write());
    EXPECT_EQ(device.write_calls, (std::vector<const void*>{&device.highprio_queue(), &device.normal_queue()}));
    ASSERT_EQ(device.written.size(), 3u);
    EXPECT_EQ(device.written[1].id, 0x00544420u);
    EXPECT_EQ(device.written[2].id, 0x00504021u) << "counter 0, priority bit 1";

    Device without_highprio(0x10);
    EXPECT_EQ(without_highprio.send_raw_highprio(make_frame(payload, 0x10, 0x20)), -1);
    EXPECT_TRUE(without_highprio.written.empty());
}

TEST(NetDeviceCanBase, DeliversByDestination) {
    struct Case {
        uint8_t device_address, dst;
        bool delivered;
    };
    const Case cases[] = {
        {0x20, 0x20, true}, {0x20, 0xFF, true}, {0x20, 0x21, false},
        {0xFF, 0x21, true}, {0xFF, 0x00, true}, {0x00, 0x01, false},
    };
    for (const Case& c : cases) {
        for (size_t size : {3, 20}) {
            Device device(c.device_address);
            FrameRecorder recorder;
            device.set_handler(&recorder);
            const std::vector<uint8_t> payload = counting_bytes(size);
            for (const CanFrame& f : peer_frames(payload, 0x10, c.dst, 2)) device.handle_can_frame(f);
            ASSERT_EQ(recorder.frames.size(), c.delivered ? 1u : 0u)
                << "address " << int(c.device_address) << " dst " << int(c.dst) << " size " << size;
            if (c.delivered) {
                EXPECT_EQ(recorder.frames[0], (RecordedFrame{5, 0x10, c.dst, payload}));
                EXPECT_EQ(recorder.last_device, &device);
            }
        }
    }
}

TEST(NetDeviceCanBase, ReassemblesInterleavedMessagesOfSeveralSenders) {
    Device device(0xFF);
    FrameRecorder recorder;
    device.set_handler(&recorder);
    const std::vector<uint8_t> a = counting_bytes(20, 0x10), b = counting_bytes(30, 0x80), c = counting_bytes(17, 0x40);
    const std::vector<std::vector<CanFrame>> messages = {peer_frames(a, 0x01, 0x30, 4), peer_frames(b, 0x02, 0x30, 4),
                                                         peer_frames(c, 0x01, 0x30, 5)};
    for (size_t i = 0; i < 5; i++) {
        for (const std::vector<CanFrame>& m : messages) {
            if (i < m.size()) device.handle_can_frame(m[m.size() - 1 - i]);  // each one backwards
        }
    }
    ASSERT_EQ(recorder.frames.size(), 3u);
    EXPECT_EQ(recorder.frames[0], (RecordedFrame{5, 0x01, 0x30, a}));
    EXPECT_EQ(recorder.frames[1], (RecordedFrame{5, 0x01, 0x30, c}));
    EXPECT_EQ(recorder.frames[2], (RecordedFrame{5, 0x02, 0x30, b}));
}

// A sender's counter 3 to 5 ahead of an unfinished message means that
// message is dead: its slot restarts. 1, 2, 6 and 7 are neighbours in flight.
TEST(NetDeviceCanBase, CounterJumpOfThreeToFiveStallsTheReceiver) {
    const uint8_t first_counter = 6;
    for (uint8_t diff = 1; diff <= 7; diff++) {
        const bool stalls = diff >= 3 && diff <= 5;
        const uint8_t next_counter = (first_counter + diff) % 8;
        Device device(0xFF);
        FrameRecorder recorder;
        device.set_handler(&recorder);
        const std::vector<uint8_t> first = counting_bytes(20), second = counting_bytes(12, 0x50);
        const std::vector<CanFrame> old_message = peer_frames(first, 0x2A, 0x01, first_counter);
        const std::vector<CanFrame> new_message = peer_frames(second, 0x2A, 0x01, next_counter);

        device.handle_can_frame(old_message[0]);
        device.handle_can_frame(old_message[1]);
        const std::string log = captured([&] { device.handle_can_frame(new_message[0]); });
        if (stalls) {
            EXPECT_EQ(log, "NetDeviceCanBase: WARNING: stall receiver for addr=0x2A, resetting decoder, last_seq=" +
                               std::to_string(first_counter) + ", seq=" + std::to_string(next_counter) + "\n")
                << "diff " << int(diff);
        } else {
            EXPECT_EQ(log, "") << "diff " << int(diff);
        }
        EXPECT_EQ(device.get_stats().receivers_stalled, stalls ? 1u : 0u) << "diff " << int(diff);

        for (size_t i = 1; i < new_message.size(); i++) device.handle_can_frame(new_message[i]);
        device.handle_can_frame(old_message[2]);
        device.handle_can_frame(old_message[3]);
        std::vector<RecordedFrame> expected = {{5, 0x2A, 0x01, second}};
        if (!stalls) expected.push_back({5, 0x2A, 0x01, first});
        EXPECT_EQ(recorder.frames, expected) << "diff " << int(diff);
    }
}

TEST(NetDeviceCanBase, SeventeenthSenderOverwritesTheLeastRecentlyUsedReceiver) {
    Device device(0xFF);
    FrameRecorder recorder;
    device.set_handler(&recorder);
    const std::vector<uint8_t> payload = counting_bytes(16);
    std::vector<std::vector<CanFrame>> messages;
    for (uint8_t src = 1; src <= 17; src++) messages.push_back(peer_frames(payload, src, 0x01, 0));

    for (uint8_t src = 1; src <= 16; src++) device.handle_can_frame(messages[src - 1][0]);
    device.handle_can_frame(messages[0][1]);  // sender 1 is now the most recent; sender 2 the oldest

    const std::string log = captured([&] { device.handle_can_frame(messages[16][0]); });
    EXPECT_EQ(log, "NetDeviceCan: WARNING: overwriting receiver for addr=0x11\n");
    EXPECT_EQ(device.get_stats().receivers_overwritten, 1u);

    device.handle_can_frame(messages[16][1]);
    device.handle_can_frame(messages[16][2]);
    device.handle_can_frame(messages[0][2]);
    for (uint8_t src = 2; src <= 16; src++) {
        device.handle_can_frame(messages[src - 1][1]);
        device.handle_can_frame(messages[src - 1][2]);
    }
    std::vector<uint8_t> delivered_from;
    for (const RecordedFrame& f : recorder.frames) delivered_from.push_back(f.src);
    std::vector<uint8_t> expected = {17, 1};
    for (uint8_t src = 3; src <= 16; src++) expected.push_back(src);
    EXPECT_EQ(delivered_from, expected) << "sender 2 lost its header with its slot";
}

TEST(NetDeviceCanBase, CountsAndLogsDecoderErrors) {
    const std::vector<uint8_t> payload = counting_bytes(20);
    struct Case {
        const char* name;
        std::function<void(std::vector<CanFrame>&)> spoil;
        const char* line;
        uint32_t CanDeviceStats::*counter;
    };
    const Case cases[] = {
        {"duplicate", [](std::vector<CanFrame>& m) { m[2] = m[1]; }, "NetDeviceCan: ERROR decoding frame: 3, seq=5\n",
         &CanDeviceStats::duplicate_seq},
        {"crc", [](std::vector<CanFrame>& m) { m[3].data[0] ^= 0x80; },
         "NetDeviceCan: ERROR decoding frame: 2, seq=5\n", &CanDeviceStats::crc_errors},
        {"overflow", [](std::vector<CanFrame>& m) { m[3].id |= 0xF0u << CAN_ID_FIELD_SHIFT; },
         "NetDeviceCan: ERROR decoding frame: 1, seq=5\n", &CanDeviceStats::rx_overflows},
    };
    for (const Case& c : cases) {
        test_support::CanTestDevice<2, 64, 4> device(0xFF);
        FrameRecorder recorder;
        device.set_handler(&recorder);
        std::vector<CanFrame> message = peer_frames(payload, 0x07, 0x01, 5);
        c.spoil(message);
        std::string log;
        for (const CanFrame& f : message) log += captured([&] { device.handle_can_frame(f); });
        EXPECT_EQ(log, c.line) << c.name;
        EXPECT_EQ(device.get_stats().*c.counter, 1u) << c.name;
        EXPECT_TRUE(recorder.frames.empty()) << c.name;
    }
}
