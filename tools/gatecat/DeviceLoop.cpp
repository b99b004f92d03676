#include "gatecat/DeviceLoop.h"

#include <sys/select.h>

#include <cerrno>

#include "vostrelka/Time.h"

namespace vostrelka {
namespace gatecat {

namespace {

constexpr int64_t US_PER_S = 1000000;
constexpr int64_t NS_PER_US = 1000;

}  // namespace

bool DeviceLoop::run_once(int64_t max_wait_us) {
    event_system::FdSets sets;
    sets.add(entry);

    const bool has_timer = entry.overrides_on_timer() && entry.timer_deadline != 0;
    int64_t wait_us = max_wait_us < 0 ? 0 : max_wait_us;
    if (has_timer) {
        const int64_t until_timer_us = entry.timer_deadline - time_us();
        if (until_timer_us < wait_us) wait_us = until_timer_us < 0 ? 0 : until_timer_us;
    }
    timespec wait{};
    wait.tv_sec = wait_us / US_PER_S;
    wait.tv_nsec = (wait_us % US_PER_S) * NS_PER_US;

    const int ready = pselect(FD_SETSIZE, &sets.read_set, &sets.write_set, &sets.except_set, &wait, wait_mask);
    if (ready < 0) return errno == EINTR;

    if (ready > 0) {
        const uint8_t events = sets.events_of(entry);
        if (events != 0) entry.on_event(events);
    }
    if (has_timer && entry.timer_deadline != 0 && time_us() >= entry.timer_deadline) {
        entry.on_timer(entry.timer_deadline);
    }
    return true;
}

bool DeviceLoop::wants_to_write() {
    event_system::FdSets sets;
    sets.add(entry);
    return entry.is_fd_set(&sets.write_set);
}

}  // namespace gatecat
}  // namespace vostrelka
