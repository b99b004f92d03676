#pragma once
// Appends message body fields in schema order to a Slice. The caller checks
// the room for the whole body first (the encoders do, from encoded_size), so
// the writes themselves cannot fail.
#include <cstdint>
#include <cstring>
#include <string>

#include "vostrelka/Slice.h"

namespace vostrelka {
namespace tessera {

class BodyWriter {
public:
    explicit BodyWriter(Slice<uint8_t>& out) : out_(out) {}

    void u8(uint8_t value) { out_.data[out_.size++] = value; }
    void i8(int8_t value) { u8(static_cast<uint8_t>(value)); }
    void u16(uint16_t value) {
        u8(static_cast<uint8_t>(value));
        u8(static_cast<uint8_t>(value >> 8));
    }
    void u32(uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) u8(static_cast<uint8_t>(value >> shift));
    }
    void f32(float value) {
        uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        u32(bits);
    }
    template <size_t N>
    void bytes(const uint8_t (&value)[N]) {
        std::memcpy(out_.data + out_.size, value, N);
        out_.size += N;
    }
    void string(const std::string& value) {
        u32(static_cast<uint32_t>(value.size()));
        if (value.empty()) return;
        std::memcpy(out_.data + out_.size, value.data(), value.size());
        out_.size += value.size();
    }

private:
    Slice<uint8_t>& out_;
};

}  // namespace tessera
}  // namespace vostrelka
