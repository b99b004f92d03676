#include "vostrelka/SelectPass.h"

#include <cerrno>

#include "vostrelka/Time.h"
#include "vostrelka/debug.h"

namespace vostrelka {
namespace event_system {

namespace {

// One more than the highest descriptor in either set, 0 when both are
// empty: select() then looks at the descriptors the entries hold and no
// further. The exception set is not handed to select() and does not count.
int descriptor_limit(const fd_set& read_set, const fd_set& write_set) {
    // An fd_set is an array of longs, descriptor d at bit d % bits of word
    // d / bits.
    constexpr size_t WORDS = sizeof(fd_set) / sizeof(long);
    constexpr int WORD_BITS = 8 * sizeof(long);
    const long* read_words = reinterpret_cast<const long*>(&read_set);
    const long* write_words = reinterpret_cast<const long*>(&write_set);
    for (size_t i = WORDS; i-- > 0;) {
        const unsigned long word = static_cast<unsigned long>(read_words[i] | write_words[i]);
        if (word != 0) return static_cast<int>(i) * WORD_BITS + WORD_BITS - __builtin_clzl(word);
    }
    return 0;
}

}  // namespace

SelectPass::SelectPass(EventLoopEntry* const* entries_, size_t count_, EventLoopEntry* const* own_, size_t own_count_)
    : entries(entries_), count(count_), own(own_), own_count(own_count_) {
    FD_ZERO(&read_set);
    FD_ZERO(&write_set);
    FD_ZERO(&except_set);
    for (size_t i = 0; i < count; ++i) {
        EventLoopEntry* entry = entries[i];
        entry->register_fd(&read_set, &write_set, &except_set);
        if (entry->timer_deadline != 0) {
            timer_entry = entry;
            deadline = entry->timer_deadline;
        }
    }
    for (size_t i = 0; i < own_count; ++i) own[i]->register_fd(&read_set, &write_set, &except_set);
}

int SelectPass::wait(int64_t max_wait_us, const sigset_t* wait_mask) {
    int64_t wait_us = max_wait_us < 0 ? 0 : max_wait_us;
    // The clock is read only when a timer needs it.
    if (timer_entry != nullptr) {
        const int64_t until_deadline_us = deadline - time_us();
        if (until_deadline_us < wait_us) wait_us = until_deadline_us < 0 ? 0 : until_deadline_us;
    }
    const timespec wait = timespec_from_us(wait_us);
    ready = pselect(descriptor_limit(read_set, write_set), &read_set, &write_set, nullptr, &wait, wait_mask);
    return ready;
}

bool SelectPass::device_ready() {
    if (ready <= 0) return false;
    // Usually none of the loop's own is ready, and then what was must be a device.
    bool own_ready = false;
    for (size_t i = 0; i < own_count && !own_ready; ++i) own_ready = is_ready(*own[i]);
    if (!own_ready) return true;
    for (size_t i = 0; i < count; ++i) {
        if (is_ready(*entries[i])) return true;
    }
    return false;
}

void SelectPass::deliver() {
    for (size_t i = 0; i < count; ++i) {
        EventLoopEntry& entry = *entries[i];
        uint8_t events = 0;
        if (entry.is_fd_set(&write_set)) events |= EVENT_WRITABLE;
        if (entry.is_fd_set(&read_set)) events |= EVENT_READABLE;
        if (entry.is_fd_set(&except_set)) events |= EVENT_EXCEPTION;
        if (events != 0) entry.on_event(events);
    }
}

bool SelectPass::deliver_own() {
    bool any = false;
    for (size_t i = 0; i < own_count; ++i) {
        EventLoopEntry& entry = *own[i];
        uint8_t events = 0;
        if (entry.is_fd_set(&write_set)) events |= EVENT_WRITABLE;
        if (entry.is_fd_set(&read_set)) events |= EVENT_READABLE;
        if (events == 0) continue;
        entry.on_event(events);
        any = true;
    }
    return any;
}

void SelectPass::run_due_timer() {
    if (timer_entry != nullptr && timer_entry->overrides_on_timer() && time_us() >= deadline) {
        timer_entry->on_timer(deadline);
    }
}

void log_select_error(int error) {
    constexpr const char* TAG = "EventProcessor";
    constexpr struct {
        int error;
        const char* line;
    } LINES[] = {{EBADF, "ERROR: bad file descriptor!"},
                 {EINTR, "ERROR: unblocked signal!"},
                 {EINVAL, "ERROR: wrong argument!"},
                 {ENOMEM, "ERROR: no memory!"}};
    for (const auto& known : LINES) {
        if (known.error == error) {
            debug_tagged(TAG, "%s", known.line);
            return;
        }
    }
    debug_tagged(TAG, "ERROR: unexpected select error %d", error);
}

}  // namespace event_system
}  // namespace vostrelka
