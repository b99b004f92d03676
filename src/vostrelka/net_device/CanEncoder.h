#pragma once
// Cuts one Frame into CAN frames.
//
// Payload of up to 8 bytes: one single frame, proto_id in the identifier,
// the payload as its data.
//
// Longer payload: a header frame (sequence 0, len 7)
//
//   offset  size  field
//   0       4     CRC-32 LE: xcrc32 from 0 over bytes 4..6, then over the payload
//   4       2     payload length L, LE
//   6       1     proto_id
//
// then data frames 1..ceil(L/8), frame s carrying payload bytes (s-1)*8 on,
// 8 each except the last. The sequence number has 8 bits, so a payload
// needs at most 255 data frames (2040 bytes).
#include <cstdint>

#include "vostrelka/net_device/CanFrame.h"
#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace net_device {

constexpr uint32_t CAN_MAX_DATA_FRAMES = 255;
constexpr uint32_t CAN_MAX_PAYLOAD_BYTES = CAN_MAX_DATA_FRAMES * CAN_MAX_DATA_BYTES;
constexpr uint8_t CAN_HEADER_LEN = 7;

class CanEncoder {
public:
    // `frame` must outlive the encoder.
    CanEncoder(const Frame& frame, uint8_t transfer_counter, uint8_t priority_bit);

    bool finished() const { return _finished; }
    // CAN frames this frame takes: 1, or the header plus the data frames.
    uint32_t get_frames_number() const;
    // The next CAN frame; call while !finished().
    CanFrame next();

private:
    const Frame& frame;
    uint8_t transfer_counter;
    uint16_t index = 0;
    uint8_t priority_bit;
    bool _finished = false;

    uint32_t base_id() const;
};

}  // namespace net_device
}  // namespace vostrelka
