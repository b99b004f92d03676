// The peer tables' rules: adding, moving, refreshing, replacing, ageing
// and evicting entries, and the text every log line prints for a peer.
#include "PeerTables.h"

#include <algorithm>
#include <cstdio>

#include "vostrelka/ResolverPool.h"
#include "vostrelka/Time.h"
#include "vostrelka/debug.h"

namespace vostrelka {

namespace {
// Every peer text fits this buffer; longer text is cut.
constexpr size_t ADDR_TEXT_SIZE = 128;
}  // namespace

std::string PeerTables::full_addr_s_local(uint8_t addr, const std::optional<InetAddress>& inet_addr) {
    std::string suffix;
    if (inet_addr) suffix = " / " + inet_addr->to_s();
    char text[ADDR_TEXT_SIZE];
    snprintf(text, sizeof(text), "0x%02X%s", addr, suffix.c_str());
    return text;
}

std::string PeerTables::full_addr_s_manet(uint32_t manet_addr, uint8_t local_addr,
                                          const std::unique_ptr<AddressResolver>& resolver,
                                          const std::optional<InetAddress>& inet_addr) {
    std::string suffix;
    if (resolver) {
        suffix = " / " + resolver->to_s();
        if (!inet_addr) suffix += " / UNKNOWN INET ADDR";
    }
    if (inet_addr) suffix += " / " + inet_addr->to_s();
    char text[ADDR_TEXT_SIZE];
    snprintf(text, sizeof(text), "0x%08X / 0x%02X%s", manet_addr, local_addr, suffix.c_str());
    return text;
}

std::string PeerTables::full_addr_s_manet(uint32_t manet_addr, const MANetPeer& peer) {
    return full_addr_s_manet(manet_addr, peer.local_addr, peer.resolver, peer.inet_addr);
}

namespace {
// Stale heap entries (for links refreshed, replaced or gone) are bounded
// by rebuilding the heap when it holds this many per live ageing link.
constexpr size_t AGEING_SLACK_FACTOR = 2;
constexpr size_t AGEING_SLACK_MIN = 64;

int64_t due_of(const PeerTables::MANetPeer& link) {
    return static_cast<int64_t>(link.last_seen) + PeerTables::PEER_TIMEOUT_US;
}
}  // namespace

// Ageing heap order: earliest due on top; among equals, the lower address.
bool PeerTables::later_due(const LinkDue& a, const LinkDue& b) {
    return a.due_us != b.due_us ? a.due_us > b.due_us : a.manet_addr > b.manet_addr;
}

bool PeerTables::table_line_admitted() {
    return configuring || log.admit(time_us());
}

void PeerTables::flush_log() {
    if (log.holding_back()) log.flush(time_us());
}

bool PeerTables::add_local_peer(GateInterface& iface, uint8_t addr, const std::optional<InetAddress>& inet_addr) {
    auto found = local.find(addr);
    if (found != local.end()) {
        const LocalPeer& old = found->second;
        // Heard again where it already lives: nothing to learn. Having an
        // address on one side only counts as a move.
        if (old.iface->id == iface.id && old.inet_addr.has_value() == inet_addr.has_value() &&
            (!inet_addr || *old.inet_addr == *inet_addr)) {
            return false;
        }
        if (table_line_admitted()) {
            debug("remove old local peer on iface %u: %s", old.iface->id,
                  full_addr_s_local(addr, old.inet_addr).c_str());
        }
        local.erase(found);
    }
    local.emplace(addr, LocalPeer{&iface, inet_addr});
    if (table_line_admitted())
        debug("add local peer on iface %u: %s", iface.id, full_addr_s_local(addr, inet_addr).c_str());
    return true;
}

bool PeerTables::add_manet_peer(GateInterface& iface, uint32_t manet_addr, uint8_t local_addr,
                                std::unique_ptr<AddressResolver>&& resolver, std::optional<InetAddress> inet_addr,
                                Origin origin) {
    // A peer is either resolved by name or given its address, never both.
    if (resolver && inet_addr) return false;

    std::vector<MANetPeer>& links = manet[manet_addr];
    auto same_as_call = [&](const MANetPeer& link) {
        if (resolver) return link.resolver && link.resolver->to_s() == resolver->to_s();
        if (inet_addr && link.inet_addr) return *inet_addr == *link.inet_addr;
        return true;
    };

    // A device may name any UTM it likes, but not redirect a gateway the
    // configuration file names: that would take over its traffic. The refusal
    // is said at every level, within the table lines' rate limit.
    if (origin == Origin::ANNOUNCED) {
        for (const MANetPeer& link : links) {
            if (link.iface->id != iface.id || link.origin != Origin::CONFIGURED || same_as_call(link)) continue;
            if (table_line_admitted()) {
                debug("WARNING: device_config does not replace configured MANet peer on iface %u: %s", iface.id,
                      full_addr_s_manet(manet_addr, local_addr, resolver, inet_addr).c_str());
            }
            return false;
        }
    }

    size_t same_links = 0;
    for (size_t i = 0; i < links.size();) {
        MANetPeer& link = links[i];
        if (link.iface->id != iface.id) {
            ++i;
            continue;
        }
        if (same_as_call(link)) {
            ++same_links;
            ++i;
            continue;
        }
        if (table_line_admitted()) {
            debug("Replace MANet peer on iface %u: %s", iface.id, full_addr_s_manet(manet_addr, link).c_str());
        }
        forget_link(link);
        links.erase(links.begin() + static_cast<std::ptrdiff_t>(i));
    }

    if (same_links == 1) {
        // Deliberately the vector's first link, whichever one matched: the
        // ageing of learned links depends on this exact behaviour.
        links.front().last_seen = static_cast<uint64_t>(time_us());
        return false;
    }
    if (same_links > 1) {
        debug("ERROR: more than one manet link on iface %u", iface.id);
        return false;
    }

    make_room(origin, manet_addr);
    MANetPeer link;
    link.iface = &iface;
    link.local_addr = local_addr;
    link.resolver = std::move(resolver);
    link.inet_addr = std::move(inet_addr);
    link.last_seen = static_cast<uint64_t>(time_us());
    link.origin = origin;
    if (link.resolver) link.resolver->start(resolvers);
    if (table_line_admitted()) {
        debug("add MANet peer on iface %u: %s", iface.id, full_addr_s_manet(manet_addr, link).c_str());
    }
    links.push_back(std::move(link));
    note_new_link(manet_addr, links.back());
    return true;
}

void PeerTables::set_last_seen(uint32_t manet_addr, size_t index, uint64_t last_seen) {
    MANetPeer& link = manet.at(manet_addr).at(index);
    link.last_seen = last_seen;
    if (link.iface->type == GateInterface::LOCAL) note_ageing(manet_addr, due_of(link));
}

void PeerTables::note_new_link(uint32_t manet_addr, const MANetPeer& link) {
    if (link.origin == Origin::LEARNED) ++learned_links;
    if (link.origin == Origin::ANNOUNCED) {
        ++announced_links;
        if (std::find(announced_addrs.begin(), announced_addrs.end(), manet_addr) == announced_addrs.end()) {
            announced_addrs.push_back(manet_addr);
        }
    }
    if (link.iface->type == GateInterface::LOCAL) {
        ++ageing_links;
        note_ageing(manet_addr, due_of(link));
    } else if (link.resolver && !link.inet_addr) {
        auto at = std::lower_bound(awaiting_resolution.begin(), awaiting_resolution.end(), manet_addr);
        if (at == awaiting_resolution.end() || *at != manet_addr) awaiting_resolution.insert(at, manet_addr);
    }
}

// The heap and the lists keep what they hold about a link that goes; they
// check the table when they come to it.
void PeerTables::forget_link(const MANetPeer& link) {
    if (link.origin == Origin::LEARNED) --learned_links;
    if (link.origin == Origin::ANNOUNCED) --announced_links;
    if (link.iface->type == GateInterface::LOCAL) --ageing_links;
}

void PeerTables::note_ageing(uint32_t manet_addr, int64_t due_us) {
    if (ageing.size() >= AGEING_SLACK_FACTOR * ageing_links + AGEING_SLACK_MIN) rebuild_ageing();
    push_due({due_us, manet_addr});
}

void PeerTables::push_due(const LinkDue& entry) {
    ageing.push_back(entry);
    std::push_heap(ageing.begin(), ageing.end(), later_due);
}

// The earliest time at which one of `links` on a local interface expires;
// false when none is on a local interface.
bool PeerTables::earliest_due(const std::vector<MANetPeer>& links, int64_t& due_us) const {
    bool any = false;
    for (const MANetPeer& link : links) {
        if (link.iface->type != GateInterface::LOCAL) continue;
        if (!any || due_of(link) < due_us) due_us = due_of(link);
        any = true;
    }
    return any;
}

// One entry per gateway with links on local interfaces. A walk over the
// table, but only after as many pushes as the table has ageing links.
void PeerTables::rebuild_ageing() {
    ageing.clear();
    for (const auto& [manet_addr, links] : manet) {
        int64_t due_us = 0;
        if (earliest_due(links, due_us)) ageing.push_back({due_us, manet_addr});
    }
    std::make_heap(ageing.begin(), ageing.end(), later_due);
}

// Links learned on local links go when the node falls silent; links on
// other interfaces never age. Removals of one pass are printed in
// ascending MANet address order.
void PeerTables::age_learned_links(int64_t now) {
    expiring.clear();
    while (!ageing.empty() && ageing.front().due_us < now) {
        expiring.push_back(ageing.front().manet_addr);
        std::pop_heap(ageing.begin(), ageing.end(), later_due);
        ageing.pop_back();
    }
    if (expiring.empty()) return;
    std::sort(expiring.begin(), expiring.end());
    expiring.erase(std::unique(expiring.begin(), expiring.end()), expiring.end());

    for (uint32_t manet_addr : expiring) {
        auto found = manet.find(manet_addr);
        if (found == manet.end()) continue;
        std::vector<MANetPeer>& links = found->second;
        for (size_t i = 0; i < links.size();) {
            MANetPeer& link = links[i];
            if (link.iface->type != GateInterface::LOCAL || due_of(link) >= now) {
                ++i;
                continue;
            }
            if (table_line_admitted()) {
                debug("Remove MANet peer on iface %u, last seen %lu: %s", link.iface->id,
                      static_cast<unsigned long>(link.last_seen), full_addr_s_manet(manet_addr, link).c_str());
            }
            forget_link(link);
            links.erase(links.begin() + static_cast<std::ptrdiff_t>(i));
        }
        // A gateway without links is unknown again, so that MANet traffic
        // from it is no longer accepted.
        int64_t due_us = 0;
        if (links.empty()) {
            manet.erase(found);
        } else if (earliest_due(links, due_us)) {
            note_ageing(manet_addr, due_us);
        }
    }
}

// Finished name lookups give their links a socket address. A lookup that
// finished without an answer leaves the link unresolved; it is not
// restarted here.
void PeerTables::collect_resolutions() {
    for (size_t i = 0; i < awaiting_resolution.size();) {
        auto found = manet.find(awaiting_resolution[i]);
        bool waiting = false;
        if (found != manet.end()) {
            for (MANetPeer& link : found->second) {
                if (link.iface->type == GateInterface::LOCAL || !link.resolver || link.inet_addr) continue;
                waiting = true;
                if (!link.resolver->finished()) continue;
                std::optional<InetAddress> resolved = link.resolver->get_resolved_address();
                if (!resolved) continue;
                link.inet_addr = std::move(resolved);
                debug("MANet peer on iface %u retrieved addrinfo '%s': '%s'", link.iface->id,
                      link.resolver->to_s().c_str(), link.inet_addr->to_s().c_str());
            }
        }
        if (waiting) {
            ++i;
        } else {
            awaiting_resolution.erase(awaiting_resolution.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

// Before a learned or announced link is added to a full table: one line
// the first time, then the link of that origin seen longest ago goes.
void PeerTables::make_room(Origin origin, uint32_t manet_addr) {
    if (origin == Origin::LEARNED && learned_links >= MAX_LEARNED_LINKS) {
        if (!learned_cap_reached) {
            debug("WARNING: %zu learned MANet links, the most kept: a new one now replaces the one seen longest ago",
                  MAX_LEARNED_LINKS);
            learned_cap_reached = true;
        }
        evict_learned_link(manet_addr);
    } else if (origin == Origin::ANNOUNCED && announced_links >= MAX_ANNOUNCED_LINKS) {
        if (!announced_cap_reached) {
            debug(
                "WARNING: %zu MANet links announced by device_config, the most kept: a new one now replaces the "
                "one seen longest ago",
                MAX_ANNOUNCED_LINKS);
            announced_cap_reached = true;
        }
        evict_announced_link(manet_addr);
    }
}

// Learned links live on local interfaces, so the ageing heap knows which
// is oldest once its top has been checked against the table. Gateways on
// top that have only configured links are set aside and put back.
void PeerTables::evict_learned_link(uint32_t keep_addr) {
    std::vector<LinkDue> set_aside;
    while (!ageing.empty()) {
        const LinkDue top = ageing.front();
        std::pop_heap(ageing.begin(), ageing.end(), later_due);
        ageing.pop_back();
        auto found = manet.find(top.manet_addr);
        int64_t due_us = 0;
        if (found == manet.end() || !earliest_due(found->second, due_us)) continue;
        if (due_us > top.due_us) {  // refreshed since: file it at its true time
            push_due({due_us, top.manet_addr});
            continue;
        }
        std::vector<MANetPeer>& links = found->second;
        size_t oldest = links.size();
        for (size_t i = 0; i < links.size(); ++i) {
            if (links[i].origin == Origin::LEARNED &&
                (oldest == links.size() || links[i].last_seen < links[oldest].last_seen)) {
                oldest = i;
            }
        }
        set_aside.push_back({due_us, top.manet_addr});
        if (oldest == links.size()) continue;
        for (const LinkDue& entry : set_aside) push_due(entry);
        evict(found, oldest, keep_addr);
        return;
    }
    for (const LinkDue& entry : set_aside) push_due(entry);
}

// At most MAX_ANNOUNCED_LINKS of them: a look at each is cheap.
void PeerTables::evict_announced_link(uint32_t keep_addr) {
    MANetPeers::iterator victim = manet.end();
    size_t victim_index = 0;
    for (size_t a = 0; a < announced_addrs.size();) {
        auto found = manet.find(announced_addrs[a]);
        bool announced = false;
        if (found != manet.end()) {
            for (size_t i = 0; i < found->second.size(); ++i) {
                const MANetPeer& link = found->second[i];
                if (link.origin != Origin::ANNOUNCED) continue;
                announced = true;
                if (victim == manet.end() || link.last_seen < victim->second[victim_index].last_seen) {
                    victim = found;
                    victim_index = i;
                }
            }
        }
        if (announced) {
            ++a;
        } else {
            announced_addrs.erase(announced_addrs.begin() + static_cast<std::ptrdiff_t>(a));
        }
    }
    if (victim != manet.end()) evict(victim, victim_index, keep_addr);
}

// Removes link `index` of `found` before its time. The gateway goes with
// its last link, unless it is the one a link is being added to.
void PeerTables::evict(MANetPeers::iterator found, size_t index, uint32_t keep_addr) {
    std::vector<MANetPeer>& links = found->second;
    const MANetPeer& link = links[index];
    if (table_line_admitted()) {
        debug("Remove MANet peer on iface %u, last seen %lu: %s", link.iface->id,
              static_cast<unsigned long>(link.last_seen), full_addr_s_manet(found->first, link).c_str());
    }
    forget_link(link);
    links.erase(links.begin() + static_cast<std::ptrdiff_t>(index));
    if (links.empty() && found->first != keep_addr) manet.erase(found);
}

}  // namespace vostrelka
