#pragma once
// Prints a message body field by field, walking the schema text of its
// catalogue descriptor, so every message of the catalogue (and any added
// later) prints by its own field names without code of its own here:
//
//   base_config{addr=5 power=1 channel=3}
//
// Integers print in decimal, floats in the shortest form that reads back,
// `string` fields quoted, `uint8_t[N]` fields in hex, or quoted when they
// hold text padded with zero bytes (host names, serial numbers). Nested
// messages print inline in braces after their field name.
#include <cstdint>
#include <string>

#include "vostrelka/Slice.h"
#include "vostrelka/firmware_configurator/metadata.h"

namespace vostrelka {
namespace gatecat {

// Appends the message to `out`. False when the body ends before the schema
// does or the schema names a type it cannot read; `out` then ends in
// "<cut short>" or "<unknown type T>". Bytes after the last field are shown
// as "+N bytes".
bool print_message(const msgs::MessageMetadata& message, ConstSlice<uint8_t> body, std::string& out);

}  // namespace gatecat
}  // namespace vostrelka
