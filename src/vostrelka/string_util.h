#pragma once
// Allocation-free text helpers. Text is passed as ConstSlice<char>, not terminated.
#include <cstddef>
#include <cstdint>

#include "vostrelka/ArrayList.h"
#include "vostrelka/Slice.h"

namespace vostrelka {

// Cuts `text` at every `separator` into views of `text`. The piece after the
// last separator always counts, even when empty. When `out` fills up, the
// rest is not stored, `out.overflow` is set and the capacity is returned;
// otherwise the number of pieces.
uint64_t split(const ConstSlice<char>& text, char separator, ArrayList<ConstSlice<char>>& out);

// 'host:port' into a NUL-terminated host and a port read by strtol, cut to
// 16 bits; the port text is not validated. 0, or -1 when there is no colon or
// the host and its NUL do not fit `host_size`.
int32_t split_address_string(const char* text, char* host, size_t host_size, uint16_t& port);

// The text without its terminator, or the empty view when no NUL occurs
// within max_len bytes.
ConstSlice<char> slice_from_cstr(const char* text, size_t max_len);

}  // namespace vostrelka
