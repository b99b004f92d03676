#pragma once
// A gateway configuration as read from its file, before anything is opened:
// what the gateway will build, in the order it builds it. The reader
// (ConfigReader.h) makes it; the gateway applies it, the checker prints it.
#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "vostrelka/HostPort.h"
#include "vostrelka/InetAddress.h"

namespace vostrelka {

struct GateConfig {
    // Where an entry or a field is in the file: "ifaces[2]", "ifaces[2].id".
    using Where = std::string;

    struct Iface {
        Where where;
        std::string description;  // "udp://127.0.0.1:7001", without the device address
        uint32_t id = 0;
        bool manet = false;  // "type" is exactly "manet"
        // The description as the factory's parser splits it; empty `kind`
        // when it does not parse (the factory then refuses it).
        std::string kind;
        std::vector<std::string> params;
        // Peers on a datagram interface carry a socket address.
        bool datagram = false;
        // The address a datagram interface listens on, when it names a port.
        std::optional<InetAddress> fixed_listen;
    };

    struct LocalPeer {
        Where where;
        uint8_t addr = 0;
        uint32_t iface_id = 0;
        std::optional<InetAddress> inet_addr;  // datagram interfaces only
    };

    struct MANetPeer {
        Where where;
        uint32_t manet_addr = 0;
        uint8_t addr = 0;
        uint32_t iface_id = 0;
        std::optional<HostPort> host_port;  // datagram interfaces only, resolved later
    };

    // Only made when the file names at least one MANet peer: without one
    // the modem is deliberately left unconfigured.
    struct RFModem {
        Where where;
        uint32_t iface_id = 0;
        uint32_t addr = 0;  // the lowest configured MANet address
        uint8_t channel = 0;
        float power = 0;
    };

    struct Control {
        std::string path;
        unsigned int mode = 0;
    };

    std::vector<Iface> ifaces;
    std::vector<LocalPeer> local_peers;
    std::vector<MANetPeer> manet_peers;
    std::vector<RFModem> rfmodems;
    std::optional<Control> control;
};

// The first thing wrong with a file. The gateway stops there, after
// building what the entries before it describe.
struct ConfigError {
    // "ifaces[2].id"; "3:17" (line and column) for malformed JSON; empty for
    // the file as a whole.
    std::string where;
    // The gateway's own words after "ERROR: ", or, where it has none, what
    // is wrong in words for the checker.
    std::string message;
    // The gateway prints `message` as its error line.
    bool gate_line = true;
    // The gateway then reports the whole file: "ERROR: parse config file".
    bool whole_file = false;
    // The description of an interface the gateway builds before it reports
    // this error (a duplicate id or one interface too many is found only
    // after its device was made).
    std::optional<std::string> device_first;
    // The library's exception that ends the gateway here, uncaught, as it
    // always has: malformed JSON, a wrong type, a number that does not convert.
    std::exception_ptr exception;
};

struct ConfigWarning {
    std::string where;
    std::string message;
};

struct ConfigReading {
    GateConfig config;  // the entries before the error, when there is one
    std::optional<ConfigError> error;
    std::vector<ConfigWarning> warnings;  // filled for the checker only
};

}  // namespace vostrelka
