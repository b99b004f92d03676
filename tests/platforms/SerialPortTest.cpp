#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "support/PtyPair.h"
#include "vostrelka/SerialPort.h"

namespace {

using vostrelka::drivers::SerialPort;
using Parity = SerialPort::Parity;
using StopBits = SerialPort::StopBits;

termios line_settings(const test_support::PtyPair& pty) {
    termios tty;
    std::memset(&tty, 0, sizeof(tty));
    EXPECT_EQ(tcgetattr(pty.slave_fd(), &tty), 0);
    return tty;
}

// Reads from the port until `count` bytes arrived or two seconds passed.
std::vector<uint8_t> read_port(SerialPort& port, size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    std::vector<uint8_t> out;
    uint8_t chunk[512];
    while (out.size() < count && std::chrono::steady_clock::now() < deadline) {
        const int64_t n = port.read(chunk, sizeof(chunk));
        if (n < 0) break;
        out.insert(out.end(), chunk, chunk + n);
    }
    return out;
}

std::vector<uint8_t> every_byte_value() {
    std::vector<uint8_t> bytes(256);
    for (int i = 0; i < 256; ++i) bytes[i] = static_cast<uint8_t>(i);
    return bytes;
}

class SerialPortTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(pty.ok()); }
    test_support::PtyPair pty;
};

