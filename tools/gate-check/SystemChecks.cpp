#include "SystemChecks.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>

#include "vostrelka/InetAddress.h"
#include "vostrelka/net_device/NetDeviceFactory.h"

namespace vostrelka {
namespace gate_check {

namespace {

using Factory = net_device::NetDeviceFactory;

// A host and port as the factory reads them: the port by unsigned-long
// rules (cut to 16 bits), the host as a numeric IPv4 address.
std::optional<std::string> endpoint_problem(const std::string& host, const std::string& port_text, const char* what) {
    unsigned long port = 0;
    try {
        port = std::stoul(port_text);
    } catch (const std::exception&) {
        return std::string(what) + " port \"" + port_text + "\" is not a number";
    }
    if (!InetAddress::from(host, static_cast<uint16_t>(port))) {
        return std::string(what) + " host \"" + host + "\" is not a numeric IPv4 address";
    }
    return std::nullopt;
}

std::optional<std::string> integer_problem(const std::string& text, const char* what) {
    try {
        (void)std::stol(text);
        return std::nullopt;
    } catch (const std::exception&) {
        return std::string(what) + " \"" + text + "\" is not a number";
    }
}

bool exists(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

// Whether a socket in /proc/net/udp or /proc/net/udp6 is bound where `address`
// would be: the same port on the same address or on a wildcard one.
bool udp_address_held(const InetAddress& address) {
    const uint32_t wanted = address.addr.sin_addr.s_addr;
    const unsigned int port = ntohs(address.addr.sin_port);
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        FILE* file = std::fopen(table, "re");
        if (file == nullptr) continue;
        char line[512];
        bool held = false;
        while (!held && std::fgets(line, sizeof line, file) != nullptr) {
            char local[33] = {};
            unsigned int local_port = 0;
            if (std::sscanf(line, " %*u: %32[0-9A-Fa-f]:%x", local, &local_port) != 2 || local_port != port) continue;
            uint32_t bound = 0;
            const size_t length = std::strlen(local);
            if (length == 8) {
                bound = static_cast<uint32_t>(std::strtoul(local, nullptr, 16));
            } else if (length == 32 && std::strncmp(local, "0000000000000000FFFF0000", 24) == 0) {
                bound = static_cast<uint32_t>(std::strtoul(local + 24, nullptr, 16));  // ::ffff:a.b.c.d
            } else if (length != 32 || std::strspn(local, "0") != 32) {
                continue;  // another IPv6 address than ::
            }
            held = bound == wanted || bound == 0 || wanted == 0;
        }
        std::fclose(file);
        if (held) return true;
    }
    return false;
}

}  // namespace

std::optional<std::string> description_problem(const GateConfig::Iface& iface) {
    if (iface.kind.empty()) return std::string("not of the form TYPE://PARAMETERS");
    const Factory::InterfaceDescription parsed{iface.kind, iface.params, 0};
    std::string error;
    if (!Factory::check_params(parsed, &error)) return error;
    const std::vector<std::string>& params = iface.params;
    if (iface.datagram) {
        if (auto problem = endpoint_problem(params[0], params[1], "listen")) return problem;
        if (params.size() == 4) return endpoint_problem(params[2], params[3], "destination");
    } else if (iface.kind == "serial") {
        if (params.size() == 3) {
            if (auto problem = integer_problem(params[2], "stop bits")) return problem;
        }
        return integer_problem(params[1], "baud rate");
    }
    return std::nullopt;
}

std::vector<ConfigWarning> system_warnings(const GateConfig& config) {
    std::vector<ConfigWarning> warnings;
    for (const GateConfig::Iface& iface : config.ifaces) {
        const std::string where = iface.where + ".iface";
        if (iface.kind == "serial" && !exists(iface.params[0])) {
            warnings.push_back(
                {where, "serial port " + iface.params[0] +
                            " does not exist; the gateway starts without it and opens it when it appears"});
        } else if (iface.kind == "can" && !exists("/sys/class/net/" + iface.params[0])) {
            warnings.push_back(
                {where, "CAN interface " + iface.params[0] + " does not exist; the gateway will not start"});
        } else if (iface.fixed_listen && udp_address_held(*iface.fixed_listen)) {
            warnings.push_back({where, iface.fixed_listen->to_s() +
                                           " is already bound by another socket; the two will share its datagrams"});
        }
    }
    return warnings;
}

}  // namespace gate_check
}  // namespace vostrelka
