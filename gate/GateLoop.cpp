// The gateway's one thread of work: wait for the devices, let them read
// and deliver, then the periodic chores of a pass.
//
// What wakes the loop besides the devices (a finished lookup, a control
// client, the watchdog's schedule, the retry of a lost link) is served on
// its own and the loop goes back to waiting: a pass runs only when a device
// was ready or the pass's wait ran out, so that an idle gateway keeps the
// same rhythm whichever of those are configured.
#include <cerrno>

#include "Gate.h"
#include "RunnerHandler.h"
#include "vostrelka/SelectPass.h"
#include "vostrelka/SerialLine.h"
#include "vostrelka/Time.h"
#include "vostrelka/debug.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"

namespace vostrelka {

namespace {
constexpr int64_t NO_CHORE = INT64_MAX;
}

void Gate::loop() {
    for (;;) run_once();
}

void Gate::run_once(int64_t max_wait_us) {
    int64_t now = time_us();
    // The pass's wait: 5 s, `max_wait_us`, or the last timer's deadline.
    int64_t pass_at = now + (max_wait_us < 0 ? 0 : max_wait_us < MAX_SELECT_WAIT_US ? max_wait_us : MAX_SELECT_WAIT_US);
    for (bool first = true;; first = false) {
        event_system::SelectPass pass(event_loop_entries.begin(), event_loop_entries.size, own_entries.begin(),
                                      own_entries.size);
        if (first && pass.timer_deadline() != 0 && pass.timer_deadline() < pass_at) {
            pass_at = pass.timer_deadline() < now ? now : pass.timer_deadline();
        }
        const int64_t chore_at = next_chore_us();
        const bool chore_first = chore_at < pass_at;
        const int ready = pass.wait((chore_first ? chore_at : pass_at) - now);
        if (ready < 0) {
            event_system::log_select_error(errno);
            run_pass(pass);
            return;
        }
        if (ready > 0) {
            // Asked before the loop's own entries are served: serving a
            // control client may close its descriptor.
            const bool device = pass.device_ready();
            pass.deliver_own();
            if (device) {
                pass.deliver();
                run_pass(pass);
                return;
            }
        }
        if (ready == 0 && !chore_first) {
            run_pass(pass);
            return;
        }
        now = time_us();
        if (now >= pass_at) {
            run_pass(pass);
            return;
        }
        do_chores(now);
    }
}

// The pass proper, after its wait: the due timer, the links, the handlers,
// the tables.
void Gate::run_pass(event_system::SelectPass& pass) {
    pass.run_due_timer();

    check_serial_port();
    can_links.retry_lost();
    // A flood of table changes that has stopped still gets its summary line.
    tables.flush_log();
    if (notifier.keep_alive_period_us() != 0) notifier.keep_alive(time_us());

    // Nothing below needs the time when there is nothing to update or age,
    // and a clock read costs about as much as the rest of the pass's chores.
    if (handlers.empty() && tables.manet_peers().empty()) return;
    const long now = time_us();
    for (auto& handler : handlers) handler->update(now);

    age_learned_links(now);
    // The resolver wake-up calls this as soon as an answer comes; here it is
    // the fallback, should a wake-up be lost.
    collect_resolutions();
}

// When the watchdog or a lost link next needs the loop; NO_CHORE when
// neither does.
int64_t Gate::next_chore_us() {
    int64_t at = notifier.keep_alive_period_us() != 0 ? notifier.next_keep_alive() : NO_CHORE;
    for (const auto& line : factory.serial_ports()) {
        if (line->awaiting_reopen() && line->next_attempt() < at) at = line->next_attempt();
    }
    return can_links.next_retry_us(at);
}

// Between passes: WATCHDOG=1 and the retry of lost links, when due.
void Gate::do_chores(int64_t now) {
    if (notifier.keep_alive_period_us() != 0) notifier.keep_alive(now);
    for (auto& line : factory.serial_ports()) {
        if (line->awaiting_reopen()) line->supervise(now);
    }
    can_links.retry_lost(now);
}

// Lost lines are closed, and closed ones reopened once their path is back.
void Gate::check_serial_port() {
    if (factory.serial_ports().empty()) return;
    const int64_t now = time_us();
    for (auto& line : factory.serial_ports()) line->supervise(now);
}

}  // namespace vostrelka
