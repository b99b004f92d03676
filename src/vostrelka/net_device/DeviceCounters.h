#pragma once
// What every net device counts, in one struct that every reader (gatecat's
// summary, the control socket) takes the same way from
// NetDevice::counters(). Plain increments on the loop's thread: no atomics,
// no allocation. 32-bit error counters wrap; traffic counters are 64-bit.
#include <cstdint>

namespace vostrelka {
namespace net_device {

// Errors of the serial framing codec ("serial" and "udpserial" devices).
struct SerialEncoderErrorStats {
    uint32_t encode_errors = 0;   // transmit buffer too small for a frame
    uint32_t rx_overflows = 0;    // a byte arrived with the receive buffer full
    uint32_t crc_errors = 0;      // complete message, wrong CRC
    uint32_t short_messages = 0;  // complete message under 7 bytes
    uint32_t escape_errors = 0;   // 0x55 followed by neither 0xBD nor 0xAA
};

// Errors of CAN fragmentation and reassembly ("can" devices).
struct CanDeviceStats {
    uint32_t tx_queue_full = 0;  // frames refused whole: the queue had no room
    uint32_t duplicate_seq = 0;
    uint32_t crc_errors = 0;
    uint32_t rx_overflows = 0;  // a data frame ended past the reassembly buffer
    uint32_t receivers_overwritten = 0;
    uint32_t receivers_stalled = 0;
};

// Which set of decode errors a device keeps; a "udp" device keeps none (a
// datagram is a frame or nothing).
enum class DecodeErrorKind : uint8_t { NONE, SERIAL, CAN };

// Frames that went nowhere, by cause.
struct DropCounters {
    uint64_t unroutable = 0;  // received, but no peer or link to send it to (counted by the router)
    uint64_t queue_full = 0;  // refused for sending: the transmit queue had no room
    uint64_t truncated = 0;   // received cut short: longer than the receive buffer
    uint64_t send_error = 0;  // refused by the socket, or too large for the device
};

struct DeviceCounters {
    // Frames decoded on the link (before the destination filter) and frames
    // accepted for sending. Bytes are link bytes: datagrams, serial bytes as
    // read and written (framing and garbage included), CAN data bytes.
    uint64_t frames_in = 0;
    uint64_t bytes_in = 0;
    uint64_t frames_out = 0;
    uint64_t bytes_out = 0;

    DecodeErrorKind decode_kind = DecodeErrorKind::NONE;
    SerialEncoderErrorStats serial;  // meaningful when decode_kind is SERIAL
    CanDeviceStats can;              // meaningful when decode_kind is CAN

    DropCounters drops;
};

// Every counter's name, once: the control socket's JSON keys are these
// names, and texts for people write them with blanks for the underscores
// ("rx overflow"). The order is the order every reader shows them in.
template <typename Counters, typename Value>
struct NamedCounter {
    const char* name;
    Value Counters::*field;
};

inline constexpr NamedCounter<SerialEncoderErrorStats, uint32_t> SERIAL_DECODE_ERRORS[] = {
    {"crc", &SerialEncoderErrorStats::crc_errors},
    {"short", &SerialEncoderErrorStats::short_messages},
    {"escape", &SerialEncoderErrorStats::escape_errors},
    {"rx_overflow", &SerialEncoderErrorStats::rx_overflows},
    {"encode", &SerialEncoderErrorStats::encode_errors}};

inline constexpr NamedCounter<CanDeviceStats, uint32_t> CAN_DECODE_ERRORS[] = {
    {"crc", &CanDeviceStats::crc_errors},
    {"duplicate_seq", &CanDeviceStats::duplicate_seq},
    {"rx_overflow", &CanDeviceStats::rx_overflows},
    {"receivers_overwritten", &CanDeviceStats::receivers_overwritten},
    {"receivers_stalled", &CanDeviceStats::receivers_stalled},
    {"tx_queue_full", &CanDeviceStats::tx_queue_full}};

inline constexpr NamedCounter<DropCounters, uint64_t> DROP_COUNTERS[] = {{"unroutable", &DropCounters::unroutable},
                                                                         {"queue_full", &DropCounters::queue_full},
                                                                         {"truncated", &DropCounters::truncated},
                                                                         {"send_error", &DropCounters::send_error}};

// Calls visit(name, value) for each decode error counter the device keeps.
template <typename Visit>
void for_each_decode_error(const DeviceCounters& counters, Visit&& visit) {
    if (counters.decode_kind == DecodeErrorKind::SERIAL) {
        for (const auto& counter : SERIAL_DECODE_ERRORS) visit(counter.name, counters.serial.*counter.field);
    } else if (counters.decode_kind == DecodeErrorKind::CAN) {
        for (const auto& counter : CAN_DECODE_ERRORS) visit(counter.name, counters.can.*counter.field);
    }
}

}  // namespace net_device
}  // namespace vostrelka
