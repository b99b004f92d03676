#pragma once
// A termios character device, non-blocking, always raw 8N1.
#include <cstddef>
#include <cstdint>

#include "vostrelka/DataPort.h"

namespace vostrelka {
namespace drivers {

class SerialPort : public DataPort {
public:
    // Accepted by configure() and deliberately not applied: the line is
    // always 8N1 without flow control.
    enum class Parity { NONE, ODD, EVEN };
    enum class StopBits { ONE, TWO };

    // Why the last open() or configure() failed: the step and its errno.
    struct OpenFailure {
        enum class Step { NONE, OPEN, GET_ATTRIBUTES, BAUD, SET_ATTRIBUTES };
        Step step = Step::NONE;
        int error = 0;
        bool operator==(const OpenFailure& other) const { return step == other.step && error == other.error; }
        bool operator!=(const OpenFailure& other) const { return !(*this == other); }
    };

    SerialPort() = default;
    SerialPort(SerialPort&& other) noexcept;
    SerialPort& operator=(SerialPort&&) = delete;
    SerialPort(const SerialPort&) = delete;
    ~SerialPort() override;

    // 0 on success, -1 (after a log line) on failure.
    int open(const char* path);
    int configure(unsigned int baud, Parity parity, StopBits stop_bits);
    // open() without its log lines, for callers that retry and say only
    // what changed; log_open_failure() prints what open() would have.
    int open_quietly(const char* path);
    const OpenFailure& open_failure() const { return failure; }
    void log_open_failure(const char* path) const;

    int64_t write(const uint8_t* data, size_t len) override;
    int64_t read(uint8_t* buf, size_t len) override;  // EAGAIN gives 0
    void close() override;
    int get_fd() const override { return fd; }
    unsigned int get_baud() const { return baud_rate; }

private:
    // configure() without its log lines; `failure` says which step failed.
    int apply(unsigned int baud);

    int fd = -1;
    unsigned int baud_rate = 9600;
    OpenFailure failure;
};

}  // namespace drivers
}  // namespace vostrelka
