#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <algorithm>
#include <cstring>

#include "support/PtyPair.h"
#include "support/frame_recorder.h"
#include "vostrelka/NetDeviceSerial.h"
#include "vostrelka/SerialPort.h"

using namespace vostrelka::net_device;
using test_support::Bytes;
using test_support::make_frame;
using test_support::to_serial_bytes;
using vostrelka::drivers::SerialPort;
using SerialDevice = NetDeviceSerialAlloc<2048, 2048>;

namespace {

// Escapes, and the control characters a cooked line would eat.
const Bytes TRICKY_PAYLOAD = {0x42, 0x55, 0x00, 0x11, 0x13, 0x0D, 0x0A, 0x03};
const Bytes TRICKY_LINE = to_serial_bytes({7, 1, 0x10, TRICKY_PAYLOAD});

// "r" when the device asks the main loop to watch `fd` for reading, "w" for writing.
std::string watched(NetDevice& device, int fd) {
    fd_set sets[3];  // read, write, exception
    for (fd_set& set : sets) FD_ZERO(&set);
    device.register_fd(&sets[0], &sets[1], &sets[2]);
    return std::string(FD_ISSET(fd, &sets[0]) ? "r" : "") + (FD_ISSET(fd, &sets[1]) ? "w" : "");
}

// A pseudo-terminal as the line, the port on its slave side.
struct SerialTest : testing::Test {
    termios line() const {
        termios tty{};
        EXPECT_EQ(tcgetattr(pty.slave_fd(), &tty), 0);
        return tty;
    }
    test_support::PtyPair pty;
    SerialPort port;
    SerialDevice device{port, 0x10};
    test_support::FrameRecorder recorder;
};

}  // namespace

// A new pseudo-terminal is a cooked line at 38400.
TEST_F(SerialTest, PortOpensRaw8N1At9600AndTakesEveryListedRateWithoutParityOrStopBits) {
    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    termios tty = line();
    EXPECT_EQ(tty.c_iflag | tty.c_oflag | tty.c_lflag | tty.c_cc[VMIN] | tty.c_cc[VTIME], 0u);
    EXPECT_EQ(tty.c_cflag & ~static_cast<tcflag_t>(CBAUD | CBAUDEX), static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
    EXPECT_EQ(cfgetispeed(&tty), static_cast<speed_t>(B9600));
    EXPECT_NE(fcntl(port.get_fd(), F_GETFL) & O_NONBLOCK, 0);
    const std::pair<unsigned int, speed_t> rates[] = {
        {1200, B1200},   {2400, B2400},     {4800, B4800},     {9600, B9600},     {19200, B19200},  {38400, B38400},
        {57600, B57600}, {115200, B115200}, {230400, B230400}, {460800, B460800}, {921600, B921600}};
    for (const auto& rate : rates) {
        ASSERT_EQ(port.configure(rate.first, SerialPort::Parity::EVEN, SerialPort::StopBits::TWO), 0) << rate.first;
        tty = line();
        EXPECT_EQ(cfgetospeed(&tty), rate.second) << rate.first;
        EXPECT_EQ(tty.c_cflag & (PARENB | CSTOPB | CSIZE), static_cast<tcflag_t>(CS8)) << rate.first;
    }
}

TEST_F(SerialTest, PortRefusesAnUnlistedRateAndReportsWhyItDidNotOpen) {
    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    termios tty = line();
    tty.c_lflag |= ICANON;  // cooked again, so that applying any part of a configuration shows
    ASSERT_EQ(tcsetattr(pty.slave_fd(), TCSANOW, &tty), 0);
    const termios before = line();
    testing::internal::CaptureStdout();
    EXPECT_EQ(port.configure(14400, SerialPort::Parity::NONE, SerialPort::StopBits::ONE), -1);
    EXPECT_EQ(port.open("/dev/null"), -1);  // opens, but is no terminal
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "SerialPort: ERROR: invalid baudrate: 14400\n"
              "SerialPort: ERROR: tcgetattr: Inappropriate ioctl for device\n"
              "SerialPort: ERROR: setting default port configuration: Inappropriate ioctl for device\n");
    const termios after = line();  // an unlisted rate leaves the line alone
    EXPECT_EQ(std::memcmp(&before, &after, sizeof(termios)), 0);
    uint8_t byte = 0;
    EXPECT_EQ(port.read(&byte, 1), -1);
    EXPECT_EQ(port.write(&byte, 1), -1);
}

