#pragma once
// UDP ports on 127.0.0.1 for a gate under test to listen on.
#include <chrono>
#include <cstdint>

namespace test_support {

// A port that nothing is bound to right now. The socket that found it is
// closed again, so the gate (which binds with SO_REUSEPORT) can take it.
uint16_t free_udp_port();

// Waits until some socket is bound to `port` on 127.0.0.1 or any address,
// as the kernel lists them; the test's own probing never binds, so it can
// not race the gate for the port. False at the deadline.
bool wait_until_udp_bound(uint16_t port, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

}  // namespace test_support
