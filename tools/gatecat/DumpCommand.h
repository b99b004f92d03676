#pragma once
// `gatecat dump`: one line per received frame on `out`, a summary on stderr.
#include <cstdio>

#include "gatecat/CommandLine.h"

namespace vostrelka {
namespace gatecat {

// Returns the exit status; every message it prints is one line.
int run_dump(const CommandLine& command_line, FILE* out);

}  // namespace gatecat
}  // namespace vostrelka
