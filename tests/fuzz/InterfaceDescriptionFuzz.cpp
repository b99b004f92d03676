// Interface description strings as they come from the configuration file.
// Only the parser runs: building a device would open files and sockets.
#include <cstdint>
#include <string>

#include "vostrelka/net_device/NetDeviceFactory.h"

using vostrelka::net_device::NetDeviceFactory;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static NetDeviceFactory factory;
    const std::string text(reinterpret_cast<const char*>(data), size);
    NetDeviceFactory::InterfaceDescription description;
    if (factory.parse_interface_desc(text, description) != 0) return 0;

    // What parsed must lie inside the text: type "://" params "/" address.
    const size_t scheme = text.find("://");
    if (scheme == std::string::npos || description.type != text.substr(0, scheme)) __builtin_trap();
    if (description.params.empty()) __builtin_trap();
    size_t params_length = description.params.size() - 1;  // the ':' separators
    for (const std::string& param : description.params) params_length += param.size();
    if (scheme + 3 + params_length + 1 > text.size()) __builtin_trap();
    if (text[scheme + 3 + params_length] != '/') __builtin_trap();
    return 0;
}
