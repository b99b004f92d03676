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

    SerialPort() = default;
    SerialPort(SerialPort&& other) noexcept;
    SerialPort& operator=(SerialPort&&) = delete;
    SerialPort(const SerialPort&) = delete;
    ~SerialPort() override;

    // 0 on success, -1 (after a log line) on failure.
    int open(const char* path);
    int configure(unsigned int baud, Parity parity, StopBits stop_bits);

    int64_t write(const uint8_t* data, size_t len) override;
    int64_t read(uint8_t* buf, size_t len) override;  // EAGAIN gives 0
    void close() override;
    int get_fd() const override { return fd; }
    unsigned int get_baud() const { return baud_rate; }

private:
    int fd = -1;
    unsigned int baud_rate = 9600;
};

}  // namespace drivers
}  // namespace vostrelka
