#pragma once
// One pass of a select() loop over a fixed list of entries: the gateway's
// main loop and gatecat's one-device loop both run it.
//
// Deliberate, and devices are written around both:
// - The timer that counts is the LAST entry's that has one, not the
//   earliest.
// - The exception set is not given to select(): an entry that put its
//   descriptor there is told "exception" in every pass in which a device
//   was ready.
//
// Beside the devices a loop may have entries of its own (a wake-up, a
// control socket): they are watched by the same select() but have no
// timers, and their readiness is told apart, so that the loop can serve
// them without running a device pass.
#include <signal.h>

#include <cstddef>
#include <cstdint>

#include "vostrelka/EventLoopEntry.h"

namespace vostrelka {
namespace event_system {

class SelectPass {
public:
    // Collects what `count` device entries and `own_count` entries of the
    // loop's own want watched; nothing is copied, the entries must outlive
    // the pass.
    SelectPass(EventLoopEntry* const* entries, size_t count, EventLoopEntry* const* own = nullptr,
               size_t own_count = 0);

    // Waits until a descriptor is ready, the timer is due or `max_wait_us`
    // has passed. `wait_mask`, when given, is the signal mask while waiting.
    // What select() returns: the number ready, 0, or -1 with errno set.
    int wait(int64_t max_wait_us, const sigset_t* wait_mask = nullptr);
    // After a wait that returned > 0: whether a device entry was ready.
    bool device_ready();
    // After a wait that returned > 0: on_event of every ready device entry.
    void deliver();
    // After a wait that returned > 0: on_event of every ready entry of the
    // loop's own; true when there was one.
    bool deliver_own();
    // on_timer of the timer's entry once its deadline has come.
    void run_due_timer();
    // The deadline of the timer that counts; 0 without one.
    int64_t timer_deadline() const { return deadline; }
    // Whether `entry` asked to be told when it can write.
    bool watches_write(EventLoopEntry& entry) { return entry.is_fd_set(&write_set); }

private:
    // Whether select() found `entry`'s descriptor readable or writable.
    bool is_ready(EventLoopEntry& entry) { return entry.is_fd_set(&read_set) || entry.is_fd_set(&write_set); }

    EventLoopEntry* const* entries;
    size_t count;
    EventLoopEntry* const* own;
    size_t own_count;
    fd_set read_set;
    fd_set write_set;
    fd_set except_set;
    EventLoopEntry* timer_entry = nullptr;
    int64_t deadline = 0;
    int ready = 0;  // what the last wait() returned
};

// The error line for a failed wait, by its errno.
void log_select_error(int error);

}  // namespace event_system
}  // namespace vostrelka
