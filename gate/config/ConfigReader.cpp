// The configuration file, field by field, in the order the gateway has
// always read it: "ifaces", "local_peers", "manet_peers", then each
// interface's "rfmodem_config" (its address comes from the MANet peers),
// then "control", and last the count of MANet interfaces.
//
// Whatever the JSON library or a number conversion throws is caught here
// and kept in the error: the gateway rethrows it where it used to be thrown,
// the checker reports it.
#include "ConfigReader.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "JsonNumber.h"
#include "vostrelka/net_device/NetDeviceFactory.h"
#include "vostrelka/net_device/net_device_parse.h"

namespace vostrelka {

namespace {

using json = nlohmann::json;

constexpr size_t MAX_INTERFACES = 32;
constexpr const char* DEFAULT_CONTROL_MODE = "0660";
constexpr unsigned long MAX_CONTROL_MODE = 07777;

std::string format(const char* pattern, unsigned long value) {
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

// The kinds whose devices are UDP sockets: their peers carry a socket
// address, and a fixed port is theirs alone.
bool datagram_kind(const std::string& kind) {
    const net_device::TransportKind* found = net_device::NetDeviceFactory::find_kind(kind);
    return found != nullptr && found->udp;
}

GateConfig::Iface describe(const std::string& where, const std::string& description, uint32_t id) {
    GateConfig::Iface iface;
    iface.where = where;
    iface.description = description;
    iface.id = id;
    net_device::NetDeviceFactory::InterfaceDescription parsed;
    // The address does not matter here; the gateway builds with 255.
    if (net_device::NetDeviceFactory().parse_interface_desc(description + "/255", parsed) != 0) return iface;
    iface.kind = parsed.type;
    iface.params = parsed.params;
    iface.datagram = datagram_kind(parsed.type);
    if (iface.datagram && parsed.params.size() >= 2) {
        const char* port_text = parsed.params[1].c_str();
        char* end = nullptr;
        // Cut to 16 bits as the factory does; port 0 (any free port) is
        // never the same as another.
        const auto port = static_cast<uint16_t>(std::strtoul(port_text, &end, 10));
        if (end != port_text && port != 0) iface.fixed_listen = InetAddress::from(parsed.params[0], port);
    }
    return iface;
}

// "1:13" for the byte the parser stopped at (counted from 1).
std::string line_and_column(const std::string& text, size_t byte) {
    const size_t at = std::min(byte > 0 ? byte - 1 : 0, text.size());
    const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(at), '\n');
    const size_t newline = at == 0 ? std::string::npos : text.rfind('\n', at - 1);
    const size_t column = newline == std::string::npos ? at + 1 : at - newline;
    return std::to_string(line) + ":" + std::to_string(column);
}

// The library's parse message without its own position prefix.
std::string parse_message(const char* what) {
    const std::string message = what;
    const size_t column = message.find(", column ");
    const size_t start = column == std::string::npos ? std::string::npos : message.find(": ", column);
    return start == std::string::npos ? message : message.substr(start + 2);
}

class Reader {
public:
    Reader(const ConfigReadOptions& options, ConfigReading& out) : options(options), out(out) {}

    void read(const std::string& text) {
        json root;
        try {
            root = json::parse(text);
        } catch (const json::parse_error& e) {
            fail_library(line_and_column(text, e.byte), parse_message(e.what()));
            return;
        } catch (const std::exception& e) {
            fail_library("", e.what());
            return;
        }
        warn_unknown(root, "", {"ifaces", "local_peers", "manet_peers", "control"});
        const auto ifaces = root.find("ifaces");
        if (!root.is_object() || ifaces == root.end()) {
            fail("", "missing \"ifaces\" entry in config file", true);
            return;
        }
        if (!read_ifaces(*ifaces)) return;
        const auto local_peers = root.find("local_peers");
        if (local_peers != root.end() && !each_entry(*local_peers, "local_peers", &Reader::read_local_peer)) return;
        const auto manet_peers = root.find("manet_peers");
        if (manet_peers != root.end() && !each_entry(*manet_peers, "manet_peers", &Reader::read_manet_peer)) return;
        if (!read_rfmodems(*ifaces)) return;
        const auto control = root.find("control");
        if (control != root.end() && !read_control(*control)) return;
        check_manet_ifaces();
    }

private:
    bool fail(const std::string& where, const std::string& message, bool whole_file = false) {
        ConfigError& error = out.error.emplace();
        error.where = where;
        error.message = message;
        error.whole_file = whole_file;
        return false;
    }

    // Inside a catch block: the exception in flight is what ends the gateway.
    bool fail_library(const std::string& where, const std::string& message) {
        fail(where, message);
        out.error->gate_line = false;
        out.error->exception = std::current_exception();
        return false;
    }

