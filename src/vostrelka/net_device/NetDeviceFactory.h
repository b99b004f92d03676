#pragma once
// Builds a NetDevice from an interface description string:
//   type "://" param ":" param ... "/" address
// and keeps a record of every serial port it opened, for the main loop to
// reopen lost ones.
#include <cstddef>
#include <cstdint>
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

struct TransportKind;

class NetDeviceFactory {
public:
    struct InterfaceDescription {
        std::string type;
        std::vector<std::string> params;
        int address = 0;
    };

    NetDeviceFactory();

    // "serial, can, udp, udpserial": the types of TRANSPORT_KINDS, for the
    // texts that list them.
    static const std::string& supported_types();

    // 0, or -1 when the text is not a description.
    int parse_interface_desc(const std::string& desc, InterfaceDescription& out);
    // Whether `desc` has a supported type and one of that type's parameter
    // counts. When not, and `error` is given, one line for a user:
    // "unsupported interface type ..." or the form the type takes.
    static bool check_params(const InterfaceDescription& desc, std::string* error = nullptr);
    // The kind of a type ("udp"), or of a description ("udp://..."); null
    // when it is none of TRANSPORT_KINDS.
    static const TransportKind* find_kind(const std::string& type);
    static const TransportKind* kind_of(const std::string& description);

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

// One kind of transport an interface description names. TRANSPORT_KINDS
// below is the one list of them: the factory, its checks and messages,
// gatecat's usage text and captures, the control socket's "kind" and the
// capture dissector all read it. A new kind is a row here, and its builder
// above and in the platform's BUILDERS.
struct TransportKind {
    const char* type;
    // The parameters as usage texts write them, optional ones in brackets;
    // the parameter counts a description may have follow from it.
    const char* params;
    const char* example;     // a whole description, for error texts
    const char* note;        // what a list of the kinds says beside it
    uint8_t numeric_params;  // bit i set: params[i] must be a number
    bool udp;                // listens on HOST:PORT, sends to DEST_HOST:DEST_PORT
    bool serial_framed;      // frames travel in the serial framing
    // The medium's number in capture files (gatecat -w): files outlive
    // versions, so never renumber.
    uint8_t capture_medium;

    size_t min_params() const;
    size_t max_params() const;
};

inline constexpr TransportKind TRANSPORT_KINDS[] = {
    {"serial", "PATH:BAUD[:STOPBITS]", "serial:///dev/ttyUSB0:115200", "a serial line", 0b110, false, true, 3},
    {"can", "NAME", "can://can0", "a SocketCAN bus", 0, false, false, 4},
    {"udp", "HOST:PORT[:DEST_HOST:DEST_PORT]", "udp://127.0.0.1:5000:127.0.0.1:5001", "one frame per datagram", 0b1010,
     true, false, 1},
    {"udpserial", "HOST:PORT[:DEST_HOST:DEST_PORT]", "udpserial://127.0.0.1:5000:127.0.0.1:5001",
     "serial framing in datagrams", 0b1010, true, true, 2},
};

}  // namespace net_device
}  // namespace vostrelka
