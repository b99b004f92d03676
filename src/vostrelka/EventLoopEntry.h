#pragma once
// The contract between the main loop and anything it polls.
#include <sys/select.h>

#include <cstdint>

namespace vostrelka {
namespace event_system {

constexpr uint8_t EVENT_WRITABLE = 0x01;
constexpr uint8_t EVENT_READABLE = 0x02;
constexpr uint8_t EVENT_EXCEPTION = 0x04;

class EventLoopEntry {
public:
    virtual ~EventLoopEntry() = default;

    // Whether the entry's descriptor is in `set`; false while closed.
    virtual bool is_fd_set(fd_set* set) = 0;
    // Adds the descriptors the entry wants watched; nothing while closed.
    virtual void register_fd(fd_set* read_set, fd_set* write_set, fd_set* except_set) = 0;
    // Readiness bits, never called with 0.
    virtual void on_event(uint8_t events) = 0;
    // Called with timer_deadline once it is reached. Entries that override
    // it also override overrides_on_timer(), so the loop can skip the rest.
    virtual void on_timer(int64_t /*deadline*/) {}
    virtual bool overrides_on_timer() const { return false; }

    // Absolute time_us() at which on_timer is wanted; 0 = no timer.
    int64_t timer_deadline = 0;
};

}  // namespace event_system
}  // namespace vostrelka
