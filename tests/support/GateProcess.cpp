#include "support/GateProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support/paths.h"

namespace test_support {

namespace {

constexpr int MAX_INHERITED_FD = 1024;

// Starts `binary` with its standard input (unless -1), output and error on
// `in`, `out` and `err`; every other descriptor of the test stays here.
pid_t spawn(const std::string& binary, const std::vector<std::string>& args, int in, int out, int err) {
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid != 0) return pid;
    if (in >= 0) dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    for (int fd = STDERR_FILENO + 1; fd < MAX_INHERITED_FD; fd++) close(fd);
    execv(binary.c_str(), argv.data());
    _exit(127);
}

// A pipe whose read end goes to a LinePipe; returns the write end.
int pipe_into(std::unique_ptr<LinePipe>& reader) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    reader = std::make_unique<LinePipe>(ends[0]);
    return ends[1];
}

bool ended(const LinePipe::Seen& seen) {
    return seen.ended;
}

int reap(pid_t pid) {
    int raw = 0;
    waitpid(pid, &raw, 0);
    return raw;
}

}  // namespace

GateProcess::GateProcess(const std::vector<std::string>& args) : GateProcess(gate_binary(), args, false) {}

GateProcess::GateProcess(const std::string& binary, const std::vector<std::string>& args, bool with_stderr) {
    const int out = pipe_into(output);
    child = spawn(binary, args, -1, out, with_stderr ? out : STDERR_FILENO);
    close(out);
}

GateProcess::~GateProcess() {
    if (!status) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

std::optional<std::string> GateProcess::wait_for(const std::function<bool(const std::string&)>& match,
                                                 std::chrono::milliseconds timeout) {
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

bool GateProcess::wait_for_line(const std::string& exact, std::chrono::milliseconds timeout) {
    return wait_for([&](const std::string& line) { return line == exact; }, timeout).has_value();
}

std::optional<std::string> GateProcess::wait_for_prefix(const std::string& prefix, std::chrono::milliseconds timeout) {
    return wait_for([&](const std::string& line) { return line.rfind(prefix, 0) == 0; }, timeout);
}

std::optional<int> GateProcess::wait_exit(std::chrono::milliseconds timeout) {
    // The exit follows the end of the output within moments.
    if (status || !output->wait_for(ended, timeout)) return status;
    const int raw = reap(child);
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status;
}

std::vector<std::string> GateProcess::lines() {
    std::vector<std::string> texts;
    for (auto& line : output->snapshot().lines) texts.push_back(std::move(line.text));
    return texts;
}

std::string GateProcess::log() {
    return output->snapshot().text;
}

ProcessResult run_process_with_input(const std::string& program, const std::vector<std::string>& args,
                                     const std::string& input, int timeout_ms) {
    int in[2];
    if (pipe2(in, O_CLOEXEC) != 0) std::abort();
    std::unique_ptr<LinePipe> out, err;
    const int out_end = pipe_into(out);
    const int err_end = pipe_into(err);
    const pid_t pid = spawn(program, args, in[0], out_end, err_end);
    for (int fd : {in[0], out_end, err_end}) close(fd);
    // A program that ends before reading its input must not take the test
    // down with SIGPIPE.
    signal(SIGPIPE, SIG_IGN);
    if (write(in[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) kill(pid, SIGKILL);
    close(in[1]);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (LinePipe* pipe : {out.get(), err.get()}) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!pipe->wait_for(ended, std::max(left, std::chrono::milliseconds(0)))) kill(pid, SIGKILL);
    }
    ProcessResult result;
    const int raw = reap(pid);
    result.exited = WIFEXITED(raw);
    if (result.exited) result.exit_status = WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) result.signal = WTERMSIG(raw);
    for (auto [pipe, text] : {std::pair{out.get(), &result.out}, std::pair{err.get(), &result.err}}) {
        pipe->wait_for(ended, std::chrono::seconds(5));  // it has ended, but perhaps not been read to the end
        *text = pipe->snapshot().text;
    }
    return result;
}

}  // namespace test_support
