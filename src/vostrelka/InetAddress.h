#pragma once
// An endpoint ready for the socket calls: the text of a HostPort and an
// IPv4 socket address. Compared by text: '10.1:80' != '10.0.0.1:80'.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>

#include "vostrelka/HostPort.h"

namespace vostrelka {

struct InetAddress {
    std::string host;
    std::string port_str;
    uint16_t port = 0;
    sockaddr_in addr{};

    InetAddress() = default;
    InetAddress(std::string host, std::string port_str, uint16_t port, sockaddr_in& addr);
    InetAddress(HostPort host_port, sockaddr_in& addr);

    // Numeric conversion with inet_aton; empty for names.
    static std::optional<InetAddress> from(const HostPort& host_port);
    static std::optional<InetAddress> from(const std::string& text);
    static std::optional<InetAddress> from(std::string host, uint16_t port);
    // From an address the system handed over (AF_INET or AF_INET6).
    static std::optional<InetAddress> from(::sockaddr& address);

    std::string to_s() const;  // host + ":" + port_str
    ::sockaddr* sockaddr() { return reinterpret_cast<::sockaddr*>(&addr); }
    const ::sockaddr* sockaddr() const { return reinterpret_cast<const ::sockaddr*>(&addr); }

    bool operator==(const InetAddress& other) const;
    bool operator!=(const InetAddress& other) const { return !(*this == other); }
};

}  // namespace vostrelka
