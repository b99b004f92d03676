// Start-up: the command line, the configuration file, and from it the
// interfaces, the peer tables and the RF modem handlers. The file is read
// by ConfigReader; this applies it. A configuration error prints one
// "ERROR:" line and ends the process with status 1; malformed JSON and
// wrongly typed values end it through the library's uncaught exception.
#include "Gate.h"

#include <cstdlib>
#include <exception>

#include "ConfigReader.h"
#include "ControlServer.h"
#include "RFModemHandler.h"
#include "vostrelka/Time.h"
#include "vostrelka/debug.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"

namespace vostrelka {

namespace {

constexpr uint8_t ANY_DEVICE_ADDRESS = 0xFF;

}  // namespace

Gate::Gate() : Application("gate", "Net device gateway", true) {
    options.add_options()("c,config", "Configuration file for gate", cxxopts::value<std::string>())(
        "d,debug", "Debug level: 0 = none, 1 = warnings, 2 = forw, 3 = recv",
        cxxopts::value<int>()->default_value("0"));
    own_entries.push_back(&resolver_wake_up);
}

Gate::~Gate() = default;

Gate::Interface* Gate::add_interface(uint32_t id, uint8_t type, std::shared_ptr<net_device::NetDevice> device) {
    if (ifaces.size() >= MAX_INTERFACES || ifaces.count(id) != 0 || !event_loop_entries.push_back(device.get()))
        return nullptr;
    Interface& iface = ifaces[id];
    iface.id = id;
    iface.type = type;
    iface.udp = dynamic_cast<net_device::NetDeviceUDP*>(device.get());
    if (auto* can = dynamic_cast<net_device::NetDeviceCan*>(device.get())) can_links.add(can);
    iface.net_device = std::move(device);
    iface.net_device->set_handler(this);
    return &iface;
}

Gate::Interface* Gate::find_interface(uint32_t id) {
    auto found = ifaces.find(id);
    return found == ifaces.end() ? nullptr : &found->second;
}

// A linear scan on purpose: a gateway has a handful of interfaces.
Gate::Interfaces::iterator Gate::find_iface_by_ref(const net_device::NetDevice& device) {
    for (auto it = ifaces.begin(); it != ifaces.end(); ++it) {
        if (it->second.net_device.get() == &device) return it;
    }
    return ifaces.end();
}

bool Gate::add_event_loop_entry(event_system::EventLoopEntry* entry) {
    return event_loop_entries.push_back(entry);
}

void Gate::add_handler(std::unique_ptr<RunnerHandler> handler) {
    handlers.push_back(std::move(handler));
}

void Gate::start(const cxxopts::ParseResult& result) {
    started_us = time_us();
    debug_level = result["debug"].as<int>();
    if (result.count("config") == 0) {
        debug("ERROR: mission --config argument");
        exit(1);
    }

    const std::string path = result["config"].as<std::string>();
    std::optional<std::string> text = read_config_file(path);
    if (!text) {
        debug("ERROR: open config file: %s", path.c_str());
        exit(1);
    }
    if (!parse_config(std::move(*text))) {
        debug("ERROR: parse config file");
        exit(1);
    }

    if (control_settings) open_control();
    if (notifier.init_from_environment()) notifier.ready();
    loop();
}

// Builds what the file describes, in the file's order, up to where reading
// it stopped; then reports why it stopped. False when the file as a whole is
// refused; every other error ends the process here.
bool Gate::parse_config(std::string&& text) {
    const ConfigReading reading = read_config(text);
    if (!apply_config(reading.config)) return false;
    if (!reading.error) return true;

    const ConfigError& error = *reading.error;
    if (error.device_first) make_device(*error.device_first);
    if (error.exception) std::rethrow_exception(error.exception);
    if (error.gate_line) debug("ERROR: %s", error.message.c_str());
    if (error.whole_file) return false;
    exit(1);
}

std::shared_ptr<net_device::NetDevice> Gate::make_device(const std::string& description) {
    std::shared_ptr<net_device::NetDevice> device = factory.make_net_device(description, ANY_DEVICE_ADDRESS);
    if (!device) {
        debug("ERROR: parse \"iface\" field: %s", description.c_str());
        exit(1);
    }
    return device;
}

bool Gate::apply_config(const GateConfig& config) {
    for (const GateConfig::Iface& entry : config.ifaces) {
        Interface* iface = add_interface(entry.id, entry.manet ? MANET : LOCAL, make_device(entry.description));
        if (iface == nullptr) return false;
        iface->description = entry.description;
    }

    tables.set_configuring(true);
    for (const GateConfig::LocalPeer& peer : config.local_peers) {
        if (!add_local_peer(*find_interface(peer.iface_id), peer.addr, peer.inet_addr)) {
            debug("ERROR: duplicate local peer: 0x%02X", static_cast<unsigned int>(peer.addr));
            exit(1);
        }
    }
    for (const GateConfig::MANetPeer& peer : config.manet_peers) {
        // Given by name: resolved in the background, filled in by the loop.
        std::unique_ptr<AddressResolver> resolver;
        if (peer.host_port) resolver = std::make_unique<AddressResolver>(*peer.host_port, false);
        if (!add_manet_peer(*find_interface(peer.iface_id), peer.manet_addr, peer.addr, std::move(resolver),
                            std::nullopt, Origin::CONFIGURED)) {
            debug("ERROR: duplicate MANet peer: 0x%08X", peer.manet_addr);
            exit(1);
        }
    }
    tables.set_configuring(false);

    for (const GateConfig::RFModem& modem : config.rfmodems) {
        Interface& iface = *find_interface(modem.iface_id);
        add_handler(std::make_unique<RFModemHandler>(iface.net_device.get(), modem.addr, modem.power, modem.channel));
        debug("RFModem on iface %i: addr=0x%08X channel=%i power=%.1f", static_cast<int>(iface.id), modem.addr,
              static_cast<int>(modem.channel), static_cast<double>(modem.power));
    }
    control_settings = config.control;
    return true;
}

}  // namespace vostrelka
