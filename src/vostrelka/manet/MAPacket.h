#pragma once
// The MANet packet header at the start of every frame payload with
// proto_id 10. Integers little-endian, no padding:
//
//   offset  size  field
//   0       4     src_addr   MANet address of the sender
//   4       4     dst_addr   MANet address of the destination
//   8       1     kind       carried through, not interpreted here
//   9       1     flag       carried through (nonzero = true)
//   10      rest  data       the packet's own payload
//
// The gateway only reads the header; it forwards the payload byte for byte.
#include <cstddef>
#include <cstdint>

#include "vostrelka/Slice.h"

namespace vostrelka {
namespace manet {

struct MAPacket {
    static constexpr size_t HEADER_SIZE = 10;

    uint32_t src_addr = 0;
    uint32_t dst_addr = 0;
    uint8_t kind = 0;
    bool flag = false;
    ConstSlice<unsigned char> data;  // points into the parsed payload

    // False, leaving `out` untouched, when `payload` is shorter than the
    // header; nothing past `payload.size` is read.
    static bool parse(const ConstSlice<unsigned char>& payload, MAPacket& out) {
        if (payload.size < HEADER_SIZE) return false;
        const unsigned char* p = payload.data;
        out.src_addr = read_u32(p);
        out.dst_addr = read_u32(p + 4);
        out.kind = p[8];
        out.flag = p[9] != 0;
        out.data = ConstSlice<unsigned char>(p + HEADER_SIZE, payload.size - HEADER_SIZE);
        return true;
    }

private:
    static uint32_t read_u32(const unsigned char* p) {
        return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
    }
};

}  // namespace manet
}  // namespace vostrelka