TEST_F(SerialPortTest, OpensRaw8N1At9600WhateverTheLineWasBefore) {
    // Start from a cooked line with parity, two stop bits and flow control.
    termios cooked = line_settings(pty);
    cooked.c_iflag |= ICRNL | IXON | ISTRIP;
    cooked.c_oflag |= OPOST | ONLCR;
    cooked.c_lflag |= ICANON | ECHO | ISIG;
    cooked.c_cflag |= PARENB | CSTOPB | CRTSCTS;
    cooked.c_cc[VMIN] = 1;
    cfsetspeed(&cooked, B38400);
    ASSERT_EQ(tcsetattr(pty.slave_fd(), TCSANOW, &cooked), 0);

    SerialPort port;
    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    EXPECT_TRUE(port.is_open());
    EXPECT_EQ(port.get_baud(), 9600u);

    const termios tty = line_settings(pty);
    EXPECT_EQ(tty.c_iflag, 0u);
    EXPECT_EQ(tty.c_oflag, 0u);
    EXPECT_EQ(tty.c_lflag, 0u);
    EXPECT_EQ(tty.c_cflag & ~static_cast<tcflag_t>(CBAUD | CBAUDEX), static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
    EXPECT_EQ(tty.c_cc[VMIN], 0);
    EXPECT_EQ(tty.c_cc[VTIME], 0);
    EXPECT_EQ(cfgetospeed(&tty), static_cast<speed_t>(B9600));
    EXPECT_EQ(cfgetispeed(&tty), static_cast<speed_t>(B9600));
    EXPECT_NE(fcntl(port.get_fd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(SerialPortTest, AppliesEveryListedRateAndAlways8N1) {
    const struct {
        unsigned int baud;
        speed_t speed;
    } rates[] = {{1200, B1200},     {2400, B2400},     {4800, B4800},    {9600, B9600},
                 {19200, B19200},   {38400, B38400},   {57600, B57600},  {115200, B115200},
                 {230400, B230400}, {460800, B460800}, {921600, B921600}};
    SerialPort port;
    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    for (const auto& rate : rates) {
        SCOPED_TRACE(rate.baud);
        ASSERT_EQ(port.configure(rate.baud, Parity::EVEN, StopBits::TWO), 0);
        EXPECT_EQ(port.get_baud(), rate.baud);
        const termios tty = line_settings(pty);
        EXPECT_EQ(cfgetospeed(&tty), rate.speed);
        EXPECT_EQ(cfgetispeed(&tty), rate.speed);
        EXPECT_EQ(tty.c_cflag & (PARENB | CSTOPB | CSIZE), static_cast<tcflag_t>(CS8));
    }
}

TEST_F(SerialPortTest, RefusesUnlistedRateAndLeavesTheLineAlone) {
    SerialPort port;
    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    ASSERT_EQ(port.configure(115200, Parity::NONE, StopBits::ONE), 0);
    // Make the line non-raw, so that applying any part of the settings shows.
    termios cooked = line_settings(pty);
    cooked.c_iflag |= ICRNL;
    cooked.c_lflag |= ICANON;
    cooked.c_cc[VMIN] = 1;
    ASSERT_EQ(tcsetattr(pty.slave_fd(), TCSANOW, &cooked), 0);
    const termios before = line_settings(pty);

    for (unsigned int baud : {14400u, 0u, 9601u, 1000000u}) {
        SCOPED_TRACE(baud);
        testing::internal::CaptureStdout();
        EXPECT_EQ(port.configure(baud, Parity::NONE, StopBits::ONE), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  "SerialPort: ERROR: invalid baudrate: " + std::to_string(baud) + "\n");
        const termios after = line_settings(pty);
        EXPECT_EQ(std::memcmp(&before, &after, sizeof(termios)), 0);
        EXPECT_EQ(port.get_baud(), 115200u);
    }
}

TEST_F(SerialPortTest, PassesEveryByteValueUntouchedBothWays) {
    SerialPort port;
    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    const std::vector<uint8_t> bytes = every_byte_value();

    ASSERT_TRUE(pty.write_master(bytes));
    EXPECT_EQ(read_port(port, bytes.size()), bytes);
    uint8_t extra;
    EXPECT_EQ(port.read(&extra, 1), 0);  // nothing waiting is not an error

    ASSERT_EQ(port.write(bytes.data(), bytes.size()), static_cast<int64_t>(bytes.size()));
    // An echo of the first direction would arrive here first.
    EXPECT_EQ(pty.read_master(bytes.size()), bytes);
    EXPECT_TRUE(pty.read_master_available().empty());
}

TEST_F(SerialPortTest, ClosedPortRefusesReadAndWrite) {
    SerialPort port;
    uint8_t buf[4] = {1, 2, 3, 4};
    EXPECT_FALSE(port.is_open());
    EXPECT_EQ(port.read(buf, sizeof(buf)), -1);
    EXPECT_EQ(port.write(buf, sizeof(buf)), -1);

    ASSERT_EQ(port.open(pty.slave_path().c_str()), 0);
    port.close();
    port.close();  // harmless
    EXPECT_FALSE(port.is_open());
    EXPECT_EQ(port.get_fd(), -1);
    EXPECT_EQ(port.read(buf, sizeof(buf)), -1);
    EXPECT_EQ(port.write(buf, sizeof(buf)), -1);
}

TEST(SerialPortOpenTest, ReportsWhyAndStaysClosed) {
    const struct {
        const char* path;
        const char* log;
    } cases[] = {
        {"/nonexistent/ttyX", "SerialPort: ERROR: opening port \"/nonexistent/ttyX\": No such file or directory\n"},
        {"/dev/null",  // opens, but is no terminal
         "SerialPort: ERROR: tcgetattr: Inappropriate ioctl for device\n"
         "SerialPort: ERROR: setting default port configuration: Inappropriate ioctl for device\n"},
    };
    for (const auto& c : cases) {
        SerialPort port;
        testing::internal::CaptureStdout();
        EXPECT_EQ(port.open(c.path), -1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.log);
        EXPECT_FALSE(port.is_open());
    }
}

TEST_F(SerialPortTest, MoveTakesTheDescriptorAndDestructionClosesIt) {
    SerialPort first;
    ASSERT_EQ(first.open(pty.slave_path().c_str()), 0);
    ASSERT_EQ(first.configure(57600, Parity::NONE, StopBits::ONE), 0);
    const int fd = first.get_fd();
    {
        SerialPort second(std::move(first));
        EXPECT_EQ(first.get_fd(), -1);
        EXPECT_EQ(second.get_fd(), fd);
        EXPECT_EQ(second.get_baud(), 57600u);
        const uint8_t byte = 0x7E;
        ASSERT_EQ(second.write(&byte, 1), 1);
        EXPECT_EQ(pty.read_master(1), std::vector<uint8_t>{0x7E});
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