    void warn(const std::string& where, const std::string& message) {
        if (options.warn) out.warnings.push_back({where, message});
    }

    // Keys starting with "_" are notes; any other key not in `known` is
    // ignored by the gateway, so probably a typing mistake.
    void warn_unknown(const json& object, const std::string& where, std::initializer_list<const char*> known) {
        if (!options.warn || !object.is_object()) return;
        for (const auto& item : object.items()) {
            const std::string& key = item.key();
            if (key.empty() || key[0] == '_') continue;
            if (std::any_of(known.begin(), known.end(), [&](const char* name) { return key == name; })) continue;
            std::string message = "unknown key \"" + key + "\" is ignored";
            for (const char* name : known) {
                if (strcasecmp(name, key.c_str()) == 0)
                    message += "; keys are case-sensitive: \"" + std::string(name) + "\"";
            }
            warn(where.empty() ? key : where + "." + key, message);
        }
    }

    // `object[key]`, or the gateway's error for a missing field.
    const json* field(const json& object, const char* key, const std::string& where) {
        if (object.is_object()) {
            const auto found = object.find(key);
            if (found != object.end()) return &*found;
        }
        fail(where + "." + key, "missing \"" + std::string(key) + "\" field");
        return nullptr;
    }

    template <typename T>
    bool number(const json& object, const char* key, const std::string& where, T& value) {
        const json* node = field(object, key, where);
        if (node == nullptr) return false;
        try {
            value = json_number<T>(*node);
            return true;
        } catch (const std::exception&) {
            return fail_library(where + "." + key, node->is_number()
                                                       ? "number out of range of its field: " + node->dump()
                                                       : std::string("must be a number, not ") + node->type_name());
        }
    }

    bool text(const json& object, const char* key, const std::string& where, std::string& value) {
        const json* node = field(object, key, where);
        if (node == nullptr) return false;
        try {
            value = node->get<std::string>();
            return true;
        } catch (const std::exception&) {
            return fail_library(where + "." + key, std::string("must be a string, not ") + node->type_name());
        }
    }

    // A conversion of the standard library: what it throws ends the gateway.
    template <typename Convert>
    bool convert(const std::string& where, const std::string& value, Convert&& conversion) {
        try {
            conversion();
            return true;
        } catch (const std::out_of_range&) {
            return fail_library(where, "\"" + value + "\" is out of range");
        } catch (const std::exception&) {
            return fail_library(where, "\"" + value + "\" is not a number");
        }
    }

    bool local_address(const json& entry, const std::string& where, uint8_t& addr) {
        std::string value;
        return text(entry, "netdev_addr", where, value) && convert(where + ".netdev_addr", value, [&] {
                   addr = static_cast<uint8_t>(net_device::parse_device_address(value));
               });
    }

    // The gateway walks each peer list with a range-for: an array entry by
    // entry, an object value by value, null as nothing, anything else as
    // its one entry.
    bool each_entry(const json& node, const std::string& where,
                    bool (Reader::*read_entry)(const json&, const std::string&)) {
        if (node.is_array()) {
            for (size_t i = 0; i < node.size(); i++) {
                if (!(this->*read_entry)(node[i], where + "[" + std::to_string(i) + "]")) return false;
            }
            return true;
        }
        if (!node.is_null()) warn(where, "is not an array of entries");
        if (node.is_object()) {
            for (const auto& item : node.items()) {
                if (!(this->*read_entry)(item.value(), where + "." + item.key())) return false;
            }
            return true;
        }
        return node.is_null() || (this->*read_entry)(node, where);
    }

    const GateConfig::Iface* find_iface(const json& entry, const std::string& where) {
        uint32_t id = 0;
        if (!number(entry, "iface_id", where, id)) return nullptr;
        for (const GateConfig::Iface& iface : out.config.ifaces) {
            if (iface.id == id) return &iface;
        }
        fail(where + ".iface_id", format("iface with id %lu not found", id));
        return nullptr;
    }

