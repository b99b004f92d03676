#pragma once
// The line `gatecat dump` and `gatecat tap` print for one frame:
//
//   (1732170000.123456) [iface 1 in ]07:01>02#DEADBEEF  proto_id 7  0x01 -> 0x02  len 4[  decoded]
//
// The time stamp in seconds, where the frame was seen (tap only), the frame
// in its text form, its proto_id in decimal, its addresses, its payload
// length and, when asked, what its payload holds.
#include <cstdint>
#include <string>

#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace gatecat {

// `origin` is inserted before the frame as given, e.g. "iface 1 in ".
std::string frame_line(int64_t time_us, const std::string& origin, const net_device::Frame& frame, bool decode);

}  // namespace gatecat
}  // namespace vostrelka
