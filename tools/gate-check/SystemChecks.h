#pragma once
// What gate-check can tell about a configuration beyond its text, without
// opening anything: whether a description would make a device at all, and
// what the machine will do to the gateway at start.
#include <optional>
#include <string>
#include <vector>

#include "GateConfig.h"

namespace vostrelka {
namespace gate_check {

// Why the gateway's factory would refuse to build this interface's device
// from its text, or nothing when the text is one it builds from.
std::optional<std::string> description_problem(const GateConfig::Iface& iface);

// What will go wrong at start on this machine: a serial path that does not
// exist, a CAN interface that does not, a fixed UDP address another socket
// holds. Only stat() and /proc and /sys are read.
std::vector<ConfigWarning> system_warnings(const GateConfig& config);

}  // namespace gate_check
}  // namespace vostrelka
