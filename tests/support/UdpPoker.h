#pragma once
// Keeps a gate's main loop turning: sends a one-byte datagram (too short to
// be a frame, so the gate drops it silently) to a UDP port of the gate every
// 100 ms from a thread of its own, until destroyed. The gate runs its timers,
// serial checks, modem updates and peer ageing once per pass, and an idle
// pass lasts up to 5 s.
#include <atomic>
#include <cstdint>
#include <thread>

namespace test_support {

class UdpPoker {
public:
    explicit UdpPoker(uint16_t gate_port);
    ~UdpPoker();
    UdpPoker(const UdpPoker&) = delete;
    UdpPoker& operator=(const UdpPoker&) = delete;

private:
    std::atomic<bool> stop{false};
    std::thread worker;
};

}  // namespace test_support
