#pragma once
// UDP on 127.0.0.1 for tests: a socket that plays a device or a gateway, and
// free ports for a gate under test to listen on.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

using Bytes = std::vector<uint8_t>;

inline sockaddr_in loopback(uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// The local port a bound socket got from the system, 0 on failure.
inline uint16_t bound_port_of(int fd) {
    sockaddr_in addr{};
    socklen_t size = sizeof(addr);
    return getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size) == 0 ? ntohs(addr.sin_port) : 0;
}

inline bool wait_readable(int fd, int timeout_ms = 1000) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, timeout_ms) == 1;
}

// Bound to 127.0.0.`host` on a port the system picks.
class UdpEndpoint {
public:
    explicit UdpEndpoint(uint8_t host = 1) {
        sockaddr_in addr = loopback(0);
        addr.sin_addr.s_addr = htonl(0x7F000000u | host);
        bind(socket_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    }
    ~UdpEndpoint() { close(socket_fd); }

    uint16_t port() const { return bound_port_of(socket_fd); }
    std::string address() const { return "127.0.0.1:" + std::to_string(port()); }  // of host 1

    // One datagram to 127.0.0.1:`port`; true when all of it went out.
    bool send_to(uint16_t port, const Bytes& bytes) {
        const sockaddr_in to = loopback(port);
        return sendto(socket_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) ==
               static_cast<ssize_t>(bytes.size());
    }
    // `count` (at most 64) copies of `bytes` with one call; how many went.
    int send_burst(uint16_t port, const Bytes& bytes, int count) {
        sockaddr_in to = loopback(port);
        iovec vector{const_cast<uint8_t*>(bytes.data()), bytes.size()};
        mmsghdr messages[64]{};
        for (mmsghdr& message : messages) message.msg_hdr = msghdr{&to, sizeof(to), &vector, 1, nullptr, 0, 0};
        return sendmmsg(socket_fd, messages, static_cast<unsigned>(std::min(count, 64)), 0);
    }
    // The next datagram, or nothing once `timeout_ms` has passed.
    std::optional<Bytes> receive(int timeout_ms = 1000) {
        Bytes buffer(65507);  // largest UDP payload over IPv4
        const ssize_t n = wait_readable(socket_fd, timeout_ms) ? recv(socket_fd, buffer.data(), buffer.size(), 0) : -1;
        if (n < 0) return std::nullopt;
        buffer.resize(static_cast<size_t>(n));
        return buffer;
    }

private:
    int socket_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

// A port that nothing is bound to right now. The socket that found it is
// closed again, so the gate (which binds with SO_REUSEPORT) can take it.
inline uint16_t free_udp_port() {
    return UdpEndpoint().port();
}

}  // namespace test_support
