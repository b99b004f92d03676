#include "vostrelka/net_device/net_device_parse.h"

namespace vostrelka {
namespace net_device {

int parse_device_address(std::string text) {
    const bool hex = text.compare(0, 2, "0x") == 0;
    return std::stoi(text, nullptr, hex ? 16 : 10);
}

}  // namespace net_device
}  // namespace vostrelka
