#pragma once
#include <cstdint>

#include "vostrelka/Slice.h"

namespace vostrelka {
namespace net_device {

constexpr uint8_t BROADCAST_ADDR = 0xFF;

// One addressed message. The payload view is valid only during the call that
// hands the frame over (on_frame, send_raw); keep a copy to use it later.
struct Frame {
    uint8_t proto_id = 0;
    uint8_t src = 0;
    uint8_t dst = 0;
    ConstSlice<unsigned char> payload;
};

// The destination filter of every decoding device: a device with address
// 0xFF takes everything; otherwise a frame must be for it or broadcast.
inline bool accepts_destination(uint8_t device_address, uint8_t dst) {
    return device_address == BROADCAST_ADDR || dst == device_address || dst == BROADCAST_ADDR;
}

}  // namespace net_device
}  // namespace vostrelka
