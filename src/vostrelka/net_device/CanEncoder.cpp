#include "vostrelka/net_device/CanEncoder.h"

#include <cstring>

#include "vostrelka/net_device/XCRC32.h"

namespace vostrelka {
namespace net_device {

CanEncoder::CanEncoder(const Frame& frame_, uint8_t transfer_counter_, uint8_t priority_bit_)
    : frame(frame_), transfer_counter(transfer_counter_), priority_bit(priority_bit_) {}

uint32_t CanEncoder::get_frames_number() const {
    uint64_t len = frame.payload.size;
    if (len <= CAN_MAX_DATA_BYTES) return 1;
    return static_cast<uint32_t>(1 + (len + CAN_MAX_DATA_BYTES - 1) / CAN_MAX_DATA_BYTES);
}

uint32_t CanEncoder::base_id() const {
    return (static_cast<uint32_t>(frame.dst) << CAN_ID_DST_SHIFT) |
           (static_cast<uint32_t>(frame.src) << CAN_ID_SRC_SHIFT) | (priority_bit & 1u) |
           ((static_cast<uint32_t>(transfer_counter) << CAN_ID_COUNTER_SHIFT) & CAN_ID_COUNTER_MASK);
}

CanFrame CanEncoder::next() {
    CanFrame out;
    const uint64_t len = frame.payload.size;

    if (index == 0 && len <= CAN_MAX_DATA_BYTES) {
        out.id = base_id() | (static_cast<uint32_t>(frame.proto_id) << CAN_ID_FIELD_SHIFT);
        out.len = static_cast<uint8_t>(len);
        if (len > 0) std::memcpy(out.data, frame.payload.data, len);
        _finished = true;
        return out;
    }

    if (index == 0) {
        out.id = base_id() | CAN_ID_MULTI_FRAME;
        out.len = CAN_HEADER_LEN;
        out.data[4] = static_cast<uint8_t>(len);
        out.data[5] = static_cast<uint8_t>(len >> 8);
        out.data[6] = frame.proto_id;
        uint32_t crc = xcrc32(out.data + 4, 3, 0);
        crc = xcrc32(frame.payload.data, len, crc);
        out.data[0] = static_cast<uint8_t>(crc);
        out.data[1] = static_cast<uint8_t>(crc >> 8);
        out.data[2] = static_cast<uint8_t>(crc >> 16);
        out.data[3] = static_cast<uint8_t>(crc >> 24);
        index = 1;
        return out;
    }

    out.id = base_id() | CAN_ID_MULTI_FRAME | (static_cast<uint32_t>(index & 0xFF) << CAN_ID_FIELD_SHIFT);
    const uint64_t offset = static_cast<uint64_t>(index - 1) * CAN_MAX_DATA_BYTES;
    const uint64_t remaining = len > offset ? len - offset : 0;
    if (remaining > CAN_MAX_DATA_BYTES) {
        out.len = CAN_MAX_DATA_BYTES;
    } else {
        out.len = static_cast<uint8_t>(remaining);
        _finished = true;
    }
    std::memcpy(out.data, frame.payload.data + offset, out.len);
    index++;
    return out;
}

}  // namespace net_device
}  // namespace vostrelka
