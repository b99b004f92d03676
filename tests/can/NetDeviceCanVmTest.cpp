// The CAN device on a real (virtual) bus, with can-utils as the other side.
// Runs inside the guest of scripts/can-vm, which creates vcan0 and vcan1;
// see tests/can/run-in-vm-tests.sh.
#include <gtest/gtest.h>
#include <sys/select.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "can_bus_tools.h"
#include "support/frame_recorder.h"
#include "vostrelka/Time.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"

using namespace vostrelka;
using namespace vostrelka::net_device;
using can_bus_tools::Candump;
using can_bus_tools::cansend;
using test_support::FrameRecorder;
using test_support::RecordedFrame;

namespace {

using Device = NetDeviceCanAlloc<16, 2048, 512>;
constexpr int64_t PUMP_TIMEOUT_US = 10000000;
constexpr long SELECT_WAIT_US = 20000;

std::vector<uint8_t> counting_bytes(size_t n, uint8_t first = 1) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; i++) bytes[i] = static_cast<uint8_t>(first + i);
    return bytes;
}

Frame make_frame(const std::vector<uint8_t>& payload, uint8_t proto_id, uint8_t src, uint8_t dst) {
    Frame frame;
    frame.proto_id = proto_id;
    frame.src = src;
    frame.dst = dst;
    frame.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
    return frame;
}

// One pass of a main loop over the devices, until `done` or the deadline.
bool pump_until(const std::vector<NetDeviceCan*>& devices, const std::function<bool()>& done) {
    const int64_t deadline = time_us() + PUMP_TIMEOUT_US;
    while (!done()) {
        if (time_us() > deadline) return false;
        fd_set r, w, e;
        FD_ZERO(&r);
        FD_ZERO(&w);
        FD_ZERO(&e);
        int max_fd = -1;
        for (NetDeviceCan* d : devices) {
            d->register_fd(&r, &w, &e);
            max_fd = std::max(max_fd, d->get_fd());
        }
        timeval tv{0, SELECT_WAIT_US};
        if (select(max_fd + 1, &r, &w, &e, &tv) < 0) return false;
        for (NetDeviceCan* d : devices) {
            uint8_t events = 0;
            if (d->is_fd_set(&w)) events |= event_system::EVENT_WRITABLE;
            if (d->is_fd_set(&r)) events |= event_system::EVENT_READABLE;
            if (events != 0) d->on_event(events);
        }
    }
    return true;
}

bool pump_until(NetDeviceCan& device, const std::function<bool()>& done) {
    return pump_until({&device}, done);
}

bool has_queued_frames(NetDeviceCan& device) {
    fd_set r, w, e;
    FD_ZERO(&r);
    FD_ZERO(&w);
    FD_ZERO(&e);
    device.register_fd(&r, &w, &e);
    return FD_ISSET(device.get_fd(), &w);
}

class NetDeviceCanOnBus : public testing::Test {
protected:
    void open(Device& device) { ASSERT_EQ(device.open(), 0) << "vcan0 must exist: run inside scripts/can-vm"; }
};

}  // namespace

TEST_F(NetDeviceCanOnBus, SentFramesReachTheBusWithExactIdentifiers) {
    Device device("vcan0", 0x10);
    open(device);
    Candump candump("vcan0");
    ASSERT_TRUE(candump.wait_ready());

    const std::vector<uint8_t> empty, eight = counting_bytes(8), one = {0xAB}, twenty = counting_bytes(20);
    for (const std::vector<uint8_t>* payload : {&empty, &eight, &one}) {
        ASSERT_EQ(device.send_raw(make_frame(*payload, 1, 0x10, 0x20)), 0);
    }
    ASSERT_EQ(device.send_raw(make_frame(twenty, 5, 0x10, 0x20)), 0);

    const std::vector<std::string> expected = {
        "vcan0 00104021#",
        "vcan0 00124021#0102030405060708",
        "vcan0 00144021#AB",
        "vcan0 10064021#C8809862140005",
        "vcan0 10164021#0102030405060708",
        "vcan0 10264021#090A0B0C0D0E0F10",
        "vcan0 10364021#11121314",
    };
    std::vector<std::string> seen;
    std::string line;
    while (seen.size() < expected.size() && candump.next(line)) seen.push_back(line);
    EXPECT_EQ(seen, expected);
}

