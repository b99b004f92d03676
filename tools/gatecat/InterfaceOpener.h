#pragma once
// Opens one interface for gatecat through the gateway's own device factory,
// so that every description the configuration file accepts works here too.
//
// Descriptions come as the configuration file writes them, without the
// device's address: the device then gets address 0xFF and takes frames for
// every destination, which is what a dump wants. A description that ends in
// "/ADDRESS" keeps that address, and a dump then shows only what a device
// with that address would receive.
#include <memory>
#include <string>

#include "vostrelka/SerialLine.h"
#include "vostrelka/net_device/NetDevice.h"
#include "vostrelka/net_device/NetDeviceFactory.h"

namespace vostrelka {
namespace gatecat {

class InterfaceOpener {
public:
    // Checks the form of `iface` without opening anything: its type, the
    // number of its parameters and that its numbers are numbers. A device
    // that sends needs a destination, which "udp" and "udpserial" take from
    // their third and fourth parameters. False with a one-line `error`.
    bool check(const std::string& iface, bool for_sending, std::string& error);

    // Builds and opens the device; null when it cannot be opened, after the
    // factory has logged why. Call check() first.
    std::unique_ptr<net_device::NetDevice> open(const std::string& iface);

    // Whether the serial line opened last has gone: its adapter unplugged or
    // its far end hung up. Always false for other interfaces.
    bool serial_line_lost() const;

private:
    // The description with its address, as the factory takes it.
    std::string with_address(const std::string& iface);

    net_device::NetDeviceFactory factory;
    std::shared_ptr<drivers::SerialLine> serial_line;
};

}  // namespace gatecat
}  // namespace vostrelka
