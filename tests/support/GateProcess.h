#pragma once
// The real gate binary running as a child process, its standard output read
// line by line through a pipe. The destructor kills it (by its pid) if it
// is still running.
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

class GateProcess {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds DEFAULT_WAIT{5000};

    // Starts gate_binary() with `args` (without the program name).
    explicit GateProcess(const std::vector<std::string>& args);
    // Starts another program of the project the same way; with
    // `with_stderr` its standard error comes through the same pipe.
    GateProcess(const std::string& binary, const std::vector<std::string>& args, bool with_stderr);
    ~GateProcess();
    GateProcess(const GateProcess&) = delete;
    GateProcess& operator=(const GateProcess&) = delete;

    // The next log line not yet returned, waiting until `timeout`; empty at
    // the deadline or once the output has ended.
    std::optional<std::string> next_line(std::chrono::milliseconds timeout = DEFAULT_WAIT);

    // Consumes lines until one satisfies `match` and returns it; empty when
    // none did before the deadline. Lines skipped stay in lines().
    std::optional<std::string> wait_for(const std::function<bool(const std::string&)>& match,
                                        std::chrono::milliseconds timeout = DEFAULT_WAIT);
    bool wait_for_line(const std::string& exact, std::chrono::milliseconds timeout = DEFAULT_WAIT);
    std::optional<std::string> wait_for_prefix(const std::string& prefix,
                                               std::chrono::milliseconds timeout = DEFAULT_WAIT);

    // Reads the output to its end and waits for the exit: the exit status,
    // or 128 + the signal number when a signal ended it; empty when the
    // process still runs at the deadline.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout = DEFAULT_WAIT);

    // Every line read so far, in order, and the same as one text for
    // failure messages.
    const std::vector<std::string>& lines() const { return all_lines; }
    std::string log() const;
    pid_t pid() const { return child; }

private:
    // Moves whatever the pipe holds into `pending`; false once it is closed.
    bool read_available(Clock::time_point deadline);
    std::optional<std::string> take_line();

    pid_t child = -1;
    int out_fd = -1;
    bool output_ended = false;
    std::string pending;
    std::vector<std::string> all_lines;
    size_t returned = 0;
    std::optional<int> status;
};

}  // namespace test_support
