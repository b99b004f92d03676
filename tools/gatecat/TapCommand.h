#pragma once
// `gatecat tap SOCKET`: every frame a running gateway receives and sends,
// one line each on `out` as dump prints them, with the interface id and
// the direction after the time stamp:
//
//   (1732170000.123456) iface 1 in 07:01>02#DEADBEEF  proto_id 7  0x01 -> 0x02  len 4
//
// Frames the gateway dropped for this client are reported on standard error
// as they are announced, and counted in the closing summary.
#include <cstdio>

#include "gatecat/CommandLine.h"

namespace vostrelka {
namespace gatecat {

// Returns the exit status; every message it prints is one line.
int run_tap(const CommandLine& command_line, FILE* out);

}  // namespace gatecat
}  // namespace vostrelka
