#pragma once
// The header of one message record and a view of its body.
//
// Message record on the wire (little-endian, packed):
//   offset  size  field
//   0       1     id    message id within its catalogue
//   1       4     size  body length in bytes
//   5       size  body  the message's fields by its schema
#include <cstdint>

#include "vostrelka/Slice.h"

namespace vostrelka {
namespace tessera {

constexpr uint64_t MESSAGE_HEADER_SIZE = 5;

struct MessageInfo {
    uint32_t size = 0;
    uint8_t id = 0;
    const uint8_t* payload = nullptr;  // first body byte, not owned; valid while the carrying frame is

    ConstSlice<uint8_t> body() const { return ConstSlice<uint8_t>(payload, size); }
};

// Reads one bare message record (no guarantor header) from the front of
// `data`, as the RF modem records travel. False when the header or the body
// it announces is cut short; bytes after the body are left to the caller.
bool read_message_record(ConstSlice<uint8_t> data, MessageInfo& out);

}  // namespace tessera
}  // namespace vostrelka
