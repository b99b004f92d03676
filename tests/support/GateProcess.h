#pragma once
// Programs of the project run as child processes of the test, ended by
// their own pid.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include <memory>
#include <optional>

#include "support/LinePipe.h"
#include "support/paths.h"

namespace test_support {

// Starts `binary` with standard input (unless -1), output and error on `in`,
// `out` and `err`; every other descriptor of the test stays here.
inline pid_t spawn(const std::string& binary, const std::vector<std::string>& args, int in, int out, int err) {
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    if (in >= 0) dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    for (int fd = STDERR_FILENO + 1; fd < 1024; fd++) close(fd);
    execv(binary.c_str(), argv.data());
    _exit(127);
}

// A pipe read by `reader`; returns the write end.
inline int pipe_into(std::unique_ptr<LinePipe>& reader) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    reader = std::make_unique<LinePipe>(ends[0]);
    return ends[1];
}

inline bool ended(const LinePipe::Seen& seen) {
    return seen.ended;
}

// A program left running while the test talks to it. Its standard output
// (and, with `with_stderr`, standard error) is read line by line; the
// destructor kills it if it still runs.
class GateProcess {
public:
    static constexpr std::chrono::milliseconds DEFAULT_WAIT{5000};

    // gate_binary() with `args` (without the program name).
    explicit GateProcess(const std::vector<std::string>& args) : GateProcess(gate_binary(), args, false) {}
    GateProcess(const std::string& binary, const std::vector<std::string>& args, bool with_stderr) {
        const int out = pipe_into(output);
        child = spawn(binary, args, -1, out, with_stderr ? out : STDERR_FILENO);
        close(out);
    }
    ~GateProcess() {
        if (!status) kill(child, SIGKILL), waitpid(child, nullptr, 0);
    }

    // Consumes lines until one satisfies `match` and returns it; empty when
    // none did before the deadline or the end of the output.
    std::optional<std::string> wait_for(const std::function<bool(const std::string&)>& match,
                                        std::chrono::milliseconds timeout = DEFAULT_WAIT) {
        std::optional<std::string> found;
        output->wait_for(
            [&](const LinePipe::Seen& seen) {
                while (!found && consumed < seen.lines.size()) {
                    if (match(seen.lines[consumed].text)) found = seen.lines[consumed].text;
                    consumed++;
                }
                return found || seen.ended;
            },
            timeout);
        return found;
    }
    bool wait_for_line(const std::string& exact, std::chrono::milliseconds timeout = DEFAULT_WAIT) {
        return wait_for([&](const std::string& line) { return line == exact; }, timeout).has_value();
    }
    std::optional<std::string> wait_for_prefix(const std::string& prefix,
                                               std::chrono::milliseconds timeout = DEFAULT_WAIT) {
        return wait_for([&](const std::string& line) { return line.rfind(prefix, 0) == 0; }, timeout);
    }
    // Waits for the end of the output and the exit: the exit status, or 128 +
    // the signal number; empty when the process still runs at the deadline.
    std::optional<int> wait_exit(std::chrono::milliseconds timeout = DEFAULT_WAIT) {
        int raw = 0;
        if (!status && output->wait_for(ended, timeout) && waitpid(child, &raw, 0) == child) {
            status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        }
        return status;
    }

    // Every line read so far, and the same as one text.
    std::vector<std::string> lines() {
        std::vector<std::string> texts;
        for (auto& line : output->snapshot().lines) texts.push_back(std::move(line.text));
        return texts;
    }
    std::string log() { return output->snapshot().text; }
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
inline ProcessResult run_process_with_input(const std::string& program, const std::vector<std::string>& args,
                                            const std::string& input, int timeout_ms = 10000) {
    int in[2];
    std::unique_ptr<LinePipe> out, err;
    if (pipe2(in, O_CLOEXEC) != 0) std::abort();
    const int out_end = pipe_into(out), err_end = pipe_into(err);
    const pid_t pid = spawn(program, args, in[0], out_end, err_end);
    for (int fd : {in[0], out_end, err_end}) close(fd);
    // A program that ends before reading its input must not end the test.
    signal(SIGPIPE, SIG_IGN);
    if (write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) kill(pid, SIGKILL);
    close(in[1]);
    if (!out->wait_for(ended, std::chrono::milliseconds(timeout_ms))) kill(pid, SIGKILL);

    ProcessResult result;
    int raw = 0;
    waitpid(pid, &raw, 0);
    result.exited = WIFEXITED(raw);
    if (result.exited) result.exit_status = WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) result.signal = WTERMSIG(raw);
    for (auto [pipe, text] : {std::pair{out.get(), &result.out}, std::pair{err.get(), &result.err}}) {
        pipe->wait_for(ended, std::chrono::seconds(5));  // it has ended, but perhaps not been read to the end
        *text = pipe->snapshot().text;
    }
    return result;
}
inline ProcessResult run_process(const std::string& program, const std::vector<std::string>& args,
                                 int timeout_ms = 10000) {
    return run_process_with_input(program, args, "", timeout_ms);
}

}  // namespace test_support
