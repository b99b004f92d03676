// The half of NetDeviceFactory that knows this platform's devices: it
// builds one from a description the portable half has parsed.
#include <cstdint>
#include <exception>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "vostrelka/InetAddress.h"
#include "vostrelka/NetDeviceSerial.h"
#include "vostrelka/SerialLine.h"
#include "vostrelka/SerialPort.h"
#include "vostrelka/debug.h"
#include "vostrelka/net_device/NetDeviceFactory.h"
#include "vostrelka/net_device_can/NetDeviceCan.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

namespace vostrelka {
namespace net_device {

namespace {

constexpr unsigned long UDP_BUFFER_SIZE = 2048;

// A port number as typed: unsigned-long rules, then its low 16 bits, so
// 65537 is port 1. Throws what std::stoul throws.
uint16_t parse_port(const std::string& text) {
    return static_cast<uint16_t>(std::stoul(text));
}

// The endpoint in params[first] (host) and params[first + 1] (port), or
// empty after the line for what is wrong with it: `port_error` (port text,
// reason) or `address_error` (host, port).
std::optional<InetAddress> parse_endpoint(const std::vector<std::string>& params, size_t first, const char* port_error,
                                          const char* address_error) {
    const std::string& host = params[first];
    uint16_t port = 0;
    try {
        port = parse_port(params[first + 1]);
    } catch (const std::exception& e) {
        debug(port_error, params[first + 1].c_str(), e.what());
        return std::nullopt;
    }
    std::optional<InetAddress> address = InetAddress::from(host, port);
    if (!address) debug(address_error, host.c_str(), static_cast<unsigned int>(port));
    return address;
}

// Listen host and port, then optionally destination host and port. Without
// a destination the owner sets one before each send.
template <typename T>
std::unique_ptr<NetDevice> make_udp_device(const NetDeviceFactory::InterfaceDescription& desc) {
    if (!NetDeviceFactory::check_params(desc)) return nullptr;
    auto device = std::make_unique<T>(UDP_BUFFER_SIZE, static_cast<uint8_t>(desc.address));

    const std::optional<InetAddress> listen_address =
        parse_endpoint(desc.params, 0, "ERROR: parse listen port %s: %s",
                       "ERROR: failed to create inet address from host/port. %s : %u");
    if (!listen_address) return nullptr;
    if (!device->create_socket(*listen_address)) {
        debug("ERROR: create socket on address %s:%u", desc.params[0].c_str(),
              static_cast<unsigned int>(listen_address->port));
        return nullptr;
    }

    if (desc.params.size() == 4) {
        const std::optional<InetAddress> destination =
            parse_endpoint(desc.params, 2, "ERROR: parse destination port %s: %s",
                           "ERROR: failed to create destination address from %s : %u");
        if (!destination) return nullptr;
        device->set_destination_address(*destination);
    }
    return device;
}

// The builder of each row of TRANSPORT_KINDS, in its order. Kept here, not
// in the table, so that the portable library does not need this one.
// Plain functions rather than member pointers, which the undefined-behaviour
// checks misread as a virtual table index.
using Description = NetDeviceFactory::InterfaceDescription;
using Builder = std::unique_ptr<NetDevice> (*)(NetDeviceFactory&, Description&);
constexpr Builder BUILDERS[] = {
    [](NetDeviceFactory& factory, Description& desc) { return factory.make_net_device_serial(desc); },
    [](NetDeviceFactory& factory, Description& desc) { return factory.make_net_device_can(desc); },
    [](NetDeviceFactory& factory, Description& desc) { return factory.make_net_device_udp(desc); },
    [](NetDeviceFactory& factory, Description& desc) { return factory.make_net_device_udpserial(desc); },
};
static_assert(std::size(BUILDERS) == std::size(TRANSPORT_KINDS), "a builder for every transport kind");

}  // namespace

std::unique_ptr<NetDevice> NetDeviceFactory::make_net_device(const std::string& desc) {
    InterfaceDescription parsed;
    if (parse_interface_desc(desc, parsed) != 0) {
        debug("ERROR: invalid interface description");
        return nullptr;
    }
    if (const TransportKind* kind = find_kind(parsed.type)) return BUILDERS[kind - TRANSPORT_KINDS](*this, parsed);
    debug("ERROR: unsupported interface type \"%s\", supported types: %s", parsed.type.c_str(),
          supported_types().c_str());
    return nullptr;
}

std::unique_ptr<NetDevice> NetDeviceFactory::make_net_device(const std::string& desc, unsigned char address) {
    return make_net_device(desc + "/" + std::to_string(static_cast<int>(address)));
}

// A port that fails to open still gets its device and its record: the main
// loop reopens it when the path appears.
std::unique_ptr<NetDevice> NetDeviceFactory::make_net_device_serial(InterfaceDescription& desc) {
    if (!check_params(desc)) return nullptr;
    const std::string& path = desc.params[0];

    int stop_bits = 1;
    if (desc.params.size() == 3) {
        try {
            stop_bits = std::stoi(desc.params[2]);
        } catch (const std::exception& e) {
            debug("ERROR: parse serial stop bits: %s", e.what());
            return nullptr;
        }
    }

    long baud_rate = 0;
    try {
        baud_rate = std::stol(desc.params[1]);
    } catch (const std::exception& e) {
        debug("ERROR: parse serial baudrate: %s", e.what());
        return nullptr;
    }

    auto port = std::make_shared<drivers::SerialPort>();
    serial_port_records.push_back(std::make_shared<drivers::SerialLine>(port, stop_bits, baud_rate, path));
    serial_port_records.back()->open();
    return std::make_unique<NetDeviceSerialAlloc<2048, 2048>>(*port, static_cast<uint8_t>(desc.address));
}

std::unique_ptr<NetDevice> NetDeviceFactory::make_net_device_can(InterfaceDescription& desc) {
    if (!check_params(desc)) return nullptr;
    const std::string& ifname = desc.params[0];
    auto device = std::make_unique<NetDeviceCanAlloc<16, 2048, 512>>(ifname, static_cast<uint8_t>(desc.address));
    if (device->open() != 0) {
        debug("ERROR: failed to open CAN device: %s", ifname.c_str());
        return nullptr;
    }
    return device;
}

std::unique_ptr<NetDevice> NetDeviceFactory::make_net_device_udp(InterfaceDescription& desc) {
    return make_udp_device<NetDeviceUDP>(desc);
}

std::unique_ptr<NetDevice> NetDeviceFactory::make_net_device_udpserial(InterfaceDescription& desc) {
    return make_udp_device<NetDeviceUDPSerial>(desc);
}

}  // namespace net_device
}  // namespace vostrelka
