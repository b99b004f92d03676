#include "vostrelka/net_device/NetDeviceFactory.h"

#include <algorithm>
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

bool NetDeviceFactory::check_params(const InterfaceDescription& desc, std::string* error) {
    const TransportKind* kind = find_kind(desc.type);
    if (kind == nullptr) {
        if (error) *error = "unsupported interface type '" + desc.type + "'; supported types: " + supported_types();
        return false;
    }
    const size_t count = desc.params.size();
    if (count == kind->min_params() || count == kind->max_params()) return true;
    if (error) *error = desc.type + " takes " + kind->params + ", e.g. " + kind->example;
    return false;
}

const TransportKind* NetDeviceFactory::find_kind(const std::string& type) {
    for (const TransportKind& kind : TRANSPORT_KINDS) {
        if (type == kind.type) return &kind;
    }
    return nullptr;
}

const TransportKind* NetDeviceFactory::kind_of(const std::string& description) {
    return find_kind(description.substr(0, description.find(TYPE_SEPARATOR)));
}

const std::string& NetDeviceFactory::supported_types() {
    static const std::string TYPES = [] {
        std::string types;
        for (const TransportKind& kind : TRANSPORT_KINDS) types += (types.empty() ? "" : ", ") + std::string(kind.type);
        return types;
    }();
    return TYPES;
}

// "A:B[:C:D]": A and B always, C and D together or not at all.
size_t TransportKind::min_params() const {
    const std::string form(params);
    const size_t optional = form.find('[');
    return std::count(form.begin(), optional == std::string::npos ? form.end() : form.begin() + optional, ':') + 1;
}

size_t TransportKind::max_params() const {
    const std::string form(params);
    return std::count(form.begin(), form.end(), ':') + 1;
}

}  // namespace net_device
}  // namespace vostrelka
