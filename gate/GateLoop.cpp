// The gateway's one thread of work: wait for the devices, let them read
// and deliver, then the periodic chores of a pass.
#include <cerrno>

#include "Gate.h"
#include "RunnerHandler.h"
#include "vostrelka/SelectPass.h"
#include "vostrelka/SerialLine.h"
#include "vostrelka/Time.h"
#include "vostrelka/debug.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"

namespace vostrelka {

void Gate::loop() {
    for (;;) run_once();
}

void Gate::run_once(int64_t max_wait_us) {
    event_system::SelectPass pass(event_loop_entries.begin(), event_loop_entries.size);
    int64_t wait_us = max_wait_us < MAX_SELECT_WAIT_US ? max_wait_us : MAX_SELECT_WAIT_US;
    // A link that awaits reopening is retried about once a second, also
    // when nothing else happens.
    if (wait_us > LINK_RETRY_WAIT_US && link_awaits_reopening()) wait_us = LINK_RETRY_WAIT_US;
    // Only with a watchdog: otherwise an idle gateway sleeps the full wait.
    const int64_t keep_alive_us = notifier.keep_alive_period_us();
    if (keep_alive_us != 0 && wait_us > keep_alive_us) wait_us = keep_alive_us;
    const int ready = pass.wait(wait_us);
    if (ready > 0) {
        pass.deliver();
    } else if (ready < 0) {
        event_system::log_select_error(errno);
    }
    pass.run_due_timer();

    check_serial_port();
    check_can_links();
    // A flood of table changes that has stopped still gets its summary line.
    if (table_log.holding_back()) table_log.flush(time_us());
    if (keep_alive_us != 0) notifier.keep_alive(time_us());

    // Nothing below needs the time when there is nothing to update or age,
    // and a clock read costs about as much as the rest of the pass's chores.
    if (handlers.empty() && manet_peers.empty()) return;
    const long now = time_us();
    for (auto& handler : handlers) handler->update(now);

    age_learned_links(now);
    // The resolver wake-up calls this as soon as an answer comes; here it is
    // the fallback, e.g. for a wake-up taken by another gate of the process.
    collect_resolutions();
}

// Lost lines are closed, and closed ones reopened once their path is back.
void Gate::check_serial_port() {
    if (factory.serial_ports().empty()) return;
    const int64_t now = time_us();
    for (auto& line : factory.serial_ports()) line->supervise(now);
}

void Gate::check_can_links() {
    if (can_links.empty()) return;
    int64_t now = 0;
    for (net_device::NetDeviceCan* can : can_links) {
        if (!can->link_lost()) continue;
        if (now == 0) now = time_us();
        if (now < next_can_retry_us) return;
        can->reopen();
    }
    if (now != 0) next_can_retry_us = now + LINK_RETRY_WAIT_US;
}

bool Gate::link_awaits_reopening() {
    for (const auto& line : factory.serial_ports()) {
        if (line->awaiting_reopen()) return true;
    }
    for (const net_device::NetDeviceCan* can : can_links) {
        if (can->link_lost()) return true;
    }
    return false;
}

}  // namespace vostrelka
