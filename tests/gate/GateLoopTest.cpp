// Single passes of the gate's main loop: events, timers, select() failures
// and the RF modem handler that each pass updates.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "RFModemHandler.h"
#include "support/InProcessGate.h"
#include "vostrelka/Time.h"

using namespace test_support;
using vostrelka::Gate;

namespace {

constexpr int64_t SECOND_US = 1000000;
constexpr long T0_US = 7000000;

// An entry that records what the loop tells it; with a descriptor, it
// watches it for reading and for what `watch` asks (0x01 write, 0x04 exception).
struct ProbeEntry : vostrelka::event_system::EventLoopEntry {
    int fd = -1;
    uint8_t watch = 0;
    bool has_timer_handler = true;
    std::vector<uint8_t> events;
    std::vector<int64_t> timers;

    bool is_fd_set(fd_set* set) override { return fd >= 0 && FD_ISSET(fd, set); }
    void register_fd(fd_set* read_set, fd_set* write_set, fd_set* except_set) override {
        if (fd >= 0) FD_SET(fd, read_set);
        if (watch & 0x01) FD_SET(fd, write_set);
        if (watch & 0x04) FD_SET(fd, except_set);
    }
    void on_event(uint8_t bits) override { events.push_back(bits); }
    void on_timer(int64_t deadline) override { timers.push_back(deadline); }
    bool overrides_on_timer() const override { return has_timer_handler; }
};

class GateLoopTest : public ::testing::Test {
protected:
    InProcessGate bench;
    Gate& gate = bench.gate;

    Lines pass() {
        return log_lines_of([&] { gate.run_once(0); });
    }
};

// select() is asked about the descriptors up to the highest one an entry
// holds, so descriptors at the edges of the set's words, and the last one
// a set can hold, are seen like any other.
TEST_F(GateLoopTest, ReadyEntriesGetTheirBitsAndTheExceptionBitWheneverAnythingWasReady) {
    for (int moved_to : {-1, 63, 64, 1023}) {
        SCOPED_TRACE(moved_to);
        InProcessGate fresh;
        int busy[2], idle[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, busy) | socketpair(AF_UNIX, SOCK_DGRAM, 0, idle), 0);
        if (moved_to >= 0) {
            ASSERT_EQ(dup2(busy[0], moved_to), moved_to);
            close(busy[0]);
            busy[0] = moved_to;
        }
        ProbeEntry reader, quiet;
        reader.fd = busy[0], reader.watch = 0x01;
        quiet.fd = idle[0], quiet.watch = 0x04;
        for (ProbeEntry* entry : {&reader, &quiet}) fresh.gate.add_event_loop_entry(entry);
        log_lines_of([&] { fresh.gate.run_once(0); });
        ASSERT_EQ(write(busy[1], "x", 1), 1);
        log_lines_of([&] { fresh.gate.run_once(0); });
        EXPECT_EQ(reader.events, (std::vector<uint8_t>{0x01, 0x03}));
        EXPECT_EQ(quiet.events, (std::vector<uint8_t>{0x04, 0x04}));
        for (int fd : {busy[0], busy[1], idle[0], idle[1]}) close(fd);
    }
}

TEST_F(GateLoopTest, OnlyTheLastEntryWithATimerCountsOnceDueAndIfItHandlesTimers) {
    const int64_t past = vostrelka::time_us() - SECOND_US;
    ProbeEntry early, last, without_handler;
    early.timer_deadline = past;
    last.timer_deadline = past + 3600 * SECOND_US;
    for (ProbeEntry* entry : {&early, &last}) gate.add_event_loop_entry(entry);
    pass();
    last.timer_deadline = past + 1;
    pass();
    EXPECT_TRUE(early.timers.empty());
    EXPECT_EQ(last.timers, (std::vector<int64_t>{past + 1}));

    without_handler.has_timer_handler = false, without_handler.timer_deadline = past;
    gate.add_event_loop_entry(&without_handler);
    pass();
    EXPECT_TRUE(without_handler.timers.empty());
}

TEST_F(GateLoopTest, SelectFailureIsLoggedAndThePassGoesOn) {
    auto radio = bench.add_recording_iface(1);
    gate.add_handler(std::make_unique<vostrelka::RFModemHandler>(radio.get(), 1, 1.0f, 1));
    ProbeEntry stale;
    gate.add_event_loop_entry(&stale);
    const Lines lines = log_lines_of([&] {
        // Closed after the capture opened its own descriptors, so that
        // nothing takes its number before select() sees it.
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        close(fds[0]), close(fds[1]);
        stale.fd = fds[0];
        gate.run_once(0);
    });
    EXPECT_EQ(lines, Lines{"EventProcessor: ERROR: bad file descriptor!"});
    EXPECT_EQ(radio->sent.size(), 1u);
}

// The base config goes from the device to the modem at nine:
//   id 1 | size 9 (LE) | addr (LE) | power (float LE) | channel
TEST(RFModemHandlerTest, SendsBaseConfigFirstThenOnlyAfterStrictlyMoreThanAPeriod) {
    RecordingNetDevice device(0x31);
    vostrelka::RFModemHandler handler(&device, 2, 20.0f, 44);
    std::vector<long> sent_at;
    for (long now = T0_US; now <= T0_US + 4000000; now += 500000) {
        const size_t before = device.sent.size();
        handler.update(now);
        if (device.sent.size() != before) sent_at.push_back(now - T0_US);
    }
    EXPECT_EQ(sent_at, (std::vector<long>{0, 1500000, 3000000}));
    EXPECT_EQ(device.sent[0],
              (RecordedFrame{14, 0x31, 9, {0x01, 0x09, 0, 0, 0, 0x02, 0, 0, 0, 0x00, 0x00, 0xA0, 0x41, 44}}));
}

}  // namespace
