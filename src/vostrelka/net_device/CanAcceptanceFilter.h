#pragma once
// A kernel receive filter over the CAN identifier: a frame passes when
// (frame id & mask) == (id & mask).
#include <cstdint>

namespace vostrelka {
namespace net_device {

struct CanAcceptanceFilter {
    uint32_t id = 0;
    uint32_t mask = 0;
};

// Frames for `dst` from `src`, or from any sender when `src` is 0xFF. Only
// the address bits are compared: flag, sequence, counter and priority pass.
CanAcceptanceFilter make_acceptance_filter(uint8_t dst, uint8_t src);

}  // namespace net_device
}  // namespace vostrelka
