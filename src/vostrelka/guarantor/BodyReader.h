#pragma once
// Reads message body fields in schema order from a byte view. Every read
// checks the bytes left first: a read that does not fit returns false and
// consumes nothing, so a decoder chains reads with && and never reads past
// the end of its input.
#include <cstdint>
#include <cstring>
#include <string>

#include "vostrelka/Slice.h"

namespace vostrelka {
namespace tessera {

class BodyReader {
public:
    explicit BodyReader(ConstSlice<uint8_t> body) : body_(body) {}

    uint64_t remaining() const { return body_.size - pos_; }

    bool u8(uint8_t& out) {
        if (remaining() < 1) return false;
        out = body_.data[pos_++];
        return true;
    }
    bool i8(int8_t& out) {
        uint8_t raw = 0;
        if (!u8(raw)) return false;
        out = static_cast<int8_t>(raw);
        return true;
    }
    bool u16(uint16_t& out) {
        if (remaining() < 2) return false;
        const uint8_t* p = body_.data + pos_;
        out = static_cast<uint16_t>(p[0] | p[1] << 8);
        pos_ += 2;
        return true;
    }
    bool u32(uint32_t& out) {
        if (remaining() < 4) return false;
        const uint8_t* p = body_.data + pos_;
        out = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
              static_cast<uint32_t>(p[3]) << 24;
        pos_ += 4;
        return true;
    }
    bool f32(float& out) {
        uint32_t bits = 0;
        if (!u32(bits)) return false;
        std::memcpy(&out, &bits, sizeof out);
        return true;
    }
    template <size_t N>
    bool bytes(uint8_t (&out)[N]) {
        if (remaining() < N) return false;
        std::memcpy(out, body_.data + pos_, N);
        pos_ += N;
        return true;
    }
    // 32-bit length, then that many bytes. The length is checked against the
    // bytes present before anything is allocated.
    bool string(std::string& out) {
        if (remaining() < 4) return false;
        const uint64_t start = pos_;
        uint32_t length = 0;
        u32(length);
        if (remaining() < length) {
            pos_ = start;
            return false;
        }
        out.assign(reinterpret_cast<const char*>(body_.data + pos_), length);
        pos_ += length;
        return true;
    }

private:
    ConstSlice<uint8_t> body_;
    uint64_t pos_ = 0;
};

}  // namespace tessera
}  // namespace vostrelka
