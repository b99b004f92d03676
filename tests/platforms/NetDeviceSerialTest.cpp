#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <vector>

#include "support/PtyPair.h"
#include "support/frame_recorder.h"
#include "vostrelka/NetDeviceSerial.h"
#include "vostrelka/SerialPort.h"
#include "vostrelka/net_device/SerialEncoder.h"

namespace {

using vostrelka::Slice;
using vostrelka::drivers::DataPort;
using vostrelka::drivers::SerialPort;
using vostrelka::net_device::Frame;
using vostrelka::net_device::NetDevice;
using vostrelka::net_device::NetDeviceSerialAlloc;
using vostrelka::net_device::SerialEncoder;
using vostrelka::net_device::SerialEncoderErrorStats;
using vostrelka::net_device::SerialEncoderHandlerI;
using Bytes = std::vector<uint8_t>;
using test_support::make_frame;
using test_support::RecordedFrame;
using SerialDevice = NetDeviceSerialAlloc<2048, 2048>;

constexpr uint8_t DEVICE_ADDR = 0x10;
constexpr size_t TX_QUEUE_SIZE = 4096;

// Payload escapes, and the control characters a cooked line would eat.
const Bytes TRICKY_PAYLOAD = {0x42, 0x55, 0x00, 0x11, 0x13, 0x0D, 0x0A, 0x03};
const Bytes TRICKY_FRAME_ON_LINE = {0x42, 0x0D, 0xB8, 0xCA, 0xCA, 0x07, 0x01, 0x10, 0x55, 0xBD,
                                    0x55, 0xAA, 0x00, 0x11, 0x13, 0x0D, 0x0A, 0x03, 0x42};

// The line bytes of a frame, produced by the codec on its own.
Bytes encoded(const Frame& frame) {
    struct Ignore : SerialEncoderHandlerI {
        void on_frame(const Frame&) override {}
    } ignore;
    Bytes storage(2 * 2048 + 16);
    Bytes rx(16);
    Slice<unsigned char> tx_slice(storage.data(), 0, storage.size());
    Slice<unsigned char> rx_slice(rx.data(), 0, rx.size());
    SerialEncoder codec(tx_slice, rx_slice, ignore);
    SerialEncoderErrorStats stats;
    codec.encode(frame, stats);
    return Bytes(storage.begin(), storage.begin() + tx_slice.size);
}

struct FdSets {
    fd_set read, write, except;
    FdSets() {
        FD_ZERO(&read);
        FD_ZERO(&write);
        FD_ZERO(&except);
    }
    bool empty() const {
        fd_set none;
        FD_ZERO(&none);
        return std::memcmp(&read, &none, sizeof none) == 0 && std::memcmp(&write, &none, sizeof none) == 0 &&
               std::memcmp(&except, &none, sizeof none) == 0;
    }
};

FdSets registered(NetDevice& device) {
    FdSets sets;
    device.register_fd(&sets.read, &sets.write, &sets.except);
    return sets;
}

bool watched_for_writing(NetDevice& device, int fd) {
    FdSets sets = registered(device);
    return FD_ISSET(fd, &sets.write);
}

// Polls the device the way the main loop does until `done` holds or two
// seconds pass; false on timeout.
bool run_until(NetDevice& device, const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        FdSets sets = registered(device);
        timeval wait = {0, 10000};
        if (select(FD_SETSIZE, &sets.read, &sets.write, nullptr, &wait) <= 0) continue;
        uint8_t events = 0;
        if (device.is_fd_set(&sets.write)) events |= vostrelka::event_system::EVENT_WRITABLE;
        if (device.is_fd_set(&sets.read)) events |= vostrelka::event_system::EVENT_READABLE;
        if (events != 0) device.on_event(events);
    }
    return true;
}

// Waits until the slave side has `count` bytes waiting to be read.
bool wait_for_input(int slave_fd, int count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (;;) {
        int waiting = 0;
        if (ioctl(slave_fd, TIOCINQ, &waiting) != 0) return false;
        if (waiting >= count) return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        poll(nullptr, 0, 1);
    }
}

class NetDeviceSerialTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(pty.ok());
        ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
        ASSERT_EQ(port.configure(115200, SerialPort::Parity::NONE, SerialPort::StopBits::ONE), 0);
        device.set_handler(&recorder);
    }

    // Writes from the slave side until the line towards the master holds
    // no more, so that the device's own writes find it full.
    size_t fill_line() {
        const int fd = pty.slave_fd();
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        const Bytes filler(4096, 0x5A);
        size_t total = 0;
        for (;;) {
            const ssize_t n = write(fd, filler.data(), filler.size());
            if (n > 0) {
                total += static_cast<size_t>(n);
                continue;
            }
            struct pollfd pfd = {fd, POLLOUT, 0};
            if (poll(&pfd, 1, 100) == 0) return total;
        }
    }

    test_support::PtyPair pty;
    SerialPort port;
    SerialDevice device{port, DEVICE_ADDR};
    test_support::FrameRecorder recorder;
};

