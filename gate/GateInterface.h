#pragma once
// One interface of the gateway as configured: its id, its role and its
// device. The gateway owns them; peer records point at them, which is safe
// because interfaces are never removed while the gateway runs.
#include <cstdint>
#include <memory>
#include <string>

namespace vostrelka {

namespace net_device {
class NetDevice;
class NetDeviceUDP;
}  // namespace net_device

struct GateInterface {
    // Roles: a link to local devices, or a link to other gateways.
    static constexpr uint8_t LOCAL = 0;
    static constexpr uint8_t MANET = 1;

    uint32_t id = 0;
    uint8_t type = LOCAL;  // LOCAL, MANET; anything else is inert
    std::shared_ptr<net_device::NetDevice> net_device;
    std::string description;  // as configured: "udp://..."

    // `net_device` seen as a UDP device ("udp", "udpserial"), or null;
    // filled by Gate::add_interface() so that routing pays no cast per frame.
    net_device::NetDeviceUDP* udp = nullptr;
};

}  // namespace vostrelka
