#include "gatecat/InterfaceOpener.h"

#include <algorithm>
#include <vector>

namespace vostrelka {
namespace gatecat {

namespace {

constexpr const char* EVERY_DESTINATION_SUFFIX = "/255";

// The factory reads numbers with the standard conversions, which need a
// digit first; anything after the digits it ignores, and so do we.
bool starts_with_digit(const std::string& text) {
    return !text.empty() && text[0] >= '0' && text[0] <= '9';
}

// "BAUD" of "PATH:BAUD[:STOPBITS]", by position.
std::vector<std::string> param_names(const net_device::TransportKind& kind) {
    std::vector<std::string> names(1);
    for (const char* c = kind.params; *c != '\0'; c++) {
        if (*c == ':') {
            names.emplace_back();
        } else if (*c != '[' && *c != ']') {
            names.back() += *c;
        }
    }
    return names;
}

}  // namespace

std::string InterfaceOpener::with_address(const std::string& iface) {
    // A trailing "/ADDRESS" parses as an address and holds no ':'; the last
    // segment of a description without one is its parameters (or a path
    // with them), which always hold a ':' or do not parse.
    net_device::NetDeviceFactory::InterfaceDescription parsed;
    const size_t last_slash = iface.rfind('/');
    const bool has_address =
        factory.parse_interface_desc(iface, parsed) == 0 && iface.find(':', last_slash) == std::string::npos;
    return has_address ? iface : iface + EVERY_DESTINATION_SUFFIX;
}

bool InterfaceOpener::check(const std::string& iface, bool for_sending, std::string& error) {
    net_device::NetDeviceFactory::InterfaceDescription parsed;
    if (iface.find("://") == std::string::npos || factory.parse_interface_desc(with_address(iface), parsed) != 0) {
        error = "invalid interface description '" + iface +
                "'; expected TYPE://PARAMETERS as in the configuration file, e.g. udp://127.0.0.1:5000";
        return false;
    }
    if (!net_device::NetDeviceFactory::check_params(parsed, &error)) return false;
    // The factory reads the numbers when it opens the device; a tool says
    // what is wrong with them before opening anything.
    const net_device::TransportKind& kind = *net_device::NetDeviceFactory::find_kind(parsed.type);
    const std::vector<std::string> names = param_names(kind);
    for (size_t i = 0; i < parsed.params.size(); i++) {
        if ((kind.numeric_params >> i & 1) != 0 && !starts_with_digit(parsed.params[i])) {
            error = parsed.type + " " + names[i] + " '" + parsed.params[i] + "' is not a number";
            return false;
        }
    }
    if (for_sending && kind.udp && parsed.params.size() != kind.max_params()) {
        std::string form = kind.params;
        form.erase(std::remove_if(form.begin(), form.end(), [](char c) { return c == '[' || c == ']'; }), form.end());
        error = "sending on " + parsed.type + " needs a destination: " + parsed.type + "://" + form;
        return false;
    }
    return true;
}

std::unique_ptr<net_device::NetDevice> InterfaceOpener::open(const std::string& iface) {
    const size_t serial_ports_before = factory.serial_ports().size();
    std::unique_ptr<net_device::NetDevice> device = factory.make_net_device(with_address(iface));
    // The factory hands out a serial device even when its port did not open,
    // for the gateway to reopen later; a tool that runs once has no later.
    if (device && factory.serial_ports().size() > serial_ports_before) {
        const auto& line = factory.serial_ports().back();
        if (!line->get_port()->is_open()) return nullptr;
        serial_line = line;
    }
    return device;
}

bool InterfaceOpener::serial_line_lost() const {
    return serial_line && serial_line->lost();
}

}  // namespace gatecat
}  // namespace vostrelka
