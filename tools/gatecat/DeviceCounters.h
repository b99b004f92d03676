#pragma once
#include <string>

#include "vostrelka/net_device/NetDevice.h"

namespace vostrelka {
namespace gatecat {

// The codec error counters of a device, as one line of text; empty for a
// device that keeps none (a "udp" device: a datagram is a frame or nothing).
std::string codec_error_counters(net_device::NetDevice& device);

}  // namespace gatecat
}  // namespace vostrelka
