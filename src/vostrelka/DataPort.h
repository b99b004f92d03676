#pragma once
// A byte port beneath a stream device (a serial line, a UDP socket).
#include <cstddef>
#include <cstdint>

namespace vostrelka {
namespace drivers {

class DataPort {
public:
    virtual ~DataPort() = default;
    // Bytes written, or negative on error.
    virtual int64_t write(const uint8_t* data, size_t len) = 0;
    // Bytes read, 0 when nothing is available now, negative on error.
    virtual int64_t read(uint8_t* buf, size_t len) = 0;
    virtual void close() = 0;
    virtual bool is_open() const { return get_fd() >= 0; }
    virtual bool is_connected() const { return true; }
    virtual int get_fd() const = 0;
};

}  // namespace drivers
}  // namespace vostrelka
