#pragma once
// The reliable-delivery header in front of every message record that a
// service frame carries (five bytes on the wire, little-endian):
//   offset  size  field
//   0       4     seq   sequence number
//   4       1     type  record kind, see the constants below
#include <cstdint>

namespace vostrelka {
namespace guarantor {

constexpr uint64_t GUARANTOR_HEADER_SIZE = 5;

struct GuarantorHeader {
    static constexpr uint8_t TYPE_DATA = 0;
    static constexpr uint8_t TYPE_REQUEST = 1;
    static constexpr uint8_t TYPE_RESPONSE = 2;

    uint32_t seq = 0;
    uint8_t type = TYPE_DATA;
};

}  // namespace guarantor
}  // namespace vostrelka
