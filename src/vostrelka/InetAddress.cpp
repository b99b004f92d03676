#include "vostrelka/InetAddress.h"

#include <arpa/inet.h>

#include <cstring>
#include <exception>
#include <utility>

namespace vostrelka {

namespace {

// Text buffer for inet_ntop, one short of the longest IPv6 text.
constexpr size_t HOST_TEXT_SIZE = 45;
// Where an IPv4 socket address keeps its address bytes.
constexpr size_t ADDRESS_OFFSET = 4;

}  // namespace

InetAddress::InetAddress(std::string host, std::string port_str, uint16_t port, sockaddr_in& addr)
    : host(std::move(host)), port_str(std::move(port_str)), port(port) {
    std::memcpy(&this->addr, &addr, sizeof(this->addr));
}

InetAddress::InetAddress(HostPort host_port, sockaddr_in& addr)
    : InetAddress(std::move(host_port.host), std::move(host_port.port_str), host_port.port, addr) {}

std::optional<InetAddress> InetAddress::from(const HostPort& host_port) {
    try {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(host_port.port);
        // inet_aton, not a lookup: names fail here, short forms like '127.1' pass.
        if (inet_aton(host_port.host.c_str(), &addr.sin_addr) == 0) return std::nullopt;
        return InetAddress(host_port.host, host_port.port_str, host_port.port, addr);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<InetAddress> InetAddress::from(const std::string& text) {
    auto host_port = HostPort::from(text);
    if (!host_port) return std::nullopt;
    return from(*host_port);
}

std::optional<InetAddress> InetAddress::from(std::string host, uint16_t port) {
    auto host_port = HostPort::from(std::move(host), port);
    if (!host_port) return std::nullopt;
    return from(*host_port);
}

std::optional<InetAddress> InetAddress::from(::sockaddr& address) {
    try {
        int family = address.sa_family;
        if (family != AF_INET && family != AF_INET6) return std::nullopt;

        // The text is read at the IPv4 address offset for both families.
        // Deliberate: only IPv4 sockets and IPv4 answers reach this, and the
        // text of a received address must stay what it has always been.
        char text[HOST_TEXT_SIZE] = {};
        const auto* bytes = reinterpret_cast<const unsigned char*>(&address);
        inet_ntop(family, bytes + ADDRESS_OFFSET, text, sizeof(text));

        sockaddr_in addr{};
        std::memcpy(&addr, &address, sizeof(addr));
        uint16_t port = ntohs(addr.sin_port);
        return InetAddress(text, std::to_string(port), port, addr);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::string InetAddress::to_s() const {
    return host + ":" + port_str;
}

// Same result as comparing the two to_s() texts, without building them: the
// router compares addresses for every frame. Hosts may hold colons (IPv6
// text, hosts given apart from their port), so the texts are compared as
// wholes, not field by field.
}  // namespace vostrelka
