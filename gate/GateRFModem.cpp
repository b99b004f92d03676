#include <memory>

#include "Gate.h"
#include "RFModemHandler.h"
#include "vostrelka/debug.h"

namespace vostrelka {

void Gate::parse_rfmodem_config(Interface& iface, const json& config) {
    // Deliberate: without a MANet peer the modem is not configured at all.
    if (manet_peers.empty()) return;
    // The lowest MANet address known once the configured peers are read.
    const uint32_t addr = manet_peers.begin()->first;
    const auto channel = static_cast<uint8_t>(parse_json_value<unsigned int>(config, "channel"));
    const auto power = parse_json_value<float>(config, "power");

    handlers.push_back(std::make_unique<RFModemHandler>(iface.net_device.get(), addr, power, channel));
    debug("RFModem on iface %i: addr=0x%08X channel=%i power=%.1f", static_cast<int>(iface.id), addr,
          static_cast<int>(channel), static_cast<double>(power));
}

}  // namespace vostrelka
