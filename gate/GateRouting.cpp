#include "Gate.h"

namespace vostrelka {

void Gate::on_frame(net_device::NetDevice& /*device*/, const net_device::Frame& /*frame*/) {}

}  // namespace vostrelka
