#pragma once
// The gateway's select pass (event_system::SelectPass) over one device, for
// a tool that has only one, without the gateway around it.
#include <signal.h>

#include <cstdint>

#include "vostrelka/EventLoopEntry.h"

namespace vostrelka {
namespace gatecat {

class DeviceLoop {
public:
    // `wait_mask`, when given, is the signal mask while waiting: signals
    // blocked otherwise are taken only then, and end the wait early.
    explicit DeviceLoop(event_system::EventLoopEntry& entry, const sigset_t* wait_mask = nullptr)
        : entry(entry), wait_mask(wait_mask) {}

    // Waits at most `max_wait_us` (less when the entry's timer is due
    // sooner), then hands the entry its readiness and its due timer. False
    // when the wait itself failed; a signal is not a failure.
    bool run_once(int64_t max_wait_us);

    // Whether the entry asks to be woken when it can write, which devices
    // do exactly while they still hold bytes to send.
    bool wants_to_write();

private:
    event_system::EventLoopEntry& entry;
    const sigset_t* wait_mask;
};

}  // namespace gatecat
}  // namespace vostrelka
