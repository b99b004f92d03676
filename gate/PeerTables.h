#pragma once
// What the gateway knows about its peers: the local devices (8-bit
// addresses, one table for all interfaces) and the links to other gateways
// (32-bit MANet addresses, one or more links each), with the bookkeeping
// that keeps the MANet table bounded and cheap to age, and the limit on the
// lines that report changes to either table.
//
// Memory bound. Traffic must not be able to grow the tables without bound:
// - local peers: at most 256 (one per 8-bit address), about 160 bytes each
//   (a map node with the interface and an optional socket address, whose
//   texts fit the strings' own storage): 40 KiB at most;
// - MANet links: the configured ones, plus at most MAX_LEARNED_LINKS learned
//   from MANet packets on local links and MAX_ANNOUNCED_LINKS announced by
//   device_config; past a cap a new link replaces the one of its origin seen
//   longest ago, and configured links are never replaced that way. A link
//   costs about 250 bytes (its 136-byte record, its gateway's map node and
//   vector, its share of the ageing heap), so learned links take about
//   1 MiB at most; a link given by name also holds its resolver and lookup,
//   about 600 bytes more with a 32-byte host;
// - the ageing heap holds at most 2 entries of 16 bytes per link on a local
//   interface, plus 64, before it is rebuilt; the list of gateways awaiting
//   a name lookup one entry per gateway with a link given by name.
//
// Cost of a pass: ageing takes links from a min-heap of due times instead of
// walking the table, and resolutions are collected from the list of
// gateways waiting for one.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "GateInterface.h"
#include "PeerTableLog.h"
#include "vostrelka/InetAddress.h"
#include "vostrelka/Resolver.h"

namespace vostrelka {

class ResolverPool;

class PeerTables {
public:
    // Age after which a link learned on a local interface goes.
    static constexpr int64_t PEER_TIMEOUT_US = 10000000;
    // What traffic may add to the MANet table, in links.
    static constexpr size_t MAX_LEARNED_LINKS = 4096;
    static constexpr size_t MAX_ANNOUNCED_LINKS = 16;

    struct LocalPeer {
        GateInterface* iface = nullptr;        // points into the gateway's interfaces
        std::optional<InetAddress> inet_addr;  // UDP devices only
    };

    // Where a MANet link came from: the configuration file, a MANet packet
    // on a local link, or a device_config naming its UTM server.
    enum class Origin : uint8_t { CONFIGURED, LEARNED, ANNOUNCED };

    // One link to a remote gateway; a gateway may have several.
    struct MANetPeer {
        GateInterface* iface = nullptr;
        uint8_t local_addr = 0;
        std::unique_ptr<AddressResolver> resolver;  // when given by host name
        std::optional<InetAddress> inet_addr;
        uint64_t last_seen = 0;  // time_us()
        Origin origin = Origin::CONFIGURED;
    };

    using LocalPeers = std::map<uint8_t, LocalPeer>;
    using MANetPeers = std::map<uint32_t, std::vector<MANetPeer>>;

    // Links given by name are looked up on `resolvers`.
    explicit PeerTables(ResolverPool& resolvers) : resolvers(resolvers) {}

    const LocalPeers& local_peers() const { return local; }
    const MANetPeers& manet_peers() const { return manet; }

    // True when a peer was added or moved; false when the table already
    // said the same.
    bool add_local_peer(GateInterface& iface, uint8_t addr, const std::optional<InetAddress>& inet_addr);
    // True when a new link was added; a known one is refreshed instead.
    bool add_manet_peer(GateInterface& iface, uint32_t manet_addr, uint8_t local_addr,
                        std::unique_ptr<AddressResolver>&& resolver, std::optional<InetAddress> inet_addr,
                        Origin origin);
    // Test hook: pretends link `index` of `manet_addr` was last seen at `last_seen`.
    void set_last_seen(uint32_t manet_addr, size_t index, uint64_t last_seen);

    // Removes links on local interfaces not heard from for PEER_TIMEOUT_US.
    void age_learned_links(int64_t now);
    // Gives links whose name lookup has finished their socket address.
    void collect_resolutions();

    // While the configuration is read, table lines are never held back.
    void set_configuring(bool on) { configuring = on; }
    // Prints the summary of lines held back in a second that has ended.
    void flush_log();

    // The text every log line prints for a peer, at most 127 characters.
    static std::string full_addr_s_local(uint8_t addr, const std::optional<InetAddress>& inet_addr);
    static std::string full_addr_s_manet(uint32_t manet_addr, uint8_t local_addr,
                                         const std::unique_ptr<AddressResolver>& resolver,
                                         const std::optional<InetAddress>& inet_addr);
    static std::string full_addr_s_manet(uint32_t manet_addr, const MANetPeer& peer);

private:
    struct LinkDue {
        int64_t due_us;  // a link of `manet_addr` may expire after this
        uint32_t manet_addr;
    };
    static bool later_due(const LinkDue& a, const LinkDue& b);
    bool table_line_admitted();
    void note_new_link(uint32_t manet_addr, const MANetPeer& link);
    void forget_link(const MANetPeer& link);
    void note_ageing(uint32_t manet_addr, int64_t due_us);
    bool earliest_due(const std::vector<MANetPeer>& links, int64_t& due_us) const;
    void rebuild_ageing();
    void push_due(const LinkDue& entry);
    void make_room(Origin origin, uint32_t manet_addr);
    void evict_learned_link(uint32_t keep_addr);
    void evict_announced_link(uint32_t keep_addr);
    void evict(MANetPeers::iterator found, size_t index, uint32_t keep_addr);

    ResolverPool& resolvers;
    // Destroyed in reverse order: the MANet links (and their resolvers)
    // before the local peers.
    LocalPeers local;
    MANetPeers manet;

    // A min-heap on when links on local interfaces may expire, so that a
    // pass looks only at what is due. Entries are rechecked when they come
    // up: a refresh moves a link's time without touching the heap.
    std::vector<LinkDue> ageing;
    std::vector<uint32_t> expiring;  // reused by every pass that ages links
    size_t ageing_links = 0;         // links on local interfaces
    size_t learned_links = 0;
    size_t announced_links = 0;
    std::vector<uint32_t> announced_addrs;      // may hold gone ones
    std::vector<uint32_t> awaiting_resolution;  // ascending, may hold gone ones
    bool learned_cap_reached = false;
    bool announced_cap_reached = false;
    bool configuring = false;
    PeerTableLog log;
};

}  // namespace vostrelka