TEST_F(SerialTest, DeviceSendsExactLineBytesAndOneReadableEventTakesEverythingForIt) {
    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    device.set_handler(&recorder);
    EXPECT_EQ(device.send_raw(make_frame(7, 1, 0x10, TRICKY_PAYLOAD)), 0);
    EXPECT_EQ(pty.read_master(TRICKY_LINE.size()), TRICKY_LINE);
    EXPECT_EQ(watched(device, port.get_fd()), "r");

    // More than one read buffer's worth, with noise and a frame for another device.
    Bytes line = {0x00, 0x13, 0x11};
    for (const Bytes& part : {to_serial_bytes({8, 1, 0x22, Bytes(1000, 1)}), TRICKY_LINE,
                              to_serial_bytes({9, 2, 0x10, Bytes(1100, 0x42)}), to_serial_bytes({8, 0x22, 0xFF, {}})})
        line.insert(line.end(), part.begin(), part.end());
    ASSERT_TRUE(pty.write_master(line));
    for (int waiting = 0, tries = 0; waiting < static_cast<int>(line.size()) && tries < 2000; tries++) {
        ioctl(pty.slave_fd(), TIOCINQ, &waiting);
        poll(nullptr, 0, 1);
    }
    device.on_event(vostrelka::event_system::EVENT_READABLE);
    EXPECT_EQ(recorder.frames,
              (std::vector<test_support::RecordedFrame>{
                  {7, 1, 0x10, TRICKY_PAYLOAD}, {9, 2, 0x10, Bytes(1100, 0x42)}, {8, 0x22, 0xFF, {}}}));
    EXPECT_EQ(recorder.last_device, &device);
}

namespace {

// A port that takes at most `limit` bytes per write, or fails (-1); closed while `fd` is -1.
struct ThrottledPort : vostrelka::drivers::DataPort {
    int64_t write(const uint8_t* data, size_t len) override {
        if (limit < 0) return -1;
        const size_t taken = std::min(len, static_cast<size_t>(limit));
        line.insert(line.end(), data, data + taken);
        return static_cast<int64_t>(taken);
    }
    int64_t read(uint8_t*, size_t) override { return 0; }
    void close() override {}
    int get_fd() const override { return fd; }
    int fd = -1;
    int64_t limit = -1;
    Bytes line;
};

}  // namespace

TEST(SerialQueueTest, DeviceQueuesOnAClosedPortRefusesWhatDoesNotFitAndKeepsTheUnwrittenTail) {
    ThrottledPort port;
    SerialDevice device(port, 0x10);
    const Bytes payload(1000, 0x33), frame_bytes = to_serial_bytes({7, 1, 2, payload});
    Bytes queued;
    for (int i = 0; i < 4; i++) {  // about 4000 bytes of a 4096-byte queue
        ASSERT_EQ(device.send_raw(make_frame(7, 1, 2, payload)), 0);
        queued.insert(queued.end(), frame_bytes.begin(), frame_bytes.end());
    }
    EXPECT_EQ(device.send_raw(make_frame(7, 1, 2, payload)), -1);
    EXPECT_EQ(watched(device, 7), "") << "a closed port registers nothing";
    port.fd = 7;
    port.limit = 100;
    device.do_write();
    port.limit = -1;
    device.do_write();
    EXPECT_EQ(port.line, Bytes(queued.begin(), queued.begin() + 100));
    EXPECT_EQ(device.queued_bytes(), queued.size() - 100);
    EXPECT_EQ(watched(device, 7), "rw");

    // Still no room for a new frame, but the queue moves anyway.
    port.limit = 100000;
    EXPECT_EQ(device.send_raw(make_frame(7, 1, 2, payload)), -1);
    EXPECT_EQ(port.line, queued);
    EXPECT_EQ(device.counters().serial.encode_errors, 2u);
    EXPECT_EQ(device.counters().drops.queue_full, 2u);
    EXPECT_EQ(watched(device, 7), "r");
}
