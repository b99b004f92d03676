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

// A pipe read by `reader`; returns the write end.
inline int pipe_into(std::unique_ptr<LinePipe>& reader) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    reader = std::make_unique<LinePipe>(ends[0]);
    return ends[1];
}

// Starts `binary` with standard input (unless -1), output and error on `in`,
// `out` and `err`, which it closes here; every other descriptor of the test stays here.
inline pid_t spawn(const std::string& binary, const std::vector<std::string>& args, int in, int out, int err) {
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (in >= 0) dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO), dup2(err, STDERR_FILENO);
        for (int fd = STDERR_FILENO + 1; fd < 1024; fd++) close(fd);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    for (int fd : {in, out, err == out ? -1 : err}) {
        if (fd > STDERR_FILENO) close(fd);
    }
    return pid;
}

// The exit status, or 128 + the signal number, once `output` has ended.
inline std::optional<int> reap(pid_t pid, LinePipe& output, std::chrono::milliseconds timeout) {
    int raw = 0;
    if (!output.wait_for([](const LinePipe::Seen& seen) { return seen.ended; }, timeout) ||
        waitpid(pid, &raw, 0) != pid)
        return std::nullopt;
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

// A program left running while the test talks to it. Its standard output
// (and, with `with_stderr`, standard error) is read line by line; the
// destructor kills it if it still runs.
class GateProcess {
public:
    using Wait = std::chrono::milliseconds;

    explicit GateProcess(const std::vector<std::string>& args) : GateProcess(gate_binary(), args, false) {}
    GateProcess(const std::string& binary, const std::vector<std::string>& args, bool with_stderr) {
        const int out = pipe_into(output);
        child = spawn(binary, args, -1, out, with_stderr ? out : STDERR_FILENO);
    }
    ~GateProcess() {
        if (!status) kill(child, SIGKILL), waitpid(child, nullptr, 0);
    }

    // Consumes lines until one satisfies `match` and returns it; empty when
    // none did before the deadline or the end of the output.
    std::optional<std::string> wait_for(const std::function<bool(const std::string&)>& match,
                                        Wait timeout = Wait(5000)) {
        std::optional<std::string> found;
        output->wait_for(
            [&](const LinePipe::Seen& seen) {
                for (; !found && consumed < seen.lines.size(); consumed++) {
                    if (match(seen.lines[consumed].text)) found = seen.lines[consumed].text;
                }
                return found || seen.ended;
            },
            timeout);
        return found;
    }
    bool wait_for_line(const std::string& exact, Wait timeout = Wait(5000)) {
        return wait_for([&](const std::string& line) { return line == exact; }, timeout).has_value();
    }
    std::optional<std::string> wait_for_prefix(const std::string& prefix, Wait timeout = Wait(5000)) {
        return wait_for([&](const std::string& line) { return line.rfind(prefix, 0) == 0; }, timeout);
    }
    // Empty when the process still runs at the deadline.
    std::optional<int> wait_exit(Wait timeout = Wait(5000)) {
        if (!status) status = reap(child, *output, timeout);
        return status;
    }

    std::vector<std::string> lines() {
        std::vector<std::string> texts;
        for (auto& line : output->snapshot().lines) texts.push_back(std::move(line.text));
        return texts;
    }
    // Each line with the time_us() at which it was read.
    std::vector<LinePipe::Line> timed_lines() { return output->snapshot().lines; }
    std::string log() { return output->snapshot().text; }
    pid_t pid() const { return child; }

private:
    pid_t child = -1;
    std::unique_ptr<LinePipe> output;
    size_t consumed = 0;
    std::optional<int> status;
};

struct ProcessResult {
    std::string out, err;
    int exit_status = -1;  // or 128 + the signal number
};

// Runs `program` with `args` to its end, with `input` (at most a pipe's 64
// KiB) as its standard input; kills it after `timeout_ms`.
inline ProcessResult run_process_with_input(const std::string& program, const std::vector<std::string>& args,
                                            const std::string& input, int timeout_ms = 10000) {
    int in[2];
    std::unique_ptr<LinePipe> out, err;
    if (pipe2(in, O_CLOEXEC) != 0) std::abort();
    const pid_t pid = spawn(program, args, in[0], pipe_into(out), pipe_into(err));
    signal(SIGPIPE, SIG_IGN);  // a program that ends before reading its input must not end the test
    if (write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) kill(pid, SIGKILL);
    close(in[1]);
    ProcessResult result;
    auto status = reap(pid, *out, std::chrono::milliseconds(timeout_ms));
    if (!status) kill(pid, SIGKILL), status = reap(pid, *out, std::chrono::seconds(5));
    result.exit_status = status.value_or(-1);
    for (auto [pipe, text] : {std::pair{out.get(), &result.out}, std::pair{err.get(), &result.err}}) {
        pipe->wait_for([](const LinePipe::Seen& seen) { return seen.ended; }, std::chrono::seconds(5));
        *text = pipe->snapshot().text;
    }
    return result;
}

}  // namespace test_support
