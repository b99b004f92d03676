// Single passes of the gate's main loop: events, timers, select() failures,
// peer ageing, name resolution and serial port supervision.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "RFModemHandler.h"
#include "support/InProcessGate.h"
#include "support/PtyPair.h"
#include "support/TempDir.h"
#include "vostrelka/SerialPort.h"
#include "vostrelka/Time.h"

using test_support::Lines;
using test_support::log_lines_of;
using vostrelka::Gate;

namespace {

constexpr int64_t SECOND_US = 1000000;

// An entry over one end of a socket pair that records what the loop tells it.
class ProbeEntry : public vostrelka::event_system::EventLoopEntry {
public:
    explicit ProbeEntry(int fd_ = -1, bool has_timer_handler_ = true)
        : fd(fd_), has_timer_handler(has_timer_handler_) {}

    bool is_fd_set(fd_set* set) override { return fd >= 0 && FD_ISSET(fd, set); }
    void register_fd(fd_set* read_set, fd_set* write_set, fd_set* except_set) override {
        if (fd < 0) return;
        FD_SET(fd, read_set);
        if (watch_write) FD_SET(fd, write_set);
        if (watch_except) FD_SET(fd, except_set);
    }
    void on_event(uint8_t bits) override { events.push_back(bits); }
    void on_timer(int64_t deadline) override { timers.push_back(deadline); }
    bool overrides_on_timer() const override { return has_timer_handler; }

    int fd;
    bool has_timer_handler;
    bool watch_write = false;
    bool watch_except = false;
    std::vector<uint8_t> events;
    std::vector<int64_t> timers;
};

class GateLoopTest : public ::testing::Test {
protected:
    test_support::InProcessGate bench;
    Gate& gate = bench.gate;

    Lines pass() {
        return log_lines_of([&] { gate.run_once(0); });
    }
};

TEST_F(GateLoopTest, ReadyEntriesGetTheirBitsAndTheExceptionBitWheneverAnythingWasReady) {
    int busy[2], idle[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, busy), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, idle), 0);
    ProbeEntry reader(busy[0]);
    reader.watch_write = true;
    ProbeEntry quiet(idle[0]);
    quiet.watch_except = true;
    gate.event_loop_entries.push_back(&reader);
    gate.event_loop_entries.push_back(&quiet);

    pass();
    EXPECT_EQ(reader.events, (std::vector<uint8_t>{0x01}));
    EXPECT_EQ(quiet.events, (std::vector<uint8_t>{0x04}));
    ASSERT_EQ(write(busy[1], "x", 1), 1);
    pass();
    EXPECT_EQ(reader.events, (std::vector<uint8_t>{0x01, 0x03}));
    EXPECT_EQ(quiet.events, (std::vector<uint8_t>{0x04, 0x04}));
    for (int fd : {busy[0], busy[1], idle[0], idle[1]}) close(fd);
}

TEST_F(GateLoopTest, OnlyTheLastEntryWithATimerCountsAndOnlyOnceDueAndHandled) {
    const int64_t past = vostrelka::time_us() - SECOND_US;
    ProbeEntry early, last, without_handler(-1, false);
    early.timer_deadline = past;
    last.timer_deadline = vostrelka::time_us() + 3600 * SECOND_US;
    for (ProbeEntry* entry : {&early, &last}) gate.event_loop_entries.push_back(entry);
    pass();
    EXPECT_TRUE(early.timers.empty());
    EXPECT_TRUE(last.timers.empty());

    last.timer_deadline = past + 1;
    pass();
    EXPECT_TRUE(early.timers.empty());
    EXPECT_EQ(last.timers, (std::vector<int64_t>{past + 1}));

    without_handler.timer_deadline = past;
    gate.event_loop_entries.push_back(&without_handler);
    pass();
    EXPECT_TRUE(without_handler.timers.empty());
}

TEST_F(GateLoopTest, SelectFailureIsLoggedAndThePassGoesOn) {
    auto radio = bench.add_recording_iface(1);
    gate.handlers.push_back(std::make_unique<vostrelka::RFModemHandler>(radio.get(), 1, 1.0f, 1));
    ProbeEntry stale;
    gate.event_loop_entries.push_back(&stale);
    const Lines lines = log_lines_of([&] {
        // Closed after the capture opened its own descriptors, so that
        // nothing takes its number before select() sees it.
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        close(fds[0]);
        close(fds[1]);
        stale.fd = fds[0];
        gate.run_once(0);
    });
    EXPECT_EQ(lines, Lines{"EventProcessor: ERROR: bad file descriptor!"});
    EXPECT_TRUE(stale.events.empty());
    EXPECT_EQ(radio->sent.size(), 1u);
}

