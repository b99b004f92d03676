#pragma once
// The gateway: its interfaces, the peer tables it fills from the
// configuration and from traffic, and the loop that moves frames between
// them.
//
// Files: Gate.cpp (start-up, the configuration file, the interfaces),
// GateRouting.cpp (on_frame and forwarding), GateService.cpp (service
// frames), GateLoop.cpp (the main loop), GateControl.cpp (what the control
// socket answers). The tables and their rules are PeerTables.
//
// The tables are private: interfaces come in through add_interface(), peers
// through add_local_peer() and add_manet_peer(), so that every entry is made
// the one way the tables' own bookkeeping expects.
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "CanLinks.h"
#include "GateConfig.h"
#include "GateInterface.h"
#include "PeerTables.h"
#include "SystemdNotifier.h"
#include "vostrelka/Application.h"
#include "vostrelka/ArrayList.h"
#include "vostrelka/EventLoopEntry.h"
#include "vostrelka/InetAddress.h"
#include "vostrelka/ResolverWakeUp.h"
#include "vostrelka/debug.h"
#include "vostrelka/net_device/NetDevice.h"
#include "vostrelka/net_device/NetDeviceFactory.h"

namespace vostrelka {

class ControlServer;
class RunnerHandler;
namespace manet {
struct MAPacket;
}
namespace event_system {
class SelectPass;
}
namespace net_device {
class NetDeviceCan;
class NetDeviceUDP;
}  // namespace net_device
namespace tessera {
struct MessageInfo;
}

using json = nlohmann::json;

class Gate : public Application, public net_device::NetDeviceMessageHandlerI {
public:
    static constexpr uint8_t LOCAL = GateInterface::LOCAL;
    static constexpr uint8_t MANET = GateInterface::MANET;

    static constexpr int64_t MAX_SELECT_WAIT_US = 5000000;
    static constexpr int64_t PEER_TIMEOUT_US = PeerTables::PEER_TIMEOUT_US;
    static constexpr size_t MAX_INTERFACES = 32;
    // Entries of the gateway's own (the resolver wake-up, the control
    // socket), in a list apart from the devices': they have no timers, and
    // their wake-ups do not run a pass.
    static constexpr size_t MAX_INTERNAL_ENTRIES = 4;
    static constexpr size_t MAX_EVENT_LOOP_ENTRIES = MAX_INTERFACES + MAX_INTERNAL_ENTRIES;
    static constexpr size_t MAX_LEARNED_LINKS = PeerTables::MAX_LEARNED_LINKS;
    static constexpr size_t MAX_ANNOUNCED_LINKS = PeerTables::MAX_ANNOUNCED_LINKS;

    using Interface = GateInterface;
    using LocalPeer = PeerTables::LocalPeer;
    using Origin = PeerTables::Origin;
    using MANetPeer = PeerTables::MANetPeer;
    using Interfaces = std::map<uint32_t, Interface>;
    using LocalPeers = PeerTables::LocalPeers;
    using MANetPeers = PeerTables::MANetPeers;

    Gate();
    ~Gate();

    // Start-up and configuration file. start() never returns.
    void start(const cxxopts::ParseResult& result) override;

    // Interface `id` of `type` over `device`, with the gate as the device's
    // handler and the device in the main loop. Null when `id` is taken or
    // the gateway already has MAX_INTERFACES interfaces.
    Interface* add_interface(uint32_t id, uint8_t type, std::shared_ptr<net_device::NetDevice> device);
    Interface* find_interface(uint32_t id);
    // A further entry for the main loop (false when it is full), and a
    // handler it updates in every pass.
    bool add_event_loop_entry(event_system::EventLoopEntry* entry);
    void add_handler(std::unique_ptr<RunnerHandler> handler);
    net_device::NetDeviceFactory& device_factory() { return factory; }
    void set_debug_level(int32_t level) { debug_level = level; }

    // Main loop. loop() runs run_once() for ever; run_once() returns after
    // one pass, which comes when a device is ready or the pass's wait has
    // run out (`max_wait_us` only shortens it: tests drive single passes
    // with it). Other wake-ups on the way are served without a pass.
    [[noreturn]] void loop();
    void run_once(int64_t max_wait_us = MAX_SELECT_WAIT_US);
    void age_learned_links(int64_t now) { tables.age_learned_links(now); }
    void collect_resolutions() { tables.collect_resolutions(); }

    // Routing.
    void on_frame(net_device::NetDevice& device, const net_device::Frame& frame) override;

