#include "vostrelka/SerialPort.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vostrelka/debug.h"

namespace vostrelka {
namespace drivers {

namespace {

constexpr const char* TAG = "SerialPort";

struct BaudEntry {
    unsigned int rate;
    speed_t speed;
};

// Ended by a 0 rate.
constexpr BaudEntry baud_lookup_table[] = {
    {1200, B1200},   {2400, B2400},     {4800, B4800},     {9600, B9600},     {19200, B19200},   {38400, B38400},
    {57600, B57600}, {115200, B115200}, {230400, B230400}, {460800, B460800}, {921600, B921600}, {0, B0},
};

constexpr unsigned int DEFAULT_BAUD = 9600;

const BaudEntry* find_baud(unsigned int baud) {
    for (const BaudEntry* entry = baud_lookup_table; entry->rate != 0; ++entry) {
        if (entry->rate == baud) return entry;
    }
    return nullptr;
}

}  // namespace

SerialPort::SerialPort(SerialPort&& other) noexcept : fd(other.fd), baud_rate(other.baud_rate), failure(other.failure) {
    other.fd = -1;
}

SerialPort::~SerialPort() {
    close();
}

int SerialPort::open(const char* path) {
    if (open_quietly(path) == 0) return 0;
    log_open_failure(path);
    return -1;
}

int SerialPort::open_quietly(const char* path) {
    close();  // reopening must not leak the old descriptor
    failure = OpenFailure{};
    fd = ::open(path, O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        failure = OpenFailure{OpenFailure::Step::OPEN, errno};
        return -1;
    }
    if (apply(DEFAULT_BAUD) != 0) {
        close();
        return -1;
    }
    return 0;
}

void SerialPort::log_open_failure(const char* path) const {
    const char* reason = std::strerror(failure.error);
    switch (failure.step) {
        case OpenFailure::Step::NONE:
            return;
        case OpenFailure::Step::OPEN:
            debug_tagged(TAG, "ERROR: opening port \"%s\": %s", path, reason);
            return;
        case OpenFailure::Step::GET_ATTRIBUTES:
            debug_tagged(TAG, "ERROR: tcgetattr: %s", reason);
            break;
        case OpenFailure::Step::SET_ATTRIBUTES:
        case OpenFailure::Step::BAUD:  // not from the default rate
            debug_tagged(TAG, "ERROR: tcsetattr: %s", reason);
            break;
    }
    debug_tagged(TAG, "ERROR: setting default port configuration: %s", reason);
}

// Always raw 8N1 without flow control: the devices on our lines speak nothing
// else, so `parity` and `stop_bits` are accepted and deliberately not applied.
int SerialPort::configure(unsigned int baud, Parity /*parity*/, StopBits /*stop_bits*/) {
    if (apply(baud) == 0) return 0;
    const char* reason = std::strerror(failure.error);
    switch (failure.step) {
        case OpenFailure::Step::GET_ATTRIBUTES:
            debug_tagged(TAG, "ERROR: tcgetattr: %s", reason);
            break;
        case OpenFailure::Step::BAUD:
            debug_tagged(TAG, "ERROR: invalid baudrate: %i", static_cast<int>(baud));
            break;
        default:
            debug_tagged(TAG, "ERROR: tcsetattr: %s", reason);
            break;
    }
    return -1;
}

int SerialPort::apply(unsigned int baud) {
    struct termios tty;
    std::memset(&tty, 0, sizeof(tty));
    if (tcgetattr(fd, &tty) != 0) {
        failure = OpenFailure{OpenFailure::Step::GET_ATTRIBUTES, errno};
        return -1;
    }

    tty.c_iflag = 0;
    tty.c_oflag = 0;
    tty.c_lflag = 0;
    tty.c_cflag = CS8 | CREAD | CLOCAL;
    tty.c_cc[VTIME] = 0;
    tty.c_cc[VMIN] = 0;

    const BaudEntry* entry = find_baud(baud);
    if (entry == nullptr) {
        failure = OpenFailure{OpenFailure::Step::BAUD, 0};
        return -1;
    }

    baud_rate = baud;
    cfsetospeed(&tty, entry->speed);
    cfsetispeed(&tty, entry->speed);
    if (tcsetattr(fd, TCSANOW, &tty) != 0) {
        failure = OpenFailure{OpenFailure::Step::SET_ATTRIBUTES, errno};
        return -1;
    }
    return 0;
}

int64_t SerialPort::write(const uint8_t* data, size_t len) {
    if (fd < 0) return -1;
    return ::write(fd, data, len);
}

int64_t SerialPort::read(uint8_t* buf, size_t len) {
    if (fd < 0) return -1;
    const ssize_t result = ::read(fd, buf, len);
    if (result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
    return result;
}

void SerialPort::close() {
    if (fd < 0) return;
    ::close(fd);
    fd = -1;
}

}  // namespace drivers
}  // namespace vostrelka