TEST_F(GateLoopTest, LinksLearnedOnLocalLinksAgeOutAfterTenSilentSeconds) {
    bench.add_recording_iface(1);
    bench.add_recording_iface(3, Gate::MANET);
    log_lines_of([&] {
        gate.add_manet_peer(bench.iface(1), 0x0B000001, 0x07, nullptr, {});
        gate.add_manet_peer(bench.iface(1), 0x0B000002, 0x08, nullptr, {});
        gate.add_manet_peer(bench.iface(3), 0x0B000002, 0x09, nullptr, {});
        gate.add_manet_peer(bench.iface(1), 0x0B000003, 0x0A, nullptr, {});
    });
    const uint64_t now = static_cast<uint64_t>(vostrelka::time_us());
    const uint64_t stale = now - Gate::PEER_TIMEOUT_US - SECOND_US / 2;
    gate.manet_peers.at(0x0B000001)[0].last_seen = stale;
    gate.manet_peers.at(0x0B000002)[0].last_seen = stale;
    gate.manet_peers.at(0x0B000002)[1].last_seen = stale;  // on the MANet interface: never ages
    gate.manet_peers.at(0x0B000003)[0].last_seen = now - Gate::PEER_TIMEOUT_US + SECOND_US;

    const std::string seen = std::to_string(stale);
    EXPECT_EQ(pass(), (Lines{"Remove MANet peer on iface 1, last seen " + seen + ": 0x0B000001 / 0x07",
                             "Remove MANet peer on iface 1, last seen " + seen + ": 0x0B000002 / 0x08"}));
    EXPECT_EQ(gate.manet_peers.count(0x0B000001), 0u);
    ASSERT_EQ(gate.manet_peers.at(0x0B000002).size(), 1u);
    EXPECT_EQ(gate.manet_peers.at(0x0B000002)[0].local_addr, 0x09);
    EXPECT_EQ(gate.manet_peers.count(0x0B000003), 1u);
}

TEST_F(GateLoopTest, FinishedNameResolutionGivesTheLinkItsAddress) {
    bench.add_recording_iface(3, Gate::MANET);
    auto resolver = std::make_unique<vostrelka::AddressResolver>(*vostrelka::HostPort::from("127.0.0.1:5000"), false);
    log_lines_of([&] { gate.add_manet_peer(bench.iface(3), 0x0A000001, 0xFF, std::move(resolver), {}); });
    const Gate::MANetPeer& link = gate.manet_peers.at(0x0A000001).front();
    Lines lines;
    for (int i = 0; i < 500 && !link.inet_addr; i++) {
        for (auto& line : log_lines_of([&] { gate.run_once(10000); })) lines.push_back(line);
    }
    ASSERT_TRUE(link.inet_addr.has_value());
    EXPECT_EQ(lines, Lines{"MANet peer on iface 3 retrieved addrinfo '127.0.0.1:5000': '127.0.0.1:5000'"});
    EXPECT_EQ(gate.full_addr_s_manet(0x0A000001, link), "0x0A000001 / 0xFF / 127.0.0.1:5000 / 127.0.0.1:5000");
    EXPECT_EQ(pass(), Lines{});
}

// The adapter is a pseudo-terminal behind a symlinked path, as udev names a
// USB adapter: unplugging takes the permission bits off the old terminal's
// node (what the gate sees through its open descriptor) and removes the
// link; plugging back points the link at a new terminal.
TEST_F(GateLoopTest, SerialPortIsClosedOnceWhenUnpluggedAndReopenedWhenPluggedBack) {
    test_support::TempDir dir;
    const std::string path = dir.path() + "/ttyADAPTER";
    auto first = std::make_unique<test_support::PtyPair>();
    ASSERT_EQ(symlink(first->slave_path().c_str(), path.c_str()), 0);
    auto port = std::make_shared<vostrelka::drivers::SerialPort>();
    vostrelka::net_device::NetDeviceFactory::SerialPortDeviceInfo record;
    record.port = port;
    record.baud_rate = 115200;
    record.path = path;
    gate.factory.serial_ports().push_back(record);

    EXPECT_EQ(pass(), Lines{"Serial port " + path + " connecting"});
    EXPECT_TRUE(port->is_open());
    EXPECT_EQ(pass(), Lines{});
    ASSERT_EQ(chmod(first->slave_path().c_str(), 0), 0);
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(pass(), Lines{"Serial port " + path + " disconnected"});
    EXPECT_FALSE(port->is_open());
    EXPECT_EQ(pass(), Lines{});

    test_support::PtyPair second;
    ASSERT_EQ(symlink(second.slave_path().c_str(), path.c_str()), 0);
    EXPECT_EQ(pass(), Lines{"Serial port " + path + " connecting"});
    EXPECT_TRUE(port->is_open());
}

}  // namespace
