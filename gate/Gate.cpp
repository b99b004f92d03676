// Start-up: the command line, the configuration file, and from it the
// interfaces, the peer tables and the RF modem handlers. A configuration
// error prints one "ERROR:" line and ends the process with status 1;
// malformed JSON and wrongly typed values end it through the library's
// uncaught exception.
#include "Gate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <type_traits>

#include "ControlServer.h"
#include "JsonNumber.h"
#include "RFModemHandler.h"
#include "vostrelka/HostPort.h"
#include "vostrelka/Time.h"
#include "vostrelka/debug.h"
#include "vostrelka/net_device/net_device_parse.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"

namespace vostrelka {

namespace {

constexpr uint8_t ANY_DEVICE_ADDRESS = 0xFF;
// Far above any real configuration (32 interfaces and their peers take a
// few kilobytes), far below what a small board misses.
constexpr size_t MAX_CONFIG_FILE_BYTES = 1024 * 1024;

// The whole text of a regular file of at most MAX_CONFIG_FILE_BYTES, or
// nothing. A device, a FIFO or a directory given by mistake is refused
// before it is opened (opening a serial line can reset the board behind it),
// and again after, in case the path changed in between; the size is checked
// while reading, in case the file grows.
std::optional<std::string> read_config_file(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    // Non-blocking: a FIFO put there in the meantime must not hold the start.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    std::optional<std::string> text;
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        text.emplace();
        char chunk[64 * 1024];
        for (;;) {
            const ssize_t got = read(fd, chunk, sizeof(chunk));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0 || text->size() + static_cast<size_t>(got) > MAX_CONFIG_FILE_BYTES) {
                text.reset();
                break;
            }
            if (got == 0) break;
            text->append(chunk, static_cast<size_t>(got));
        }
    }
    close(fd);
    return text;
}
constexpr const char* DEFAULT_CONTROL_MODE = "0660";
constexpr unsigned long MAX_CONTROL_MODE = 07777;

// `object[key]` as T; a missing key is a configuration error that ends the
// program. Conversion errors are the JSON library's and are not caught; a
// number field takes only a number that T can hold.
template <typename T>
T parse_json_value(const json& object, const std::string& key) {
    if (!object.contains(key)) {
        debug("ERROR: missing \"%s\" field", key.c_str());
        exit(1);
    }
    if constexpr (std::is_arithmetic_v<T>) {
        return json_number<T>(object[key]);
    } else {
        return object[key].template get<T>();
    }
}

// "0x..." in base 16 (the conversion consumes the prefix), anything else in
// base 10, even with "0x" further in; std::stoul's exceptions end the program.
uint32_t parse_manet_address(const std::string& text) {
    const bool hex = text.compare(0, 2, "0x") == 0;
    return static_cast<uint32_t>(std::stoul(text, nullptr, hex ? 16 : 10));
}

// Truncated to the 8-bit local address; std::stoi's exceptions end the program.
uint8_t parse_local_address(const std::string& text) {
    return static_cast<uint8_t>(net_device::parse_device_address(text));
}

// The interface a peer entry names; an unknown id ends the program.
Gate::Interface& interface_of_peer(Gate& gate, unsigned int iface_id) {
    Gate::Interface* iface = gate.find_interface(iface_id);
    if (iface == nullptr) {
        debug("ERROR: iface with id %u not found", iface_id);
        exit(1);
    }
    return *iface;
}

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
    if (auto* can = dynamic_cast<net_device::NetDeviceCan*>(device.get())) can_links.push_back(can);
    iface.net_device = std::move(device);
    iface.net_device->set_handler(this);
    return &iface;
}

Gate::Interface* Gate::find_interface(uint32_t id) {
    auto found = ifaces.find(id);
    return found == ifaces.end() ? nullptr : &found->second;
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

    int manet_ifaces = 0;
    for (const auto& entry : ifaces) {
        if (entry.second.type == MANET) manet_ifaces++;
    }
    if (manet_ifaces > 1) {
        debug("ERROR: only one MANET interface is supported");
        exit(1);
    }

    if (!control_path.empty()) open_control();
    if (notifier.init_from_environment()) notifier.ready();
    loop();
}

bool Gate::parse_config(std::string&& text) {
    json root = json::parse(text);
    if (!root.contains("ifaces")) {
        debug("ERROR: missing \"ifaces\" entry in config file");
        return false;
    }
    json& iface_entries = root["ifaces"];
    if (!parse_ifaces(iface_entries)) return false;
    // Both exit on every error they report.
    configuring = true;
    if (root.contains("local_peers")) parse_local_peers(root["local_peers"]);
    if (root.contains("manet_peers")) parse_manet_peers(root["manet_peers"]);
    configuring = false;

    // After the peers: an RF modem takes its address from the MANet-peer table.
    for (const json& entry : iface_entries) {
        if (!entry.contains("rfmodem_config")) continue;
        Interface* iface = find_interface(parse_json_value<unsigned int>(entry, "id"));
        if (iface != nullptr) parse_rfmodem_config(*iface, entry["rfmodem_config"]);
    }
    if (root.contains("control")) parse_control(root["control"]);
    return true;
}

