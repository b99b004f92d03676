#include "vostrelka/SerialLine.h"

#include <poll.h>
#include <sys/stat.h>

#include <utility>

#include "vostrelka/debug.h"

namespace vostrelka {
namespace drivers {

SerialLine::SerialLine(std::shared_ptr<SerialPort> port_, int stop_bits_, long baud_rate_, std::string path_)
    : port(std::move(port_)), stop_bits(stop_bits_), baud_rate(baud_rate_), path(std::move(path_)) {}

bool SerialLine::open() {
    return open_and_configure(false);
}

bool SerialLine::lost() const {
    if (!port->is_open()) return false;
    // An unplugged adapter leaves a descriptor whose mode is empty.
    struct stat line {};
    if (fstat(port->get_fd(), &line) != 0 || (line.st_mode & 07777) == 0) return true;
    // A hung-up terminal keeps its mode and, raw with VMIN and VTIME at 0,
    // reads as empty as an idle one; poll() tells them apart.
    pollfd entry{port->get_fd(), 0, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

void SerialLine::supervise(int64_t now_us) {
    if (port->is_open()) {
        if (!lost()) return;
        debug("Serial port %s disconnected", path.c_str());
        port->close();
        // A line that comes straight back hung up again is retried no
        // faster than a failing open.
        next_attempt_us = now_us + RETRY_PERIOD_US;
        return;
    }
    if (now_us < next_attempt_us) return;
    next_attempt_us = now_us + RETRY_PERIOD_US;
    struct stat node {};
    if (stat(path.c_str(), &node) != 0) return;

    open_and_configure(true);
}

// A reopen says "connecting" after the port's own reason for a failure and
// before the error; the first open does not say it. The port stays open
// when only its configuration fails.
bool SerialLine::open_and_configure(bool reopening) {
    if (port->open_quietly(path.c_str()) != 0) {
        const SerialPort::OpenFailure failure = port->open_failure();
        if (failure == logged_failure) return false;
        logged_failure = failure;
        port->log_open_failure(path.c_str());
        if (reopening) debug("Serial port %s connecting", path.c_str());
        debug("ERROR: open serial port: %s", path.c_str());
        return false;
    }
    logged_failure = SerialPort::OpenFailure{};
    if (reopening) debug("Serial port %s connecting", path.c_str());
    const auto stop = stop_bits == 2 ? SerialPort::StopBits::TWO : SerialPort::StopBits::ONE;
    if (port->configure(static_cast<unsigned int>(baud_rate), SerialPort::Parity::NONE, stop) != 0) {
        debug("ERROR: set serial port baudrate to %i and stop bits to %i", static_cast<int>(baud_rate), stop_bits);
    }
    return true;
}

}  // namespace drivers
}  // namespace vostrelka
