// The CAN device on a real (virtual) bus, with can-utils as the other side.
// Runs inside the guest of scripts/can-vm, which creates vcan0 and vcan1.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "support/frame_recorder.h"
#include "vostrelka/Time.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"

extern char** environ;
using namespace vostrelka::net_device;
using test_support::make_frame;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<test_support::RecordedFrame>;

namespace {

constexpr int64_t TIMEOUT_US = 10000000;
const Bytes TWENTY = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};

// A device on the bus that records what it delivers.
struct Device : NetDeviceCanAlloc<16, 2048, 512> {
    Device(const char* ifname, uint8_t address) : NetDeviceCanAlloc(ifname, address) {
        EXPECT_EQ(open(), 0) << "run inside scripts/can-vm";
        set_handler(&recorder);
    }
    // Whether frames wait in the queue: it then asks to be told when it can write.
    bool queued() {
        fd_set r, w, e;
        FD_ZERO(&r);
        FD_ZERO(&w);
        FD_ZERO(&e);
        register_fd(&r, &w, &e);
        return FD_ISSET(get_fd(), &w);
    }
    test_support::FrameRecorder recorder;
};

// Turns the devices' events as the main loop does until `done`; false at the deadline.
bool pump_until(const std::vector<Device*>& devices, const std::function<bool()>& done) {
    for (const int64_t deadline = vostrelka::time_us() + TIMEOUT_US; !done();) {
        if (vostrelka::time_us() > deadline) return false;
        fd_set r, w, e;
        FD_ZERO(&r);
        FD_ZERO(&w);
        FD_ZERO(&e);
        for (Device* d : devices) d->register_fd(&r, &w, &e);
        timeval wait{0, 20000};
        if (select(FD_SETSIZE, &r, &w, &e, &wait) < 0) return false;
        for (Device* d : devices) {
            d->on_event((d->is_fd_set(&r) ? vostrelka::event_system::EVENT_READABLE : 0) |
                        (d->is_fd_set(&w) ? vostrelka::event_system::EVENT_WRITABLE : 0));
        }
    }
    return true;
}

void cansend(std::initializer_list<const char*> frames) {
    for (const char* frame : frames)
        ASSERT_EQ(std::system((std::string("cansend vcan0 ") + frame).c_str()), 0) << frame;
}

// candump of vcan0 in log form into a file. It listens once a probe with a
// standard identifier, which the devices ignore, comes through.
class Candump {
public:
    Candump() {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "candump.log", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const char* argv[] = {"candump", "-L", "vcan0", nullptr};
        EXPECT_EQ(posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ), 0);
        posix_spawn_file_actions_destroy(&actions);
        for (int tries = 0; lines().empty() && tries < 200; tries++) {
            if (std::system("cansend vcan0 7FF#") != 0) break;
            poll(nullptr, 0, 50);
        }
    }
    ~Candump() {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
    // "vcan0 ID#DATA" of every frame but the probes, once there are `count` or at the deadline.
    std::vector<std::string> frames(size_t count) {
        std::vector<std::string> seen;
        for (const int64_t deadline = vostrelka::time_us() + TIMEOUT_US;
             seen.size() < count && vostrelka::time_us() < deadline;) {
            poll(nullptr, 0, 20);
            seen.clear();
            for (const std::string& line : lines()) {
                if (line != "vcan0 7FF#") seen.push_back(line);
            }
        }
        return seen;
    }

private:
    std::vector<std::string> lines() {
        std::ifstream in("candump.log");
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) out.push_back(line.substr(line.find(") ") + 2));
        return out;
    }
    pid_t pid = -1;
};

}  // namespace

TEST(NetDeviceCanOnBus, SentFramesReachTheBusWithExactIdentifiers) {
    Device device("vcan0", 0x10);
    Candump candump;
    for (const Bytes& payload : {Bytes{}, Bytes{1, 2, 3, 4, 5, 6, 7, 8}, Bytes{0xAB}}) {
        ASSERT_EQ(device.send_raw(make_frame(1, 0x10, 0x20, payload)), 0);
    }
    ASSERT_EQ(device.send_raw(make_frame(5, 0x10, 0x20, TWENTY)), 0);
    EXPECT_EQ(candump.frames(7),
              (std::vector<std::string>{"vcan0 00104021#", "vcan0 00124021#0102030405060708", "vcan0 00144021#AB",
                                        "vcan0 10064021#C8809862140005", "vcan0 10164021#0102030405060708",
                                        "vcan0 10264021#090A0B0C0D0E0F10", "vcan0 10364021#11121314"}));
}

TEST(NetDeviceCanOnBus, ReassemblesWhatCansendPutsOnTheBusAndIgnoresStandardAndRemoteFrames) {
    Device device("vcan0", 0x20);
    // Sender 0x10, counter 3: data frames out of order, the header last, then a single frame.
    cansend({"123#1122", "10264021#090A0B0C0D0E0F10", "10364021#11121314", "00564021#R", "10164021#0102030405060708",
             "10064021#C8809862140005", "00564021#DEADBEEF"});
    ASSERT_TRUE(pump_until({&device}, [&] { return device.recorder.frames.size() >= 2; }));
    EXPECT_EQ(device.recorder.frames, (Frames{{5, 0x10, 0x20, TWENTY}, {5, 0x10, 0x20, {0xDE, 0xAD, 0xBE, 0xEF}}}));
}

// Frames are read in bus order, so once the last (accepted) frame is through,
// every rejected one before it has had its chance.
TEST(NetDeviceCanOnBus, OwnAcceptanceFiltersPassOnlyFramesForTheDevice) {
    Device device("vcan0", 0xFF);  // takes every destination in software
    CanAcceptanceFilter filter = make_acceptance_filter(0x20, 0xFF);
    ASSERT_EQ(device.apply_filters(vostrelka::Slice<CanAcceptanceFilter>(&filter, 1, 1)), 0);
    cansend({"00504221#01", "00504021#02", "00604023#03"});
    ASSERT_TRUE(pump_until({&device}, [&] { return device.recorder.frames.size() >= 2; }));
    EXPECT_EQ(device.recorder.frames, (Frames{{5, 0x10, 0x20, {2}}, {6, 0x11, 0x20, {3}}}));

    device.recorder.frames.clear();
    filter = make_acceptance_filter(0x20, 0x11);
    ASSERT_EQ(device.apply_filters(vostrelka::Slice<CanAcceptanceFilter>(&filter, 1, 1)), 0);
    cansend({"00504021#05", "10064023#C8809862140005", "10164023#0102030405060708", "10264023#090A0B0C0D0E0F10",
             "00504821#06", "10364023#11121314"});
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
