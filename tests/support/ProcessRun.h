#pragma once
// Runs a program to completion and collects what it printed and how it ended.
#include <string>
#include <vector>

namespace test_support {

struct ProcessResult {
    std::string out;       // standard output
    std::string err;       // standard error
    bool exited = false;   // ended by exit(), not by a signal
    int exit_status = -1;  // when exited
    int signal = 0;        // when killed by a signal
};

// Runs `program` with `args`; kills it after `timeout_ms` (then signal is SIGKILL).
ProcessResult run_process(const std::string& program, const std::vector<std::string>& args, int timeout_ms = 10000);
// The same with `input` as the program's standard input (then closed); for
// inputs that fit a pipe (64 KiB).
ProcessResult run_process_with_input(const std::string& program, const std::vector<std::string>& args,
                                     const std::string& input, int timeout_ms = 10000);

}  // namespace test_support
