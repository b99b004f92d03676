// Host/port texts as they come from configuration files and service messages.
#include <cstdint>
#include <string>

#include "vostrelka/HostPort.h"
#include "vostrelka/InetAddress.h"

using namespace vostrelka;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    const std::optional<HostPort> host_port = HostPort::from(text);
    if (host_port) {
        // The parts always rebuild the text they came from.
        if (host_port->host + ":" + host_port->port_str != text) __builtin_trap();
        if (host_port->host.empty()) __builtin_trap();
    }
    const std::optional<InetAddress> address = InetAddress::from(text);
    if (address) {
        if (!host_port || address->to_s() != text) __builtin_trap();
        if (address->addr.sin_family != AF_INET) __builtin_trap();
        // Back through the socket-address path: same number, dotted text.
        sockaddr_in copy = address->addr;
        std::optional<InetAddress> again = InetAddress::from(*reinterpret_cast<sockaddr*>(&copy));
        if (!again || again->port != address->port) __builtin_trap();
    }
    const uint16_t port = size >= 2 ? static_cast<uint16_t>(data[0] | data[1] << 8) : 0;
    const std::optional<InetAddress> from_parts = InetAddress::from(text, port);
    if (from_parts && from_parts->port != port) __builtin_trap();
    return 0;
}
