#pragma once
// The CAN interfaces among a gateway's links, and when a lost one is next
// tried again: all lost ones together, at most once per retry period, so
// that a bus whose adapter is gone costs one attempt a period however the
// loop is woken.
#include <cstdint>
#include <vector>

namespace vostrelka {
namespace net_device {
class NetDeviceCan;
}

class CanLinks {
public:
    static constexpr int64_t RETRY_WAIT_US = 1000000;

    void add(net_device::NetDeviceCan* link) { links.push_back(link); }

    // The earlier of `at` and the next retry, when a link is lost.
    int64_t next_retry_us(int64_t at) const;

    // Reopens the lost links when their retry is due; `now` 0: the clock is
    // read only when a link is lost.
    void retry_lost(int64_t now = 0);

private:
    std::vector<net_device::NetDeviceCan*> links;
    int64_t retry_at_us = 0;
};

}  // namespace vostrelka
