#pragma once
#include <string>

namespace vostrelka {
namespace gatecat {

// The text of `gatecat --help`, ending in a newline.
const std::string& usage_text();

}  // namespace gatecat
}  // namespace vostrelka