    // Peer tables, read-only to everyone but the gate.
    const Interfaces& interface_table() const { return ifaces; }
    const LocalPeers& local_peer_table() const { return tables.local_peers(); }
    const MANetPeers& manet_peer_table() const { return tables.manet_peers(); }
    bool add_local_peer(Interface& iface, uint8_t addr, const std::optional<InetAddress>& inet_addr) {
        return tables.add_local_peer(iface, addr, inet_addr);
    }
    bool add_manet_peer(Interface& iface, uint32_t manet_addr, uint8_t local_addr,
                        std::unique_ptr<AddressResolver>&& resolver, std::optional<InetAddress> inet_addr,
                        Origin origin) {
        return tables.add_manet_peer(iface, manet_addr, local_addr, std::move(resolver), std::move(inet_addr), origin);
    }
    // Test hook: pretends link `index` of `manet_addr` was last seen at `last_seen`.
    void set_last_seen(uint32_t manet_addr, size_t index, uint64_t last_seen) {
        tables.set_last_seen(manet_addr, index, last_seen);
    }
    std::string full_addr_s_local(uint8_t addr, const std::optional<InetAddress>& inet_addr) const {
        return PeerTables::full_addr_s_local(addr, inet_addr);
    }
    std::string full_addr_s_local(uint8_t addr, const LocalPeer& peer) const {
        return PeerTables::full_addr_s_local(addr, peer.inet_addr);
    }
    std::string full_addr_s_manet(uint32_t manet_addr, uint8_t local_addr,
                                  const std::unique_ptr<AddressResolver>& resolver,
                                  const std::optional<InetAddress>& inet_addr) const {
        return PeerTables::full_addr_s_manet(manet_addr, local_addr, resolver, inet_addr);
    }
    std::string full_addr_s_manet(uint32_t manet_addr, const MANetPeer& peer) const {
        return PeerTables::full_addr_s_manet(manet_addr, peer);
    }

    // What the control socket answers (GateControl.cpp): JSON text, or
    // nothing for an unknown request.
    std::optional<std::string> answer_control_request(const std::string& request) const;

private:
    bool parse_config(std::string&& text);
    bool apply_config(const GateConfig& config);
    // The device of a configured interface; ends the process when none can be made.
    std::shared_ptr<net_device::NetDevice> make_device(const std::string& description);

    void run_pass(event_system::SelectPass& pass);
    // The watchdog and the retry of lost links, between passes.
    int64_t next_chore_us();
    void do_chores(int64_t now);
    void check_serial_port();

    // Both return false when the frame found nowhere to go.
    bool forward_local_frame(const net_device::NetDevice& from_device, const net_device::Frame& frame,
                             const std::optional<InetAddress>& from_inet);
    bool forward_manet_frame(const Interface& from_iface, const net_device::Frame& frame, const manet::MAPacket& packet,
                             const std::optional<InetAddress>& from_inet);
    void handle_service_frame(const net_device::Frame& frame);
    void handle_device_config(const tessera::MessageInfo& info);
    void open_control();
    std::string stats_json() const;
    // False while the device's serial line or CAN interface is lost.
    bool link_up(net_device::NetDevice& device) const;
    std::string peers_json() const;
    Interfaces::iterator find_iface_by_ref(const net_device::NetDevice& device);

    // Members are destroyed in reverse order: handlers first, then the peer
    // tables (MANet links and their resolvers, local peers), interfaces, the
    // factory.
    int32_t debug_level = 0;
    net_device::NetDeviceFactory factory;
    CanLinks can_links;
    ArrayListAlloc<event_system::EventLoopEntry*, MAX_EVENT_LOOP_ENTRIES> event_loop_entries;
    ArrayListAlloc<event_system::EventLoopEntry*, MAX_INTERNAL_ENTRIES> own_entries;
    // The gateway's own resolver pool: a finished lookup wakes this loop
    // and its answer is taken at once. The pool never waits for a lookup
    // when it goes, and the resolvers of the peers may outlive it.
    ResolverWakeUp resolver_wake_up{[this] { collect_resolutions(); }};
    Interfaces ifaces;
    PeerTables tables{resolver_wake_up.pool()};
    std::vector<std::unique_ptr<RunnerHandler>> handlers;
    int64_t started_us = 0;                               // time_us()
    std::optional<GateConfig::Control> control_settings;  // none: no control socket
    SystemdNotifier notifier;
    // Holds the devices' tap pointers, so it goes before the interfaces.
    std::unique_ptr<ControlServer> control;
};

}  // namespace vostrelka
