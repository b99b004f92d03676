// What the gateway tells about itself: the control socket's "stats" and
// "peers" answers, and the service manager's readiness. Read-only: nothing
// here changes a table.
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "ControlServer.h"
#include "Gate.h"
#include "vostrelka/SerialLine.h"
#include "vostrelka/Time.h"
#include "vostrelka/debug.h"
#include "vostrelka/net_device/NetDeviceSerialBase.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"
#include "vostrelka/version.h"

namespace vostrelka {

namespace {

// Keys in the order they are written, which is the order readers see.
using ordered_json = nlohmann::ordered_json;

// Seconds to the millisecond, which is what a reader wants of an age.
double seconds(int64_t us) {
    return std::round(static_cast<double>(us) / 1000.0) / 1000.0;
}

std::string hex_text(unsigned int value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

ordered_json decode_errors(const net_device::DeviceCounters& counters) {
    ordered_json errors = ordered_json::object();
    net_device::for_each_decode_error(counters, [&](const char* name, uint32_t value) { errors[name] = value; });
    return errors;
}

ordered_json drops(const net_device::DropCounters& counters) {
    ordered_json drops = ordered_json::object();
    for (const auto& counter : net_device::DROP_COUNTERS) drops[counter.name] = counters.*counter.field;
    return drops;
}

ordered_json inet_text(const std::optional<InetAddress>& inet_addr) {
    return inet_addr ? ordered_json(inet_addr->to_s()) : ordered_json(nullptr);
}

const char* origin_text(Gate::Origin origin) {
    switch (origin) {
        case Gate::Origin::CONFIGURED:
            return "configured";
        case Gate::Origin::ANNOUNCED:
            return "announced";
        case Gate::Origin::LEARNED:
            break;
    }
    return "learned";
}

const char* role_text(uint8_t type) {
    return type == Gate::MANET ? "manet" : type == Gate::LOCAL ? "local" : "inert";
}

}  // namespace

void Gate::open_control() {
    std::vector<ControlServer::TappedDevice> devices;
    for (auto& [id, iface] : ifaces) devices.push_back({iface.net_device.get(), id});
    control = std::make_unique<ControlServer>(
        [this](const std::string& request) { return answer_control_request(request); }, std::move(devices));
    std::string error;
    if (!control->open(control_settings->path, control_settings->mode, error)) {
        debug("ERROR: control socket %s: %s", control_settings->path.c_str(), error.c_str());
        exit(1);
    }
    own_entries.push_back(control.get());
}

std::optional<std::string> Gate::answer_control_request(const std::string& request) const {
    if (request == "stats") return stats_json();
    if (request == "peers") return peers_json();
    return std::nullopt;
}

std::string Gate::stats_json() const {
    ordered_json interfaces = ordered_json::array();
    for (const auto& [id, iface] : ifaces) {
        const net_device::DeviceCounters counters = iface.net_device->counters();
        const net_device::TransportKind* kind = net_device::NetDeviceFactory::kind_of(iface.description);
        interfaces.push_back({{"id", id},
                              {"description", iface.description},
                              {"kind", kind ? kind->type : ""},
                              {"role", role_text(iface.type)},
                              {"link_up", link_up(*iface.net_device)},
                              {"frames_in", counters.frames_in},
                              {"bytes_in", counters.bytes_in},
                              {"frames_out", counters.frames_out},
                              {"bytes_out", counters.bytes_out},
                              {"decode_errors", decode_errors(counters)},
                              {"drops", drops(counters.drops)}});
    }
    const ordered_json stats = {{"uptime_s", seconds(time_us() - started_us)},
                                {"version", version::SOFTWARE},
                                {"interfaces", std::move(interfaces)}};
    return stats.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

bool Gate::link_up(net_device::NetDevice& device) const {
    if (const auto* can = dynamic_cast<const net_device::NetDeviceCan*>(&device)) return !can->link_lost();
    auto* serial = dynamic_cast<net_device::NetDeviceSerialBase*>(&device);
    if (serial == nullptr) return true;
    // A serial line is down from the moment it is closed as lost until it
    // opens again.
    for (const auto& line : factory.serial_ports()) {
        if (static_cast<const drivers::DataPort*>(line->get_port().get()) == &serial->get_port()) {
            return !line->awaiting_reopen();
        }
    }
    return true;
}

std::string Gate::peers_json() const {
    ordered_json local = ordered_json::array();
    for (const auto& [addr, peer] : tables.local_peers()) {
        local.push_back({{"addr", hex_text(addr, 2)}, {"iface", peer.iface->id}, {"inet", inet_text(peer.inet_addr)}});
    }
    const int64_t now = time_us();
    ordered_json links = ordered_json::array();
    for (const auto& [manet_addr, gateway_links] : tables.manet_peers()) {
        for (const MANetPeer& link : gateway_links) {
            const char* state = !link.resolver ? "none" : link.inet_addr ? "resolved" : "pending";
            const char* reason = link.resolver && !link.inet_addr ? link.resolver->failure_reason() : nullptr;
            links.push_back({{"manet_addr", hex_text(manet_addr, 8)},
                             {"iface", link.iface->id},
                             {"local_addr", hex_text(link.local_addr, 2)},
                             {"inet", inet_text(link.inet_addr)},
                             {"resolver", link.resolver ? ordered_json(link.resolver->to_s()) : ordered_json(nullptr)},
                             {"resolver_state", state},
                             {"reason", reason ? ordered_json(reason) : ordered_json(nullptr)},
                             {"age_s", seconds(now - static_cast<int64_t>(link.last_seen))},
                             {"origin", origin_text(link.origin)}});
        }
    }
    const ordered_json peers = {{"local_peers", std::move(local)}, {"manet_links", std::move(links)}};
    // A host name announced by a device may hold any bytes.
    return peers.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace vostrelka
