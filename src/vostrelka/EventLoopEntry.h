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
    // The readiness bits after select(): is_fd_set of the write set, then
    // of the read set, then of the exception set. An entry with one
    // descriptor may answer the three in one call, with the same result:
    // the loop asks every entry in every pass.
    virtual uint8_t ready_events(fd_set* read_set, fd_set* write_set, fd_set* except_set) {
        uint8_t events = 0;
        if (is_fd_set(write_set)) events |= EVENT_WRITABLE;
        if (is_fd_set(read_set)) events |= EVENT_READABLE;
        if (is_fd_set(except_set)) events |= EVENT_EXCEPTION;
        return events;
    }
    // Readiness bits, never called with 0.
    virtual void on_event(uint8_t events) = 0;
    // Called with timer_deadline once it is reached. Entries that override
    // it also override overrides_on_timer(), so the loop can skip the rest.
    virtual void on_timer(int64_t /*deadline*/) {}
    virtual bool overrides_on_timer() const { return false; }

    // Absolute time_us() at which on_timer is wanted; 0 = no timer.
    int64_t timer_deadline = 0;
};

// The three descriptor sets of one select() pass, cleared at construction.
// All bits zero is the empty set; clearing the three as one block takes
// about half the time of three FD_ZEROs, in every pass.
struct FdSets {
    fd_set read_set{};
    fd_set write_set{};
    fd_set except_set{};

    void add(EventLoopEntry& entry) { entry.register_fd(&read_set, &write_set, &except_set); }
    // The entry's readiness bits after select().
    uint8_t events_of(EventLoopEntry& entry) { return entry.ready_events(&read_set, &write_set, &except_set); }
};

// ready_events() of an entry whose is_fd_set() is "`fd` >= 0 and in the set".
inline uint8_t fd_ready_events(int fd, const fd_set* read_set, const fd_set* write_set, const fd_set* except_set) {
    if (fd < 0) return 0;
    uint8_t events = 0;
    if (FD_ISSET(fd, write_set)) events |= EVENT_WRITABLE;
    if (FD_ISSET(fd, read_set)) events |= EVENT_READABLE;
    if (FD_ISSET(fd, except_set)) events |= EVENT_EXCEPTION;
    return events;
}

}  // namespace event_system
}  // namespace vostrelka
