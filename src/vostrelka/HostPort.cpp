#include "vostrelka/HostPort.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <exception>

namespace vostrelka {

namespace {

// Base-10 unsigned long conversion with the usual leniency: leading blanks
// skipped, a sign accepted (minus negates modulo 2^64), the first non-digit
// ends the number. Empty when no digit was read or the value overflowed.
std::optional<unsigned long> to_unsigned_long(const std::string& text) {
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    unsigned long value = std::strtoul(begin, &end, 10);
    if (end == begin || errno == ERANGE) return std::nullopt;
    return value;
}

}  // namespace

std::optional<HostPort> HostPort::from(const std::string& text) {
    try {
        auto colon = text.find(':');
        if (colon == std::string::npos) return std::nullopt;

        HostPort result;
        result.host = text.substr(0, colon);
        result.port_str = text.substr(colon + 1);
        auto number = to_unsigned_long(result.port_str);
        if (!number || result.host.empty()) return std::nullopt;
        // No range check on purpose: '70000' becomes 4464, '-1' becomes 65535.
        result.port = static_cast<uint16_t>(*number);
        return result;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<HostPort> HostPort::from(std::string host, uint16_t port) {
    try {
        // Tested before the blanks go, so a host of blanks only gives an
        // empty host rather than nothing; callers rely on that shape.
        if (host.empty()) return std::nullopt;

        HostPort result;
        for (char c : host) {
            if (!std::isspace(static_cast<unsigned char>(c))) result.host.push_back(c);
        }
        result.port_str = std::to_string(port);
        result.port = port;
        return result;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace vostrelka