TEST_F(NetDeviceCanOnBus, ReassemblesMessagesSentByCansend) {
    Device device("vcan0", 0x20);
    open(device);
    FrameRecorder recorder;
    device.set_handler(&recorder);

    // The 20-byte message of sender 0x10, counter 3, header last and data
    // frames out of order; then a single frame.
    for (const char* frame : {"10264021#090A0B0C0D0E0F10", "10364021#11121314", "10164021#0102030405060708",
                              "10064021#C8809862140005", "00564021#DEADBEEF"}) {
        ASSERT_EQ(cansend("vcan0", frame), 0) << frame;
    }
    ASSERT_TRUE(pump_until(device, [&] { return recorder.frames.size() >= 2; }));
    EXPECT_EQ(recorder.frames[0], (RecordedFrame{5, 0x10, 0x20, counting_bytes(20)}));
    EXPECT_EQ(recorder.frames[1], (RecordedFrame{5, 0x10, 0x20, {0xDE, 0xAD, 0xBE, 0xEF}}));
}

TEST_F(NetDeviceCanOnBus, IgnoresStandardAndRemoteFrames) {
    Device device("vcan0", 0xFF);
    open(device);
    FrameRecorder recorder;
    device.set_handler(&recorder);
    for (const char* frame : {"123#1122", "00564021#R", "7FF#", "00664021#01"}) {
        ASSERT_EQ(cansend("vcan0", frame), 0) << frame;
    }
    ASSERT_TRUE(pump_until(device, [&] { return !recorder.frames.empty(); }));
    EXPECT_EQ(recorder.frames[0], (RecordedFrame{6, 0x10, 0x20, {0x01}}));
    EXPECT_EQ(recorder.frames.size(), 1u);
}

// Frames are read in bus order, so when the last (accepted) frame has come
// through, every rejected one before it has had its chance.
TEST_F(NetDeviceCanOnBus, OwnAcceptanceFiltersPassOnlyFramesForTheDevice) {
    Device device("vcan0", 0xFF);  // takes every destination in software
    open(device);
    FrameRecorder recorder;
    device.set_handler(&recorder);

    CanAcceptanceFilter for_0x20 = make_acceptance_filter(0x20, 0xFF);
    ASSERT_EQ(device.apply_filters(Slice<CanAcceptanceFilter>(&for_0x20, 1, 1)), 0);
    for (const char* frame : {"00504221#01", "00504021#02", "00504023#03", "00604023#04"}) {
        ASSERT_EQ(cansend("vcan0", frame), 0) << frame;
    }
    ASSERT_TRUE(pump_until(device, [&] { return recorder.frames.size() >= 3; }));
    const std::vector<RecordedFrame> to_0x20 = {
        {5, 0x10, 0x20, {0x02}}, {5, 0x11, 0x20, {0x03}}, {6, 0x11, 0x20, {0x04}}};
    EXPECT_EQ(recorder.frames, to_0x20);

    recorder.frames.clear();
    CanAcceptanceFilter from_0x11 = make_acceptance_filter(0x20, 0x11);
    ASSERT_EQ(device.apply_filters(Slice<CanAcceptanceFilter>(&from_0x11, 1, 1)), 0);
    for (const char* frame : {"00504021#05", "10064023#C8809862140005", "10164023#0102030405060708",
                              "10264023#090A0B0C0D0E0F10", "00504821#06", "10364023#11121314"}) {
        ASSERT_EQ(cansend("vcan0", frame), 0) << frame;
    }
    ASSERT_TRUE(pump_until(device, [&] { return !recorder.frames.empty(); }));
    EXPECT_EQ(recorder.frames, (std::vector<RecordedFrame>{{5, 0x11, 0x20, counting_bytes(20)}}))
        << "the sender 0x11 only; its header and data frames all pass the filter";
}

