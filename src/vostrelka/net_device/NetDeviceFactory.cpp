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

}  // namespace net_device
}  // namespace vostrelka
