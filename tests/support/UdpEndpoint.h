#pragma once
// A plain UDP socket on 127.0.0.1 for tests that talk to a device or a gate
// over loopback: bound to an ephemeral port, sends to any local port, and
// receives with a deadline instead of blocking.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

using Bytes = std::vector<uint8_t>;

class UdpEndpoint {
public:
    // Binds 127.0.0.1 on a port the system picks; fails the test if it cannot.
    UdpEndpoint();
    ~UdpEndpoint();
    UdpEndpoint(const UdpEndpoint&) = delete;
    UdpEndpoint& operator=(const UdpEndpoint&) = delete;

    uint16_t port() const { return bound_port; }
    std::string address() const;  // "127.0.0.1:<port>"
    int fd() const { return socket_fd; }

    // One datagram to 127.0.0.1:`port`; true when all of it went out.
    bool send_to(uint16_t port, const Bytes& bytes);
    // The next datagram, or nothing once `timeout_ms` has passed.
    std::optional<Bytes> receive(int timeout_ms = 1000);
    // Port of the sender of the last datagram received.
    uint16_t last_sender_port() const { return sender_port; }

private:
    int socket_fd = -1;
    uint16_t bound_port = 0;
    uint16_t sender_port = 0;
};

// Waits until `fd` is readable; false after `timeout_ms`.
bool wait_readable(int fd, int timeout_ms = 1000);
// The local port a bound socket got from the system, 0 on failure.
uint16_t bound_port_of(int fd);

}  // namespace test_support
