#pragma once
// An endpoint as text: host (name or dotted IPv4) and port. Parsing never
// looks a name up; see AddressResolver for that.
#include <cstdint>
#include <optional>
#include <string>

namespace vostrelka {

struct HostPort {
    std::string host;
    std::string port_str;  // the port exactly as typed ('0080', '80x')
    uint16_t port = 0;     // its number, low 16 bits, no range check

    // 'host:port', split at the first colon.
    static std::optional<HostPort> from(const std::string& text);
    // White space is removed from `host` after the emptiness test.
    static std::optional<HostPort> from(std::string host, uint16_t port);
};

}  // namespace vostrelka
