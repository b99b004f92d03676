#include "gatecat/DeviceCounters.h"

#include <cstdio>

namespace vostrelka {
namespace gatecat {

std::string codec_error_counters(net_device::NetDevice& device) {
    const net_device::DeviceCounters counters = device.counters();
    char text[224];
    switch (counters.decode_kind) {
        case net_device::DecodeErrorKind::SERIAL: {
            const net_device::SerialEncoderErrorStats& serial = counters.serial;
            std::snprintf(text, sizeof text, "codec errors: encode %u, rx overflow %u, crc %u, short %u, escape %u",
                          serial.encode_errors, serial.rx_overflows, serial.crc_errors, serial.short_messages,
                          serial.escape_errors);
            return text;
        }
        case net_device::DecodeErrorKind::CAN: {
            const net_device::CanDeviceStats& can = counters.can;
            std::snprintf(text, sizeof text,
                          "codec errors: tx queue full %u, duplicate seq %u, crc %u, rx overflow %u, "
                          "receivers overwritten %u, receivers stalled %u",
                          can.tx_queue_full, can.duplicate_seq, can.crc_errors, can.rx_overflows,
                          can.receivers_overwritten, can.receivers_stalled);
            return text;
        }
        case net_device::DecodeErrorKind::NONE:
            break;
    }
    return std::string();
}

}  // namespace gatecat
}  // namespace vostrelka
