// The interface table and the two peer tables: who lives where, and the
// text every log line prints for a peer.
#include <cstdio>

#include "Gate.h"
#include "vostrelka/Time.h"
#include "vostrelka/debug.h"

namespace vostrelka {

namespace {
// Every peer text fits this buffer; longer text is cut.
constexpr size_t ADDR_TEXT_SIZE = 128;
}  // namespace

std::string Gate::full_addr_s_local(uint8_t addr, const std::optional<InetAddress>& inet_addr) const {
    std::string suffix;
    if (inet_addr) suffix = " / " + inet_addr->to_s();
    char text[ADDR_TEXT_SIZE];
    snprintf(text, sizeof(text), "0x%02X%s", addr, suffix.c_str());
    return text;
}

std::string Gate::full_addr_s_local(uint8_t addr, const LocalPeer& peer) const {
    return full_addr_s_local(addr, peer.inet_addr);
}

std::string Gate::full_addr_s_manet(uint32_t manet_addr, uint8_t local_addr,
                                    const std::unique_ptr<AddressResolver>& resolver,
                                    const std::optional<InetAddress>& inet_addr) const {
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

std::string Gate::full_addr_s_manet(uint32_t manet_addr, const MANetPeer& peer) const {
    return full_addr_s_manet(manet_addr, peer.local_addr, peer.resolver, peer.inet_addr);
}

// A linear scan on purpose: a gateway has a handful of interfaces.
Gate::Interfaces::iterator Gate::find_iface_by_ref(const net_device::NetDevice& device) {
    for (auto it = ifaces.begin(); it != ifaces.end(); ++it) {
        if (it->second.net_device.get() == &device) return it;
    }
    return ifaces.end();
}

bool Gate::add_local_peer(Interface& iface, uint8_t addr, const std::optional<InetAddress>& inet_addr) {
    auto found = local_peers.find(addr);
    if (found != local_peers.end()) {
        const LocalPeer& old = found->second;
        // Heard again where it already lives: nothing to learn. Having an
        // address on one side only counts as a move.
        if (old.iface->id == iface.id && old.inet_addr.has_value() == inet_addr.has_value() &&
            (!inet_addr || *old.inet_addr == *inet_addr)) {
            return false;
        }
        debug("remove old local peer on iface %u: %s", old.iface->id, full_addr_s_local(addr, old.inet_addr).c_str());
        local_peers.erase(found);
    }
    local_peers.emplace(addr, LocalPeer{&iface, inet_addr});
    debug("add local peer on iface %u: %s", iface.id, full_addr_s_local(addr, inet_addr).c_str());
    return true;
}

bool Gate::add_manet_peer(Interface& iface, uint32_t manet_addr, uint8_t local_addr,
                          std::unique_ptr<AddressResolver>&& resolver, std::optional<InetAddress> inet_addr) {
    // A peer is either resolved by name or given its address, never both.
    if (resolver && inet_addr) return false;

    std::vector<MANetPeer>& links = manet_peers[manet_addr];
    size_t same_links = 0;
    for (size_t i = 0; i < links.size();) {
        MANetPeer& link = links[i];
        if (link.iface->id != iface.id) {
            ++i;
            continue;
        }
        bool same = true;
        if (resolver) {
            same = link.resolver && link.resolver->to_s() == resolver->to_s();
        } else if (inet_addr && link.inet_addr) {
            same = *inet_addr == *link.inet_addr;
        }
        if (same) {
            ++same_links;
            ++i;
            continue;
        }
        debug("Replace MANet peer on iface %u: %s", iface.id, full_addr_s_manet(manet_addr, link).c_str());
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

    MANetPeer link;
    link.iface = &iface;
    link.local_addr = local_addr;
    link.resolver = std::move(resolver);
    link.inet_addr = std::move(inet_addr);
    link.last_seen = static_cast<uint64_t>(time_us());
    if (link.resolver) link.resolver->start();
    debug("add MANet peer on iface %u: %s", iface.id, full_addr_s_manet(manet_addr, link).c_str());
    links.push_back(std::move(link));
    return true;
}

void Gate::set_last_seen(uint32_t manet_addr, size_t index, uint64_t last_seen) {
    manet_peers.at(manet_addr).at(index).last_seen = last_seen;
}

}  // namespace vostrelka
