#include "CanLinks.h"

#include "vostrelka/Time.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"

namespace vostrelka {

int64_t CanLinks::next_retry_us(int64_t at) const {
    for (const net_device::NetDeviceCan* link : links) {
        if (link->link_lost() && retry_at_us < at) at = retry_at_us;
    }
    return at;
}

void CanLinks::retry_lost(int64_t now) {
    bool tried = false;
    for (net_device::NetDeviceCan* link : links) {
        if (!link->link_lost()) continue;
        if (now == 0) now = time_us();
        if (now < retry_at_us) return;
        link->reopen();
        tried = true;
    }
    if (tried) retry_at_us = now + RETRY_WAIT_US;
}

}  // namespace vostrelka
