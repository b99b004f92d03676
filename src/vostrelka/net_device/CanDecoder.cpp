#include "vostrelka/net_device/CanDecoder.h"

#include <cstring>

#include "vostrelka/net_device/XCRC32.h"

namespace vostrelka {
namespace net_device {

CanDecoder::CanDecoder(const Slice<uint8_t>& buffer_) : buffer(buffer_) {
    buffer.size = 0;
}

void CanDecoder::reset() {
    std::memset(bitmap, 0, sizeof(bitmap));
    in_use = false;
}

// The header must be in, and the last data frame D = ceil(L/8). Of the
// frames before it, only the bitmap bytes up to B-2 and byte B itself are
// checked (B = byte of D). Byte B-1 is deliberately left unexamined: a gap
// there completes the message early and the CRC check rejects it. Keep it
// so: which frames a message needs must not change on the wire.
bool CanDecoder::is_complete() const {
    if (!has_sequence(0)) return false;
    const uint32_t data_frames = (static_cast<uint32_t>(header_len) + CAN_MAX_DATA_BYTES - 1) / CAN_MAX_DATA_BYTES;
    const uint32_t last = data_frames % SEQUENCE_BITS;
    const uint32_t last_byte = last / 8;
    if (!has_sequence(last)) return false;
    for (uint32_t i = 0; i + 2 <= last_byte; i++) {
        if (bitmap[i] != 0xFF) return false;
    }
    const uint8_t wanted = static_cast<uint8_t>((1u << (last % 8 + 1)) - 1);
    return (bitmap[last_byte] & wanted) == wanted;
}

CANDecoderStatus CanDecoder::decode(const CanFrame& can_frame, Frame& out) {
    const uint32_t id = can_frame.id;
    // A classic CAN frame holds 8 bytes; a longer length from the wire is cut.
    const uint8_t len = can_frame.len > CAN_MAX_DATA_BYTES ? CAN_MAX_DATA_BYTES : can_frame.len;

    if (!can_id_is_multi_frame(id)) {
        out.proto_id = can_id_field(id);
        out.src = can_id_src(id);
        out.dst = can_id_dst(id);
        out.payload = ConstSlice<unsigned char>(can_frame.data, len);
        if (in_use) reset();
        return CANDecoderStatus::COMPLETE;
    }

    const uint32_t seq = can_id_field(id);
    in_use = true;
    if (has_sequence(seq)) {
        reset();
        return CANDecoderStatus::DUPLICATE_SEQ;
    }
    bitmap[seq / 8] |= static_cast<uint8_t>(1u << (seq % 8));

    if (seq == 0) {
        // All of the header's bytes are taken; its length field is not checked.
        header_crc = static_cast<uint32_t>(can_frame.data[0]) | (static_cast<uint32_t>(can_frame.data[1]) << 8) |
                     (static_cast<uint32_t>(can_frame.data[2]) << 16) |
                     (static_cast<uint32_t>(can_frame.data[3]) << 24);
        header_len = static_cast<uint16_t>(can_frame.data[4] | (can_frame.data[5] << 8));
        header_proto_id = can_frame.data[6];
    } else {
        const uint64_t offset = static_cast<uint64_t>(seq - 1) * CAN_MAX_DATA_BYTES;
        if (offset + len > buffer.capacity) {
            reset();
            return CANDecoderStatus::OVERFLOW;
        }
        std::memcpy(buffer.data + offset, can_frame.data, len);
    }

    if (!is_complete()) return CANDecoderStatus::IN_PROGRESS;

    // A length past the capacity keeps the previous one, and the CRC fails.
    if (header_len <= buffer.capacity) buffer.size = header_len;
    const uint8_t crc_header[3] = {static_cast<uint8_t>(header_len), static_cast<uint8_t>(header_len >> 8),
                                   header_proto_id};
    uint32_t crc = xcrc32(crc_header, sizeof(crc_header), 0);
    crc = xcrc32(buffer.data, buffer.size, crc);
    if (crc != header_crc) {
        reset();
        return CANDecoderStatus::CRC_ERROR;
    }

    out.proto_id = header_proto_id;
    out.src = can_id_src(id);
    out.dst = can_id_dst(id);
    out.payload = ConstSlice<unsigned char>(buffer.data, buffer.size);
    reset();
    return CANDecoderStatus::COMPLETE;
}

}  // namespace net_device
}  // namespace vostrelka
