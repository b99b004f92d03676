// Configuration file texts as an administrator might write them. The reader
// runs in gate-check's mode and must never let anything escape: whatever
// would end the gateway is an error the checker reports.
#include <cstdint>
#include <set>
#include <string>

#include "ConfigReader.h"

using namespace vostrelka;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    ConfigReadOptions options;
    options.warn = true;
    const ConfigReading reading = read_config(text, options);

    if (reading.error) {
        // A library's exception ends the gateway without a line of its own.
        if (reading.error->exception && reading.error->gate_line) __builtin_trap();
        if (reading.error->message.empty()) __builtin_trap();
        return 0;
    }
    // What the gateway accepts: at most 32 interfaces, distinct ids, one MANet link at most.
    const GateConfig& config = reading.config;
    std::set<uint32_t> ids;
    size_t manet = 0;
    for (const GateConfig::Iface& iface : config.ifaces) {
        if (!ids.insert(iface.id).second) __builtin_trap();
        manet += iface.manet ? 1 : 0;
    }
    if (config.ifaces.size() > 32 || manet > 1) __builtin_trap();
    for (const GateConfig::LocalPeer& peer : config.local_peers) {
        if (ids.count(peer.iface_id) == 0) __builtin_trap();
    }
    for (const GateConfig::MANetPeer& peer : config.manet_peers) {
        if (ids.count(peer.iface_id) == 0) __builtin_trap();
    }
    return 0;
}