    bool read_ifaces(const json& entries) {
        if (!entries.is_array()) return fail("ifaces", "\"ifaces\" node is not an array", true);
        for (size_t i = 0; i < entries.size(); i++) {
            const json& entry = entries[i];
            const std::string where = "ifaces[" + std::to_string(i) + "]";
            std::string description;
            uint32_t id = 0;
            if (!text(entry, "iface", where, description) || !number(entry, "id", where, id)) return false;
            warn_unknown(entry, where, {"iface", "id", "type", "rfmodem_config"});
            GateConfig::Iface iface = describe(where, description, id);

            // Two sockets of ours on one address would split its senders
            // between them without a word.
            if (iface.fixed_listen) {
                for (const GateConfig::Iface& other : out.config.ifaces) {
                    if (other.fixed_listen &&
                        other.fixed_listen->addr.sin_addr.s_addr == iface.fixed_listen->addr.sin_addr.s_addr &&
                        other.fixed_listen->addr.sin_port == iface.fixed_listen->addr.sin_port) {
                        return fail(where + ".iface",
                                    "local address " + iface.fixed_listen->to_s() + " is configured on two interfaces");
                    }
                }
            }
            // Here the gateway builds the device.
            if (options.device_problem) {
                if (const std::optional<std::string> problem = options.device_problem(iface)) {
                    fail(where + ".iface", "parse \"iface\" field: " + description + ": " + *problem);
                    out.error->gate_line = false;
                    return false;
                }
            }
            // Found after the device is made, so a bad description is
            // reported even on an entry with a duplicate id.
            const bool duplicate = std::any_of(out.config.ifaces.begin(), out.config.ifaces.end(),
                                               [&](const GateConfig::Iface& other) { return other.id == id; });
            if (duplicate || out.config.ifaces.size() >= MAX_INTERFACES) {
                if (duplicate) {
                    fail(where + ".id", format("duplicate device id %lu", id), true);
                } else {
                    fail(where, format("more than %lu interfaces", MAX_INTERFACES), true);
                    out.error->gate_line = false;
                }
                out.error->device_first = description;
                return false;
            }

            const auto type = entry.find("type");
            iface.manet = type != entry.end() && *type == "manet";
            if (type != entry.end() && !iface.manet && *type != "local") {
                warn(where + ".type", type->dump() + " makes a local interface; only \"manet\" makes the MANet one");
            }
            out.config.ifaces.push_back(std::move(iface));
        }
        return true;
    }

    // A peer's "inet_addr" in `value` when its interface is a UDP one; on
    // another kind it is not read (a warning when given) and `value` stays
    // empty. False on an error.
    bool inet_text(const json& entry, const std::string& where, const GateConfig::Iface& iface,
                   std::optional<std::string>& value) {
        if (iface.datagram) return text(entry, "inet_addr", where, value.emplace());
        if (entry.contains("inet_addr")) {
            warn(where + ".inet_addr", "is not read: iface " + std::to_string(iface.id) + " is not a UDP interface");
        }
        return true;
    }

    bool read_local_peer(const json& entry, const std::string& where) {
        GateConfig::LocalPeer peer;
        peer.where = where;
        if (!local_address(entry, where, peer.addr)) return false;
        const GateConfig::Iface* iface = find_iface(entry, where);
        if (iface == nullptr) return false;
        peer.iface_id = iface->id;
        warn_unknown(entry, where, {"netdev_addr", "iface_id", "inet_addr"});
        std::optional<std::string> inet;
        if (!inet_text(entry, where, *iface, inet)) return false;
        if (inet) {
            peer.inet_addr = InetAddress::from(*inet);
            if (!peer.inet_addr) return fail(where + ".inet_addr", "failed to parse inet address: " + *inet);
        }

        // The gateway's table takes a peer again on another interface or
        // address (the later entry wins) and refuses the same one twice.
        const auto latest = std::find_if(out.config.local_peers.rbegin(), out.config.local_peers.rend(),
                                         [&](const GateConfig::LocalPeer& other) { return other.addr == peer.addr; });
        if (latest != out.config.local_peers.rend()) {
            if (latest->iface_id == peer.iface_id && latest->inet_addr.has_value() == peer.inet_addr.has_value() &&
                (!peer.inet_addr || *latest->inet_addr == *peer.inet_addr)) {
                return fail(where, format("duplicate local peer: 0x%02lX", peer.addr));
            }
            warn(where, "replaces " + latest->where + ", which has the same address");
        }
        out.config.local_peers.push_back(std::move(peer));
        return true;
    }

    bool read_manet_peer(const json& entry, const std::string& where) {
        GateConfig::MANetPeer peer;
        peer.where = where;
        std::string manet_text;
        if (!text(entry, "manet_addr", where, manet_text)) return false;
        // "0x..." in base 16 (the conversion consumes the prefix), anything
        // else in base 10, even with "0x" further in.
        if (!convert(where + ".manet_addr", manet_text, [&] {
                const bool hex = manet_text.compare(0, 2, "0x") == 0;
                peer.manet_addr = static_cast<uint32_t>(std::stoul(manet_text, nullptr, hex ? 16 : 10));
            })) {
            return false;
        }
        if (!local_address(entry, where, peer.addr)) return false;
        const GateConfig::Iface* iface = find_iface(entry, where);
        if (iface == nullptr) return false;
        peer.iface_id = iface->id;
        warn_unknown(entry, where, {"manet_addr", "netdev_addr", "iface_id", "inet_addr"});
        std::optional<std::string> inet;
        if (!inet_text(entry, where, *iface, inet)) return false;
        if (inet) {
            peer.host_port = HostPort::from(*inet);
            if (!peer.host_port) return fail(where + ".inet_addr", "failed to parse inet address " + *inet);
        }

        // As the gateway's table: on one interface, a peer given by another
        // host name replaces the link; the same one, or any second link
        // without a name, is a duplicate.
        std::vector<GateConfig::MANetPeer>& links = manet_links[peer.manet_addr];
        for (auto link = links.begin(); link != links.end();) {
            if (link->iface_id != peer.iface_id) {
                ++link;
                continue;
            }
            if (!peer.host_port || (link->host_port && host_text(*link->host_port) == host_text(*peer.host_port))) {
                return fail(where, format("duplicate MANet peer: 0x%08lX", peer.manet_addr));
            }
            warn(where, "replaces " + link->where + ", which has the same MANet address on the same interface");
            link = links.erase(link);
        }
        links.push_back(peer);
        out.config.manet_peers.push_back(std::move(peer));
        return true;
    }

