#pragma once
// `gatecat send`: frames from the command line, or from standard input one
// per line, sent in order on one interface.
#include <cstdio>

#include "gatecat/CommandLine.h"

namespace vostrelka {
namespace gatecat {

// Returns the exit status. Frames on the command line are all checked
// before the first is sent; frames from `in` are sent as they are read, so
// a bad line stops the run after the lines before it went out.
int run_send(const CommandLine& command_line, FILE* in);

}  // namespace gatecat
}  // namespace vostrelka
