#include "vostrelka/string_util.h"

#include <cstdlib>
#include <cstring>

namespace vostrelka {

uint64_t split(const ConstSlice<char>& text, char separator, ArrayList<ConstSlice<char>>& out) {
    out.clear();
    uint64_t piece_start = 0;
    for (uint64_t i = 0; i <= text.size; i++) {
        if (i < text.size && text.data[i] != separator) continue;
        if (!out.overflow) out.push_back(ConstSlice<char>(text.data + piece_start, i - piece_start));
        piece_start = i + 1;
    }
    return out.overflow ? out.capacity : out.size;
}

int32_t split_address_string(const char* text, char* host, size_t host_size, uint16_t& port) {
    if (text == nullptr || text[0] == '\0') return -1;
    const char* colon = std::strchr(text, ':');
    if (colon == nullptr) return -1;
    const int32_t host_len = static_cast<int32_t>(colon - text);
    if (!(host_len + 1 < static_cast<int32_t>(host_size))) return -1;
    std::memcpy(host, text, static_cast<size_t>(host_len));
    host[host_len] = '\0';
    port = static_cast<uint16_t>(std::strtol(colon + 1, nullptr, 10));
    return 0;
}

ConstSlice<char> slice_from_cstr(const char* text, size_t max_len) {
    const size_t len = strnlen(text, max_len);
    if (len == max_len) return ConstSlice<char>();
    return ConstSlice<char>(text, len);
}

}  // namespace vostrelka
