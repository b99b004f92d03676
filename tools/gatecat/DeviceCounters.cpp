#include "gatecat/DeviceCounters.h"

#include <algorithm>

namespace vostrelka {
namespace gatecat {

std::string codec_error_counters(net_device::NetDevice& device) {
    std::string text;
    net_device::for_each_decode_error(device.counters(), [&text](const char* name, uint32_t value) {
        std::string label(name);
        std::replace(label.begin(), label.end(), '_', ' ');
        text += (text.empty() ? "codec errors: " : ", ") + label + " " + std::to_string(value);
    });
    return text;
}

}  // namespace gatecat
}  // namespace vostrelka
