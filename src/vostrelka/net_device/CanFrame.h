#pragma once
// One CAN bus frame with a 29-bit extended identifier, as the CAN codec sees it.
//
// Identifier layout (bit 0 least significant):
//
//   bit    width  content
//   28     1      multi-frame flag: 0 single frame, 1 part of a multi-frame message
//   20-27  8      single frame: proto_id; multi-frame: sequence number
//                 (0 = header frame, 1.. = data frames)
//   17-19  3      transfer counter: sender's message counter modulo 8
//   9-16   8      dst
//   1-8    8      src
//   0      1      priority: 0 high, 1 normal (the lower identifier wins arbitration)
#include <cstdint>

namespace vostrelka {
namespace net_device {

constexpr uint32_t CAN_ID_MASK = 0x1FFFFFFF;
constexpr uint32_t CAN_ID_MULTI_FRAME = 0x10000000;
constexpr uint32_t CAN_ID_FIELD_SHIFT = 20;  // proto_id or sequence number
constexpr uint32_t CAN_ID_COUNTER_SHIFT = 17;
constexpr uint32_t CAN_ID_COUNTER_MASK = 0xE0000;
constexpr uint32_t CAN_ID_DST_SHIFT = 9;
constexpr uint32_t CAN_ID_SRC_SHIFT = 1;
constexpr uint8_t CAN_MAX_DATA_BYTES = 8;

struct CanFrame {
    uint32_t id = 0;  // 29 bits
    uint8_t len = 0;  // valid bytes of data, 0 to 8
    uint8_t data[CAN_MAX_DATA_BYTES] = {};
};

inline bool can_id_is_multi_frame(uint32_t id) {
    return (id & CAN_ID_MULTI_FRAME) != 0;
}
inline uint8_t can_id_field(uint32_t id) {
    return static_cast<uint8_t>(id >> CAN_ID_FIELD_SHIFT);
}
inline uint8_t can_id_transfer_counter(uint32_t id) {
    return (id & CAN_ID_COUNTER_MASK) >> CAN_ID_COUNTER_SHIFT;
}
inline uint8_t can_id_dst(uint32_t id) {
    return static_cast<uint8_t>(id >> CAN_ID_DST_SHIFT);
}
inline uint8_t can_id_src(uint32_t id) {
    return static_cast<uint8_t>(id >> CAN_ID_SRC_SHIFT);
}

}  // namespace net_device
}  // namespace vostrelka
