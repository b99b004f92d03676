#pragma once
// Builds a NetDevice from an interface description string:
//   type "://" param ":" param ... "/" address
// and keeps a record of every serial port it opened, for the main loop to
// reopen lost ones.
#include <memory>
#include <string>
#include <vector>

#include "vostrelka/net_device/NetDevice.h"
#include "vostrelka/net_device/net_device_parse.h"

namespace vostrelka {
namespace drivers {
class SerialLine;
}
namespace net_device {

class NetDeviceFactory {
public:
    struct InterfaceDescription {
        std::string type;
        std::vector<std::string> params;
        int address = 0;
    };

    NetDeviceFactory();

    // The types the builders below make, for the texts that list them.
    static constexpr const char* SUPPORTED_TYPES = "serial, can, udp, udpserial";

    // 0, or -1 when the text is not a description.
    int parse_interface_desc(const std::string& desc, InterfaceDescription& out);
    // Whether `desc` has a supported type and one of that type's parameter
    // counts. When not, and `error` is given, one line for a user:
    // "unsupported interface type ..." or the form the type takes.
    static bool check_params(const InterfaceDescription& desc, std::string* error = nullptr);

    // The rest is defined by the platform, which knows the devices: this
    // portable half includes none of their headers.
    // Null (after a log line where one is due) when no device can be made.
    std::unique_ptr<NetDevice> make_net_device(const std::string& desc);
    // For a description without its address: appends "/" and `address`.
    std::unique_ptr<NetDevice> make_net_device(const std::string& desc, unsigned char address);
    // One builder per type; null when the parameters do not fit.
    std::unique_ptr<NetDevice> make_net_device_serial(InterfaceDescription& desc);
    std::unique_ptr<NetDevice> make_net_device_can(InterfaceDescription& desc);
    std::unique_ptr<NetDevice> make_net_device_udp(InterfaceDescription& desc);
    std::unique_ptr<NetDevice> make_net_device_udpserial(InterfaceDescription& desc);

    // Every serial line the factory made, opened or not, for the main loop
    // to supervise (the platform's SerialLine).
    std::vector<std::shared_ptr<drivers::SerialLine>>& serial_ports() { return serial_port_records; }
    const std::vector<std::shared_ptr<drivers::SerialLine>>& serial_ports() const { return serial_port_records; }

private:
    std::vector<std::shared_ptr<drivers::SerialLine>> serial_port_records;
};

}  // namespace net_device
}  // namespace vostrelka
