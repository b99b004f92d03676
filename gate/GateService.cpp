#include "Gate.h"

namespace vostrelka {

void Gate::handle_service_frame(const net_device::Frame& /*frame*/) {}

}  // namespace vostrelka