    static std::string host_text(const HostPort& host_port) { return host_port.host + ":" + host_port.port_str; }

    bool read_rfmodems(const json& ifaces) {
        for (size_t i = 0; i < ifaces.size(); i++) {
            const auto config = ifaces[i].find("rfmodem_config");
            if (config == ifaces[i].end()) continue;
            const std::string where = out.config.ifaces[i].where + ".rfmodem_config";
            // Deliberate: without a MANet peer the modem is not configured at all.
            if (manet_links.empty()) {
                warn(where, "is not used: no MANet peer is configured, so the modem gets no address");
                continue;
            }
            GateConfig::RFModem modem;
            modem.where = where;
            modem.iface_id = out.config.ifaces[i].id;
            modem.addr = manet_links.begin()->first;
            unsigned int channel = 0;
            if (!number(*config, "channel", where, channel) || !number(*config, "power", where, modem.power)) {
                return false;
            }
            modem.channel = static_cast<uint8_t>(channel);
            warn_unknown(*config, where, {"channel", "power"});
            out.config.rfmodems.push_back(modem);
        }
        return true;
    }

    bool read_control(const json& node) {
        GateConfig::Control control;
        if (!text(node, "path", "control", control.path)) return false;
        std::string mode = DEFAULT_CONTROL_MODE;
        if (node.contains("mode") && !text(node, "mode", "control", mode)) return false;
        warn_unknown(node, "control", {"path", "mode"});
        char* end = nullptr;
        const unsigned long value = std::strtoul(mode.c_str(), &end, 8);
        if (mode.empty() || *end != '\0' || mode.find_first_not_of("01234567") != std::string::npos ||
            value > MAX_CONTROL_MODE) {
            return fail("control.mode", "control socket mode is not an octal file mode: " + mode);
        }
        control.mode = static_cast<unsigned int>(value);
        out.config.control = control;
        return true;
    }

    void check_manet_ifaces() {
        int manet = 0;
        for (const GateConfig::Iface& iface : out.config.ifaces) {
            if (iface.manet && ++manet == 2) {
                fail(iface.where + ".type", "only one MANET interface is supported");
                return;
            }
        }
    }

    const ConfigReadOptions& options;
    ConfigReading& out;
    // The MANet links the gateway's table will hold, by MANet address.
    std::map<uint32_t, std::vector<GateConfig::MANetPeer>> manet_links;
};

}  // namespace

// A device, a FIFO or a directory given by mistake is refused before it is
// opened (opening a serial line can reset the board behind it), and again
// after, in case the path changed in between; the size is checked while
// reading, in case the file grows.
std::optional<std::string> read_config_file(const std::string& path, std::string* why) {
    auto refuse = [why](const std::string& reason) -> std::optional<std::string> {
        if (why) *why = reason;
        return std::nullopt;
    };
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return refuse(std::strerror(errno));
    if (!S_ISREG(status.st_mode)) return refuse("not a regular file");
    // Non-blocking: a FIFO put there in the meantime must not hold the start.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return refuse(std::strerror(errno));
    std::optional<std::string> text;
    std::string reason = "not a regular file";
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
        text.emplace();
        char chunk[64 * 1024];
        for (;;) {
            const ssize_t got = read(fd, chunk, sizeof(chunk));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0 || text->size() + static_cast<size_t>(got) > MAX_CONFIG_FILE_BYTES) {
                reason = got < 0 ? std::strerror(errno) : "larger than 1 MiB";
                text.reset();
                break;
            }
            if (got == 0) break;
            text->append(chunk, static_cast<size_t>(got));
        }
    }
    close(fd);
    if (!text) return refuse(reason);
    return text;
}

ConfigReading read_config(const std::string& text, const ConfigReadOptions& options) {
    ConfigReading reading;
    Reader(options, reading).read(text);
    return reading;
}

}  // namespace vostrelka