TEST_F(NetDeviceSerialTest, SendsFrameAsExactLineBytes) {
    EXPECT_EQ(device.send_raw(make_frame(0x07, 0x01, 0x10, TRICKY_PAYLOAD)), 0);
    EXPECT_EQ(pty.read_master(TRICKY_FRAME_ON_LINE.size()), TRICKY_FRAME_ON_LINE);
    EXPECT_EQ(device.queued_bytes(), 0u);
    EXPECT_FALSE(watched_for_writing(device, port.get_fd()));
}

TEST_F(NetDeviceSerialTest, DeliversFramesForItselfAndBroadcastOnly) {
    Bytes line = {0x00, 0x13, 0x11};  // noise before the first delimiter
    const Bytes for_other = encoded(make_frame(0x08, 0x01, 0x22, {0x01}));
    line.insert(line.end(), for_other.begin(), for_other.end());
    line.insert(line.end(), TRICKY_FRAME_ON_LINE.begin(), TRICKY_FRAME_ON_LINE.end());
    const Bytes broadcast = {0x42, 0xA5, 0xF1, 0x07, 0x88, 0x08, 0x22, 0xFF, 0x42};
    line.insert(line.end(), broadcast.begin(), broadcast.end());
    ASSERT_TRUE(pty.write_master(line));

    ASSERT_TRUE(run_until(device, [&] { return recorder.frames.size() >= 2; }));
    EXPECT_EQ(recorder.frames,
              (std::vector<RecordedFrame>{{0x07, 0x01, 0x10, TRICKY_PAYLOAD}, {0x08, 0x22, 0xFF, {}}}));
    EXPECT_EQ(recorder.last_device, &device);
}

TEST_F(NetDeviceSerialTest, DeviceWithBroadcastAddressTakesEveryDestination) {
    SerialDevice promiscuous(port, 0xFF);
    promiscuous.set_handler(&recorder);
    ASSERT_TRUE(pty.write_master(encoded(make_frame(0x08, 0x01, 0x22, {0x01}))));
    ASSERT_TRUE(run_until(promiscuous, [&] { return !recorder.frames.empty(); }));
    EXPECT_EQ(recorder.frames[0].dst, 0x22);
}

TEST_F(NetDeviceSerialTest, OneReadableEventDrainsMoreThanTheReadBuffer) {
    Bytes line;
    for (uint8_t i = 0; i < 3; ++i) {
        const Bytes frame = encoded(make_frame(0x09, i, DEVICE_ADDR, Bytes(1000, i)));
        line.insert(line.end(), frame.begin(), frame.end());
    }
    ASSERT_GT(line.size(), 2048u);
    ASSERT_TRUE(pty.write_master(line));
    ASSERT_TRUE(wait_for_input(pty.slave_fd(), static_cast<int>(line.size())));

    device.on_event(vostrelka::event_system::EVENT_READABLE);
    std::vector<RecordedFrame> expected;
    for (uint8_t i = 0; i < 3; ++i) expected.push_back({0x09, i, DEVICE_ADDR, Bytes(1000, i)});
    EXPECT_EQ(recorder.frames, expected);
}

TEST_F(NetDeviceSerialTest, QueueFillsWhileLineIsBlockedAndDrainsOnceItMoves) {
    const size_t filler = fill_line();
    ASSERT_GT(filler, 0u);

    const Bytes payload(1000, 0x33);
    const Frame frame = make_frame(0x07, 0x01, 0x02, payload);
    const Bytes frame_bytes = encoded(frame);
    size_t accepted = 0;
    while (device.send_raw(frame) == 0) {
        ++accepted;
        ASSERT_LT(accepted, 100u) << "the line never filled";
    }
    // Refused only because it did not fit: nothing left the queue meanwhile.
    EXPECT_EQ(accepted, TX_QUEUE_SIZE / frame_bytes.size());
    EXPECT_EQ(device.queued_bytes(), accepted * frame_bytes.size());
    EXPECT_EQ(device.get_stats().encode_errors, 1u);
    FdSets sets = registered(device);
    EXPECT_TRUE(FD_ISSET(port.get_fd(), &sets.read));
    EXPECT_TRUE(FD_ISSET(port.get_fd(), &sets.write));

    // The far end starts reading: the filler, then every queued frame whole.
    Bytes line;
    ASSERT_TRUE(run_until(device, [&] {
        const Bytes got = pty.read_master_available();
        line.insert(line.end(), got.begin(), got.end());
        return line.size() >= filler + accepted * frame_bytes.size();
    }));
    ASSERT_EQ(line.size(), filler + accepted * frame_bytes.size());
    EXPECT_EQ(Bytes(line.begin(), line.begin() + filler), Bytes(filler, 0x5A));
    for (size_t i = 0; i < accepted; ++i) {
        const auto start = line.begin() + filler + i * frame_bytes.size();
        EXPECT_EQ(Bytes(start, start + frame_bytes.size()), frame_bytes) << "frame " << i;
    }
    EXPECT_EQ(device.queued_bytes(), 0u);
    EXPECT_FALSE(watched_for_writing(device, port.get_fd()));
}

