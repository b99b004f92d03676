#pragma once
// `gatecat stats SOCKET` and `gatecat peers SOCKET`: one request to a running
// gateway's control socket, its answer printed as tables on `out`:
//
//   gate 0.1.0, up 3723.5 s
//   iface  kind  frames in  bytes in  frames out  bytes out  description
//       1  udp          12       345          10        300  udp://127.0.0.1:7001
//
//   iface  decode errors  drops
//       1  none           unroutable 2
//
// Values print as the gateway sends them; a field it leaves out prints "-".
#include <cstdio>

#include "gatecat/CommandLine.h"

namespace vostrelka {
namespace gatecat {

// Both return the exit status; failures print one line on standard error.
int run_stats(const CommandLine& command_line, FILE* out);
int run_peers(const CommandLine& command_line, FILE* out);

}  // namespace gatecat
}  // namespace vostrelka
