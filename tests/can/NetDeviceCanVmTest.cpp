// The CAN device on a real (virtual) bus, with can-utils as the other side;
// gate-through-can.sh checks what the gateway puts on the bus with candump.
// Runs inside the guest of scripts/can-vm, which creates vcan0 and vcan1.
#include <gtest/gtest.h>
#include <poll.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "support/frame_recorder.h"
#include "vostrelka/Time.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"

using namespace vostrelka::net_device;
using test_support::make_frame;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<test_support::RecordedFrame>;

namespace {

const Bytes TWENTY = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};

// A device on the bus that records what it delivers.
struct Device : NetDeviceCanAlloc<16, 2048, 512> {
    Device(const char* ifname, uint8_t address) : NetDeviceCanAlloc(ifname, address) {
        EXPECT_EQ(open(), 0) << "run inside scripts/can-vm";
        set_handler(&recorder);
    }
    bool queued() {  // frames wait in the queue while it asks to be told when it can write
        fd_set r{}, w{}, e{};
        register_fd(&r, &w, &e);
        return FD_ISSET(get_fd(), &w);
    }
    test_support::FrameRecorder recorder;
};

// Lets the devices read and write until `done`; false after ten seconds.
bool pump_until(const std::vector<Device*>& devices, const std::function<bool()>& done) {
    for (const int64_t deadline = vostrelka::time_us() + 10000000; !done(); poll(nullptr, 0, 5)) {
        if (vostrelka::time_us() > deadline) return false;
        for (Device* d : devices)
            d->on_event(vostrelka::event_system::EVENT_READABLE | vostrelka::event_system::EVENT_WRITABLE);
    }
    return true;
}

int cansend(std::initializer_list<const char*> frames) {
    std::string script = "true";
    for (const char* frame : frames) script += std::string(" && cansend vcan0 ") + frame;
    return std::system(script.c_str());
}

}  // namespace

// Frames are read in bus order, so once the last accepted frame is through,
// every one ignored or filtered before it has had its chance.
TEST(NetDeviceCanOnBus, ReassemblesWhatCansendSendsAndKeepsToItsOwnFilters) {
    Device device("vcan0", 0xFF);  // takes every destination in software
    // Sender 0x10, counter 3: data frames out of order, the header last, then a single frame.
    ASSERT_EQ(cansend({"123#1122", "10264021#090A0B0C0D0E0F10", "10364021#11121314", "00564021#R",
                       "10164021#0102030405060708", "10064021#C8809862140005", "00564021#DEADBEEF"}),
              0);
    ASSERT_TRUE(pump_until({&device}, [&] { return device.recorder.frames.size() >= 2; }));
    EXPECT_EQ(device.recorder.frames, (Frames{{5, 0x10, 0x20, TWENTY}, {5, 0x10, 0x20, {0xDE, 0xAD, 0xBE, 0xEF}}}));

    device.recorder.frames.clear();
    CanAcceptanceFilter filter = make_acceptance_filter(0x20, 0x11);
    ASSERT_EQ(device.apply_filters(vostrelka::Slice<CanAcceptanceFilter>(&filter, 1, 1)), 0);
    ASSERT_EQ(cansend({"00504021#05", "10064023#C8809862140005", "10164023#0102030405060708",
                       "10264023#090A0B0C0D0E0F10", "00504823#06", "10364023#11121314"}),
              0);
    ASSERT_TRUE(pump_until({&device}, [&] { return !device.recorder.frames.empty(); }));
    EXPECT_EQ(device.recorder.frames, (Frames{{5, 0x11, 0x20, TWENTY}}));
}

// vcan1 goes through a slow token bucket with a short queue, so the kernel
// answers ENOBUFS long before a 256-frame message is out.
TEST(NetDeviceCanOnBus, FullKernelQueueKeepsFramesQueuedSilentlyUntilTheyGo) {
    ASSERT_EQ(std::system("tc qdisc replace dev vcan1 root tbf rate 100kbit burst 256 limit 256"), 0);
    Device sender("vcan1", 0x10), receiver("vcan1", 0x20);
    const Bytes largest(2040, 0x77);
    testing::internal::CaptureStdout();
    ASSERT_EQ(sender.send_raw(make_frame(10, 0x10, 0x20, largest)), 0);
    const bool queued = sender.queued();
    const bool delivered =
        pump_until({&sender, &receiver}, [&] { return !receiver.recorder.frames.empty() && !sender.queued(); });
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::system("tc qdisc del dev vcan1 root"), 0);
    EXPECT_TRUE(queued) << "ENOBUFS left the rest of the message queued";
    EXPECT_EQ(log, "") << "ENOBUFS is not an error worth a line";
    ASSERT_TRUE(delivered);
    EXPECT_EQ(receiver.recorder.frames, (Frames{{10, 0x10, 0x20, largest}}));
}
