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

    // Equal text forms, without building them. Inline: routing compares
    // the sender of every frame with its known peers.
    bool operator==(const InetAddress& other) const {
        if (host.size() + port_str.size() != other.host.size() + other.port_str.size()) return false;
        // Hosts of one length (every frame from a known sender): the texts
        // match exactly when both parts do.
        if (host.size() == other.host.size()) return host == other.host && port_str == other.port_str;
        const size_t length = host.size() + 1 + port_str.size();
        for (size_t i = 0; i < length; ++i) {
            if (text_at(i) != other.text_at(i)) return false;
        }
        return true;
    }
    bool operator!=(const InetAddress& other) const { return !(*this == other); }

private:
    // Character `i` of to_s().
    char text_at(size_t i) const {
        if (i < host.size()) return host[i];
        if (i == host.size()) return ':';
        return port_str[i - host.size() - 1];
    }
};

}  // namespace vostrelka
