// The gateway's one thread of work: wait for the devices, let them read
// and deliver, then the periodic chores of a pass.
#include <cerrno>

#include "Gate.h"
#include "RunnerHandler.h"
#include "vostrelka/SelectPass.h"
#include "vostrelka/SerialLine.h"
#include "vostrelka/Time.h"
#include "vostrelka/debug.h"

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
    const int ready = pass.wait(wait_us);
    if (ready > 0) {
        pass.deliver();
    } else if (ready < 0) {
        event_system::log_select_error(errno);
    }
    pass.run_due_timer();

    check_serial_port();

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

// Links learned from local traffic go when the node falls silent; links on
// other interfaces never age.
void Gate::age_learned_links(int64_t now) {
    for (auto links_it = manet_peers.begin(); links_it != manet_peers.end();) {
        std::vector<MANetPeer>& links = links_it->second;
        for (size_t i = 0; i < links.size();) {
            MANetPeer& link = links[i];
            if (link.iface->type == LOCAL && static_cast<int64_t>(link.last_seen) + PEER_TIMEOUT_US < now) {
                debug("Remove MANet peer on iface %u, last seen %lu: %s", link.iface->id,
                      static_cast<unsigned long>(link.last_seen), full_addr_s_manet(links_it->first, link).c_str());
                links.erase(links.begin() + static_cast<std::ptrdiff_t>(i));
                continue;
            }
            ++i;
        }
        // A gateway without links is unknown again, so that MANet traffic
        // from it is no longer accepted.
        if (links.empty()) {
            links_it = manet_peers.erase(links_it);
        } else {
            ++links_it;
        }
    }
}

// Finished name lookups give their links a socket address. A lookup that
// finished without an answer leaves the link unresolved for good; it is not
// restarted.
void Gate::collect_resolutions() {
    for (auto& entry : manet_peers) {
        for (MANetPeer& link : entry.second) {
            if (link.iface->type == LOCAL || !link.resolver || link.inet_addr || !link.resolver->finished()) continue;
            std::optional<InetAddress> resolved = link.resolver->get_resolved_address();
            if (!resolved) continue;
            link.inet_addr = std::move(resolved);
            debug("MANet peer on iface %u retrieved addrinfo '%s': '%s'", link.iface->id, link.resolver->to_s().c_str(),
                  link.inet_addr->to_s().c_str());
        }
    }
}

// Lost lines are closed, and closed ones reopened once their path is back.
void Gate::check_serial_port() {
    if (factory.serial_ports().empty()) return;
    const int64_t now = time_us();
    for (auto& line : factory.serial_ports()) line->supervise(now);
}

bool Gate::link_awaits_reopening() {
    for (const auto& line : factory.serial_ports()) {
        if (line->awaiting_reopen()) return true;
    }
    return false;
}

}  // namespace vostrelka
