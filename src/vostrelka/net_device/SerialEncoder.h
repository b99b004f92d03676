#pragma once
// Byte-stream framing of serial lines and "udpserial" datagrams:
//
//   0x42 | CRC-32 LE (4) | proto_id | src | dst | payload (n) | 0x42
//
// Between the delimiters every 0x42 or 0x55 goes as 0x55 followed by its
// complement (0x42 -> 55 BD, 0x55 -> 55 AA). The CRC covers header and
// payload, unescaped. The codec does no I/O and owns no memory: it appends
// to the caller's transmit buffer and collects into the caller's receive buffer.
#include <cstdint>

#include "vostrelka/Slice.h"
#include "vostrelka/net_device/DeviceCounters.h"
#include "vostrelka/net_device/Frame.h"
#include "vostrelka/net_device/SerialEncoderHandlerI.h"

namespace vostrelka {
namespace net_device {

// The error counters are owned by the caller; the codec only increments.
class SerialEncoder {
public:
    static constexpr uint8_t DELIMITER = 0x42;
    static constexpr uint8_t ESCAPE = 0x55;

    SerialEncoder(Slice<unsigned char>& tx_buffer, Slice<unsigned char>& rx_buffer, SerialEncoderHandlerI& handler);

    uint64_t encode(const Frame& frame, SerialEncoderErrorStats& stats);
    uint64_t encode_buffer(const unsigned char* data, unsigned int len);
    uint64_t decode(const ConstSlice<unsigned char>& data, SerialEncoderErrorStats& stats);
    bool handle_message(SerialEncoderErrorStats& stats);

    bool in_frame = false;
    bool escaped = false;
    uint64_t decoded = 0;

private:
    Slice<unsigned char>& tx_buffer;
    Slice<unsigned char>& rx_buffer;
    SerialEncoderHandlerI& handler;
};

}  // namespace net_device
}  // namespace vostrelka
