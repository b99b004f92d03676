#include "vostrelka/net_device/CanAcceptanceFilter.h"

#include "vostrelka/net_device/CanFrame.h"
#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace net_device {

namespace {
constexpr uint32_t DST_BITS = 0x1FE00;
constexpr uint32_t DST_AND_SRC_BITS = 0x1FFFE;
}  // namespace

CanAcceptanceFilter make_acceptance_filter(uint8_t dst, uint8_t src) {
    CanAcceptanceFilter filter;
    if (src == BROADCAST_ADDR) {
        filter.id = static_cast<uint32_t>(dst) << CAN_ID_DST_SHIFT;
        filter.mask = DST_BITS;
    } else {
        filter.id = (static_cast<uint32_t>(dst) << CAN_ID_DST_SHIFT) | (static_cast<uint32_t>(src) << CAN_ID_SRC_SHIFT);
        filter.mask = DST_AND_SRC_BITS;
    }
    return filter;
}

}  // namespace net_device
}  // namespace vostrelka
