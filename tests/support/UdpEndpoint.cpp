#include "support/UdpEndpoint.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace test_support {

namespace {

// Largest UDP payload over IPv4.
constexpr size_t MAX_DATAGRAM_SIZE = 65507;

sockaddr_in loopback(uint16_t port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

}  // namespace

UdpEndpoint::UdpEndpoint() {
    socket_fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_GE(socket_fd, 0) << std::strerror(errno);
    const sockaddr_in addr = loopback(0);
    EXPECT_EQ(::bind(socket_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0) << std::strerror(errno);
    bound_port = bound_port_of(socket_fd);
    EXPECT_NE(bound_port, 0);
}

UdpEndpoint::~UdpEndpoint() {
    if (socket_fd >= 0) ::close(socket_fd);
}

std::string UdpEndpoint::address() const {
    return "127.0.0.1:" + std::to_string(bound_port);
}

bool UdpEndpoint::send_to(uint16_t port, const Bytes& bytes) {
    const sockaddr_in addr = loopback(port);
    const ssize_t sent =
        ::sendto(socket_fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
    return sent == static_cast<ssize_t>(bytes.size());
}

std::optional<Bytes> UdpEndpoint::receive(int timeout_ms) {
    if (!wait_readable(socket_fd, timeout_ms)) return std::nullopt;
    Bytes buffer(MAX_DATAGRAM_SIZE);
    sockaddr_in sender{};
    socklen_t sender_size = sizeof(sender);
    const ssize_t received = ::recvfrom(socket_fd, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                        reinterpret_cast<sockaddr*>(&sender), &sender_size);
    if (received < 0) return std::nullopt;
    sender_port = ntohs(sender.sin_port);
    buffer.resize(static_cast<size_t>(received));
    return buffer;
}

bool wait_readable(int fd, int timeout_ms) {
    pollfd entry{fd, POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&entry, 1, timeout_ms);
    } while (ready < 0 && errno == EINTR);
    return ready == 1 && (entry.revents & POLLIN) != 0;
}

uint16_t bound_port_of(int fd) {
    sockaddr_in addr{};
    socklen_t size = sizeof(addr);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size) != 0) return 0;
    return ntohs(addr.sin_port);
}

}  // namespace test_support
