#pragma once
// Text of a device's own local address, as written in interface descriptions
// and peer entries of the configuration file.
#include <string>

namespace vostrelka {
namespace net_device {

// "0x..." is hexadecimal (the prefix is consumed by the conversion), anything
// else decimal, by std::stoi rules: the number must start the text, trailing
// characters are ignored, the value must fit an int. Throws
// std::invalid_argument / std::out_of_range on bad text; callers truncate the
// result to the 8-bit address.
int parse_device_address(std::string text);

}  // namespace net_device
}  // namespace vostrelka
