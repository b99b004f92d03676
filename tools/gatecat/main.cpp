// gatecat: send and watch frames on any interface the gateway can open.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "gatecat/CommandLine.h"
#include "gatecat/DumpCommand.h"
#include "gatecat/SendCommand.h"
#include "gatecat/StatsCommand.h"
#include "gatecat/TapCommand.h"
#include "gatecat/Usage.h"
#include "vostrelka/version.h"

namespace {

// The devices log through the library's one logging call, to standard
// output. Standard output belongs to the frames of a dump, which must
// replay cleanly, so the log goes to standard error and the frames get
// the original standard output to themselves. Null when that fails.
FILE* take_stdout_for_frames() {
    const int frames_fd = dup(STDOUT_FILENO);
    if (frames_fd < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0) return nullptr;
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    return fdopen(frames_fd, "w");
}

}  // namespace

int main(int argc, char** argv) {
    using namespace vostrelka::gatecat;
    CommandLine command_line;
    std::string error;
    if (!parse_command_line(argc, argv, command_line, error)) {
        std::fprintf(stderr, "gatecat: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    using Command = CommandLine::Command;
    const Command command = command_line.command;
    if (command == Command::HELP) std::fputs(usage_text().c_str(), stdout);
    if (command == Command::VERSION) std::printf("%s\n", vostrelka::version::SOFTWARE);
    if (command == Command::HELP || command == Command::VERSION) return EXIT_OK;
    FILE* frames_out = take_stdout_for_frames();
    if (frames_out == nullptr) {
        std::fprintf(stderr, "gatecat: cannot set up standard output\n");
        return EXIT_RUNTIME_FAILURE;
    }
    int status = EXIT_OK;
    if (command == Command::DUMP) status = run_dump(command_line, frames_out);
    if (command == Command::SEND) status = run_send(command_line, stdin);
    if (command == Command::STATS) status = run_stats(command_line, frames_out);
    if (command == Command::PEERS) status = run_peers(command_line, frames_out);
    if (command == Command::TAP) status = run_tap(command_line, frames_out);
    std::fclose(frames_out);
    return status;
}
