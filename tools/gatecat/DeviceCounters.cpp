#include "gatecat/DeviceCounters.h"

#include <cstdio>

#include "vostrelka/net_device/NetDeviceCanBase.h"
#include "vostrelka/net_device/NetDeviceSerialBase.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

namespace vostrelka {
namespace gatecat {

namespace {

std::string serial_counters(const net_device::SerialEncoderErrorStats& stats) {
    char text[160];
    std::snprintf(text, sizeof text, "codec errors: encode %u, rx overflow %u, crc %u, short %u, escape %u",
                  stats.encode_errors, stats.rx_overflows, stats.crc_errors, stats.short_messages, stats.escape_errors);
    return text;
}

}  // namespace

std::string codec_error_counters(net_device::NetDevice& device) {
    if (auto* serial = dynamic_cast<net_device::NetDeviceSerialBase*>(&device)) {
        return serial_counters(serial->get_stats());
    }
    if (auto* udp_serial = dynamic_cast<net_device::NetDeviceUDPSerial*>(&device)) {
        return serial_counters(udp_serial->get_error_stats());
    }
    if (auto* can = dynamic_cast<net_device::NetDeviceCanBase*>(&device)) {
        const net_device::CanDeviceStats stats = can->get_stats();
        char text[224];
        std::snprintf(text, sizeof text,
                      "codec errors: tx queue full %u, duplicate seq %u, crc %u, rx overflow %u, "
                      "receivers overwritten %u, receivers stalled %u",
                      stats.tx_queue_full, stats.duplicate_seq, stats.crc_errors, stats.rx_overflows,
                      stats.receivers_overwritten, stats.receivers_stalled);
        return text;
    }
    return std::string();
}

}  // namespace gatecat
}  // namespace vostrelka