TEST(NetDeviceSerialClosedTest, PortThatFailedToOpenRegistersNothingAndOnlyQueues) {
    SerialPort port;
    testing::internal::CaptureStdout();
    ASSERT_EQ(port.open("/nonexistent/ttyX"), -1);
    testing::internal::GetCapturedStdout();
    SerialDevice device(port, DEVICE_ADDR);

    EXPECT_TRUE(registered(device).empty());
    fd_set all;
    std::memset(&all, 0xFF, sizeof all);
    EXPECT_FALSE(device.is_fd_set(&all));

    const Bytes payload(1000, 0x01);
    const Frame frame = make_frame(0x07, 0x01, 0x02, payload);
    const size_t frame_size = encoded(frame).size();
    const size_t fitting = TX_QUEUE_SIZE / frame_size;
    for (size_t i = 0; i < fitting; ++i) EXPECT_EQ(device.send_raw(frame), 0);
    EXPECT_EQ(device.send_raw(frame), -1);
    EXPECT_EQ(device.queued_bytes(), fitting * frame_size);
    EXPECT_EQ(device.get_stats().encode_errors, 1u);
    EXPECT_TRUE(registered(device).empty());
}

TEST_F(NetDeviceSerialTest, CarriesOnAfterThePortIsClosedAndReopened) {
    // Half a frame arrives before the port goes away...
    const Bytes incoming = encoded(make_frame(0x08, 0x05, DEVICE_ADDR, {0xA0, 0xA1, 0xA2, 0xA3}));
    const size_t half = incoming.size() / 2;
    ASSERT_TRUE(pty.write_master(Bytes(incoming.begin(), incoming.begin() + half)));
    ASSERT_TRUE(wait_for_input(pty.slave_fd(), static_cast<int>(half)));
    device.on_event(vostrelka::event_system::EVENT_READABLE);

    // ...and a frame is sent while it is closed.
    port.close();
    EXPECT_TRUE(registered(device).empty());
    ASSERT_EQ(device.send_raw(make_frame(0x07, 0x01, 0x10, TRICKY_PAYLOAD)), 0);
    EXPECT_EQ(device.queued_bytes(), TRICKY_FRAME_ON_LINE.size());

    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    ASSERT_TRUE(pty.write_master(Bytes(incoming.begin() + half, incoming.end())));
    Bytes line;
    ASSERT_TRUE(run_until(device, [&] {
        const Bytes got = pty.read_master_available();
        line.insert(line.end(), got.begin(), got.end());
        return line.size() >= TRICKY_FRAME_ON_LINE.size() && !recorder.frames.empty();
    }));
    EXPECT_EQ(line, TRICKY_FRAME_ON_LINE);
    EXPECT_EQ(recorder.frames, (std::vector<RecordedFrame>{{0x08, 0x05, DEVICE_ADDR, {0xA0, 0xA1, 0xA2, 0xA3}}}));
}

// A port that takes at most `limit` bytes per write, or fails (-1).
class ThrottledPort : public DataPort {
public:
    int64_t write(const uint8_t* data, size_t len) override {
        if (limit < 0) return -1;
        const size_t taken = std::min(len, static_cast<size_t>(limit));
        line.insert(line.end(), data, data + taken);
        return static_cast<int64_t>(taken);
    }
    int64_t read(uint8_t*, size_t) override { return 0; }
    void close() override {}
    int get_fd() const override { return 7; }

    int64_t limit = 0;
    Bytes line;
};

TEST(NetDeviceSerialPartialWriteTest, KeepsTheUnwrittenTailAtTheFrontOfTheQueue) {
    ThrottledPort port;
    SerialDevice device(port, DEVICE_ADDR);
    Bytes payload(291);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
    const Frame frame = make_frame(0x07, 0x01, 0x02, payload);
    const Bytes frame_bytes = encoded(frame);
    ASSERT_GE(frame_bytes.size(), 300u);

    ASSERT_EQ(device.send_raw(frame), 0);  // the port takes nothing yet
    port.limit = 100;
    device.do_write();
    EXPECT_EQ(port.line, Bytes(frame_bytes.begin(), frame_bytes.begin() + 100));
    EXPECT_EQ(device.queued_bytes(), frame_bytes.size() - 100);
    EXPECT_TRUE(watched_for_writing(device, 7));

    port.limit = -1;
    device.do_write();
    EXPECT_EQ(device.queued_bytes(), frame_bytes.size() - 100);

    // A second frame goes behind the tail; sending writes the queue once.
    port.limit = 100000;
    ASSERT_EQ(device.send_raw(frame), 0);
    Bytes both = frame_bytes;
    both.insert(both.end(), frame_bytes.begin(), frame_bytes.end());
    EXPECT_EQ(port.line, both);
    EXPECT_EQ(device.queued_bytes(), 0u);
    EXPECT_FALSE(watched_for_writing(device, 7));
}

}  // namespace
