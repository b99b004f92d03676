// Service messages addressed to the gateway itself, read from every frame
// with proto_id 8 on a local link after it has been forwarded. The one the
// gateway acts on is device_config: the UTM server it names becomes a MANet
// peer, resolved by name in the background, on every MANet interface.
#include <cstring>
#include <memory>

#include "Gate.h"
#include "vostrelka/debug.h"
#include "vostrelka/firmware_configurator/metadata.h"
#include "vostrelka/guarantor/unpack_msgs.h"

namespace vostrelka {

namespace {
namespace fc = msgs::firmware_configurator;

// Frames for the UTM go out as link broadcasts.
constexpr uint8_t UTM_LOCAL_ADDR = 0xFF;

// The host field holds text up to its first NUL, or fills all 32 bytes.
std::string host_text(const uint8_t (&field)[32]) {
    const void* nul = std::memchr(field, 0, sizeof(field));
    const size_t length = nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - field) : sizeof(field);
    return std::string(reinterpret_cast<const char*>(field), length);
}

}  // namespace

void Gate::handle_device_config(const tessera::MessageInfo& info) {
    // Refused whole unless the body holds at least the fixed 111 bytes and
    // an empty generic_config_json: the gateway takes no configuration text.
    fc::device_config config;
    if (!fc::decode(info.body(), config) || !config.manet_config.generic_config_json.empty()) {
        debug("ERROR: failed to parse device config message");
        return;
    }
    const fc::manet_config& manet = config.manet_config;
    if (manet.utm_manet_addr == 0) return;  // the device names no UTM

    const std::string host = host_text(manet.utm_inet_host);
    for (auto& [id, iface] : ifaces) {
        if (iface.type != MANET) continue;
        std::optional<HostPort> host_port = HostPort::from(host, manet.utm_inet_port);
        if (!host_port) {
            debug("ERROR: failed to parse UTM host and port. %s:%u", host.c_str(),
                  static_cast<unsigned>(manet.utm_inet_port));
            return;
        }
        // A link that is already known only gets refreshed; the resolver
        // made here then goes unused.
        add_manet_peer(iface, manet.utm_manet_addr, UTM_LOCAL_ADDR,
                       std::make_unique<AddressResolver>(std::move(*host_port), false), std::nullopt,
                       Origin::ANNOUNCED);
    }
}

void Gate::handle_service_frame(const net_device::Frame& frame) {
    // No acknowledgement is sent: the request/response engine is not
    // involved, so the guarantor header is ignored.
    guarantor::unpack_msgs(ConstSlice<uint8_t>(frame.payload.data, frame.payload.size),
                           [this](const guarantor::GuarantorHeader&, const tessera::MessageInfo& info) {
                               if (info.id == fc::device_config::ID) handle_device_config(info);
                           });
}

}  // namespace vostrelka
