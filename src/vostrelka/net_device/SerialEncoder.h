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
#include "vostrelka/net_device/Frame.h"
#include "vostrelka/net_device/SerialEncoderHandlerI.h"

namespace vostrelka {
namespace net_device {

// Owned by the caller; the codec only increments.
struct SerialEncoderErrorStats {
    uint32_t encode_errors = 0;   // transmit buffer too small for a frame
    uint32_t rx_overflows = 0;    // a byte arrived with the receive buffer full
    uint32_t crc_errors = 0;      // complete message, wrong CRC
    uint32_t short_messages = 0;  // complete message under 7 bytes
    uint32_t escape_errors = 0;   // 0x55 followed by neither 0xBD nor 0xAA
};

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