namespace {

// The address a "udp" or "udpserial" description listens on, when it names
// a port: port 0 (any free port) is never the same as another.
std::optional<InetAddress> fixed_listen_address(net_device::NetDeviceFactory& factory, const std::string& description) {
    net_device::NetDeviceFactory::InterfaceDescription parsed;
    if (factory.parse_interface_desc(description + "/255", parsed) != 0) return std::nullopt;
    if ((parsed.type != "udp" && parsed.type != "udpserial") || parsed.params.size() < 2) return std::nullopt;
    const char* port_text = parsed.params[1].c_str();
    char* end = nullptr;
    // Cut to 16 bits as the factory does; text that is no number is the factory's to report.
    const auto port = static_cast<uint16_t>(std::strtoul(port_text, &end, 10));
    if (end == port_text || port == 0) return std::nullopt;
    return InetAddress::from(parsed.params[0], port);
}

}  // namespace

bool Gate::parse_ifaces(json& entries) {
    if (!entries.is_array()) {
        debug("ERROR: \"ifaces\" node is not an array");
        return false;
    }
    // Two sockets of ours on one address would split its senders between
    // them without a word.
    std::vector<sockaddr_in> listen_addresses;
    for (const json& entry : entries) {
        const auto description = parse_json_value<std::string>(entry, "iface");
        const auto id = parse_json_value<unsigned int>(entry, "id");

        if (const std::optional<InetAddress> listen = fixed_listen_address(factory, description)) {
            for (const sockaddr_in& other : listen_addresses) {
                if (other.sin_addr.s_addr == listen->addr.sin_addr.s_addr && other.sin_port == listen->addr.sin_port) {
                    debug("ERROR: local address %s is configured on two interfaces", listen->to_s().c_str());
                    exit(1);
                }
            }
            listen_addresses.push_back(listen->addr);
        }

        // Made before the id is checked, so a bad description is reported
        // even on an entry with a duplicate id.
        std::shared_ptr<net_device::NetDevice> device = factory.make_net_device(description, ANY_DEVICE_ADDRESS);
        if (!device) {
            debug("ERROR: parse \"iface\" field: %s", description.c_str());
            exit(1);
        }
        if (ifaces.count(id) != 0) {
            debug("ERROR: duplicate device id %u", id);
            return false;
        }

        const uint8_t type = entry.contains("type") && entry["type"] == "manet" ? MANET : LOCAL;
        // A 33rd interface: the caller reports the file as a whole.
        Interface* iface = add_interface(id, type, device);
        if (iface == nullptr) return false;
        iface->description = description;
    }
    return true;
}

bool Gate::parse_local_peers(json& peers) {
    for (const json& entry : peers) {
        const uint8_t addr = parse_local_address(parse_json_value<std::string>(entry, "netdev_addr"));
        Interface& iface = interface_of_peer(*this, parse_json_value<unsigned int>(entry, "iface_id"));

        std::optional<InetAddress> inet_addr;
        if (iface.udp != nullptr) {
            const auto text = parse_json_value<std::string>(entry, "inet_addr");
            inet_addr = InetAddress::from(text);
            if (!inet_addr) {
                debug("ERROR: failed to parse inet address: %s", text.c_str());
                exit(1);
            }
        }
        if (!add_local_peer(iface, addr, inet_addr)) {
            debug("ERROR: duplicate local peer: 0x%02X", static_cast<unsigned int>(addr));
            exit(1);
        }
    }
    return true;
}

bool Gate::parse_manet_peers(json& peers) {
    for (const json& entry : peers) {
        const uint32_t manet_addr = parse_manet_address(parse_json_value<std::string>(entry, "manet_addr"));
        const uint8_t addr = parse_local_address(parse_json_value<std::string>(entry, "netdev_addr"));
        Interface& iface = interface_of_peer(*this, parse_json_value<unsigned int>(entry, "iface_id"));

        // Given by name: resolved in the background, filled in by the loop.
        std::unique_ptr<AddressResolver> resolver;
        if (iface.udp != nullptr) {
            const auto text = parse_json_value<std::string>(entry, "inet_addr");
            const std::optional<HostPort> host_port = HostPort::from(text);
            if (!host_port) {
                debug("ERROR: failed to parse inet address %s", text.c_str());
                exit(1);
            }
            resolver = std::make_unique<AddressResolver>(*host_port, false);
        }
        if (!add_manet_peer(iface, manet_addr, addr, std::move(resolver), std::nullopt, Origin::CONFIGURED)) {
            debug("ERROR: duplicate MANet peer: 0x%08X", manet_addr);
            exit(1);
        }
    }
    return true;
}

void Gate::parse_rfmodem_config(Interface& iface, const json& config) {
    // Deliberate: without a MANet peer the modem is not configured at all.
    if (manet_peers.empty()) return;
    // The lowest MANet address known once the configured peers are read.
    const uint32_t addr = manet_peers.begin()->first;
    const auto channel = static_cast<uint8_t>(parse_json_value<unsigned int>(config, "channel"));
    const auto power = parse_json_value<float>(config, "power");

    add_handler(std::make_unique<RFModemHandler>(iface.net_device.get(), addr, power, channel));
    debug("RFModem on iface %i: addr=0x%08X channel=%i power=%.1f", static_cast<int>(iface.id), addr,
          static_cast<int>(channel), static_cast<double>(power));
}

void Gate::parse_control(const json& control) {
    control_path = parse_json_value<std::string>(control, "path");
    const std::string mode = control.contains("mode") ? control["mode"].get<std::string>() : DEFAULT_CONTROL_MODE;
    char* end = nullptr;
    const unsigned long value = std::strtoul(mode.c_str(), &end, 8);
    if (mode.empty() || *end != '\0' || mode.find_first_not_of("01234567") != std::string::npos ||
        value > MAX_CONTROL_MODE) {
        debug("ERROR: control socket mode is not an octal file mode: %s", mode.c_str());
        exit(1);
    }
    control_mode = static_cast<unsigned int>(value);
}

}  // namespace vostrelka
