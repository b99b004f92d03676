#include "vostrelka/net_device/NetDeviceFactory.h"

#include <exception>

namespace vostrelka {
namespace net_device {

namespace {

constexpr size_t RESERVED_SERIAL_PORTS = 24;
constexpr const char* TYPE_SEPARATOR = "://";
constexpr size_t TYPE_SEPARATOR_LEN = 3;

std::vector<std::string> split_params(const std::string& text) {
    std::vector<std::string> params;
    size_t start = 0;
    for (;;) {
        const size_t colon = text.find(':', start);
        if (colon == std::string::npos) break;
        params.push_back(text.substr(start, colon - start));
        start = colon + 1;
    }
    params.push_back(text.substr(start));
    return params;
}

// The parameters each type takes: `min_params` or `max_params` of them.
struct ParamsForm {
    const char* type;
    size_t min_params;
    size_t max_params;
    const char* form;
    const char* example;
};

constexpr ParamsForm PARAMS_FORMS[] = {
    {"serial", 2, 3, "PATH:BAUD or PATH:BAUD:STOPBITS", "serial:///dev/ttyUSB0:115200"},
    {"can", 1, 1, "one interface name", "can://can0"},
    {"udp", 2, 4, "HOST:PORT or HOST:PORT:DEST_HOST:DEST_PORT", "udp://127.0.0.1:5000:127.0.0.1:5001"},
    {"udpserial", 2, 4, "HOST:PORT or HOST:PORT:DEST_HOST:DEST_PORT", "udpserial://127.0.0.1:5000:127.0.0.1:5001"},
};

}  // namespace

NetDeviceFactory::NetDeviceFactory() {
    serial_port_records.reserve(RESERVED_SERIAL_PORTS);
}

// The type ends at the first "://", the address starts after the last '/',
// so a serial path may contain slashes. The parameter text is what lies
// between "://" and that slash; it must not be empty.
int NetDeviceFactory::parse_interface_desc(const std::string& desc, InterfaceDescription& out) {
    const size_t type_end = desc.find(TYPE_SEPARATOR);
    if (type_end == std::string::npos) return -1;
    const size_t last_slash = desc.rfind('/');
    if (last_slash == std::string::npos) return -1;

    const std::string address_text = desc.substr(last_slash + 1);
    int address = 0;
    try {
        address = parse_device_address(address_text);
    } catch (const std::exception&) {
        return -1;
    }

    const size_t overhead = type_end + address_text.size() + TYPE_SEPARATOR_LEN + 1;
    if (overhead >= desc.size()) return -1;

    out.type = desc.substr(0, type_end);
    out.params = split_params(desc.substr(type_end + TYPE_SEPARATOR_LEN, desc.size() - overhead));
    out.address = address;
    return 0;
}

bool NetDeviceFactory::check_params(const InterfaceDescription& desc, std::string* error) {
    for (const ParamsForm& form : PARAMS_FORMS) {
        if (desc.type != form.type) continue;
        const size_t count = desc.params.size();
        if (count == form.min_params || count == form.max_params) return true;
        if (error) *error = desc.type + " takes " + form.form + ", e.g. " + form.example;
        return false;
    }
    if (error) *error = "unsupported interface type '" + desc.type + "'; supported types: " + SUPPORTED_TYPES;
    return false;
}

}  // namespace net_device
}  // namespace vostrelka
