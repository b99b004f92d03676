#pragma once

namespace vostrelka {
namespace gatecat {

// The text of `gatecat --help`, ending in a newline.
const char* usage_text();

}  // namespace gatecat
}  // namespace vostrelka
