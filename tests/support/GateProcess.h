#pragma once
// Programs of the project run as child processes of the test, ended by
// their own pid.
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/LinePipe.h"

namespace test_support {

// A program left running while the test talks to it. Its standard output
// (and, with `with_stderr`, standard error) is read line by line; the
// destructor kills it if it still runs.
class GateProcess {
public:
    static constexpr std::chrono::milliseconds DEFAULT_WAIT{5000};

    // Starts gate_binary() with `args` (without the program name).
    explicit GateProcess(const std::vector<std::string>& args);
    GateProcess(const std::string& binary, const std::vector<std::string>& args, bool with_stderr);
    ~GateProcess();

    // Consumes lines until one satisfies `match` and returns it; empty when
    // none did before the deadline or the end of the output.
    std::optional<std::string> wait_for(const std::function<bool(const std::string&)>& match,
                                        std::chrono::milliseconds timeout = DEFAULT_WAIT);
    bool wait_for_line(const std::string& exact, std::chrono::milliseconds timeout = DEFAULT_WAIT);
    std::optional<std::string> wait_for_prefix(const std::string& prefix,
                                               std::chrono::milliseconds timeout = DEFAULT_WAIT);
    // Waits for the end of the output and the exit: the exit status, or 128 +
    // the signal number; empty when the process still runs at the deadline.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout = DEFAULT_WAIT);

    // Every line read so far, and the same as one text.
    std::vector<std::string> lines();
    std::string log();
    pid_t pid() const { return child; }

private:
    pid_t child = -1;
    std::unique_ptr<LinePipe> output;
    size_t consumed = 0;
    std::optional<int> status;
};

struct ProcessResult {
    std::string out;       // standard output
    std::string err;       // standard error
    bool exited = false;   // ended by exit(), not by a signal
    int exit_status = -1;  // when exited
    int signal = 0;        // when killed by a signal
};

// Runs `program` with `args` to its end, with `input` (at most a pipe's 64
// KiB) as its standard input; kills it after `timeout_ms`.
ProcessResult run_process_with_input(const std::string& program, const std::vector<std::string>& args,
                                     const std::string& input, int timeout_ms = 10000);
inline ProcessResult run_process(const std::string& program, const std::vector<std::string>& args,
                                 int timeout_ms = 10000) {
    return run_process_with_input(program, args, "", timeout_ms);
}

}  // namespace test_support