TEST_F(NetDeviceCanOnBus, TwoDevicesExchangeTheLargestPayload) {
    Device sender("vcan0", 0x10), receiver("vcan0", 0x20);
    open(sender);
    open(receiver);
    FrameRecorder recorder;
    receiver.set_handler(&recorder);
    const std::vector<uint8_t> largest = counting_bytes(2040, 0x33);
    const std::vector<uint8_t> small = {1, 2, 3};
    ASSERT_EQ(sender.send_raw(make_frame(largest, 10, 0x10, 0x20)), 0);
    ASSERT_EQ(sender.send_raw(make_frame(small, 10, 0x10, 0x21)), 0);  // for someone else
    ASSERT_EQ(sender.send_raw(make_frame(small, 10, 0x10, 0xFF)), 0);
    ASSERT_TRUE(pump_until({&sender, &receiver}, [&] { return recorder.frames.size() >= 2; }));
    EXPECT_EQ(recorder.frames[0], (RecordedFrame{10, 0x10, 0x20, largest}));
    EXPECT_EQ(recorder.frames[1], (RecordedFrame{10, 0x10, 0xFF, small}));
    EXPECT_EQ(recorder.frames.size(), 2u);
}

// vcan1 goes through a slow token bucket with a short queue, so the kernel
// answers ENOBUFS long before a 256-frame message is out.
TEST_F(NetDeviceCanOnBus, FullDeviceQueueKeepsFramesQueuedSilentlyUntilTheyGo) {
    ASSERT_EQ(can_bus_tools::run({"tc", "qdisc", "replace", "dev", "vcan1", "root", "tbf", "rate", "100kbit", "burst",
                                  "256", "limit", "256"}),
              0);
    Device sender("vcan1", 0x10), receiver("vcan1", 0x20);
    open(sender);
    open(receiver);
    FrameRecorder recorder;
    receiver.set_handler(&recorder);
    Candump candump("vcan1");
    ASSERT_TRUE(candump.wait_ready());

    const std::vector<uint8_t> largest = counting_bytes(2040, 0x77);
    testing::internal::CaptureStdout();
    ASSERT_EQ(sender.send_raw(make_frame(largest, 10, 0x10, 0x20)), 0);
    const bool queued = has_queued_frames(sender);
    const bool delivered =
        pump_until({&sender, &receiver}, [&] { return !recorder.frames.empty() && !has_queued_frames(sender); });
    const std::string log = testing::internal::GetCapturedStdout();
    can_bus_tools::run({"tc", "qdisc", "del", "dev", "vcan1", "root"});

    EXPECT_TRUE(queued) << "ENOBUFS left the rest of the message queued";
    EXPECT_EQ(log, "") << "ENOBUFS is not an error worth a line";
    ASSERT_TRUE(delivered);
    EXPECT_EQ(recorder.frames[0], (RecordedFrame{10, 0x10, 0x20, largest}));

    std::vector<uint32_t> sequence;
    std::string line;
    while (sequence.size() < 256 && candump.next(line)) {
        sequence.push_back(static_cast<uint32_t>(std::stoul(line.substr(6, 8), nullptr, 16)));
    }
    ASSERT_EQ(sequence.size(), 256u);
    for (uint32_t s = 0; s < 256; s++) EXPECT_EQ(sequence[s], 0x10004021u | (s << 20)) << "frame " << s;
}

TEST_F(NetDeviceCanOnBus, OpenFailsForAMissingInterfaceWithItsErrno) {
    Device device("nosuchcan9", 0x20);
    testing::internal::CaptureStdout();
    EXPECT_EQ(device.open(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "ERROR: creating CAN socket: " + std::to_string(ENODEV) + "\n");
}
