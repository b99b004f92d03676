#include "support/GateProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "support/paths.h"

namespace test_support {

namespace {

constexpr int MAX_INHERITED_FD = 1024;

int decode_status(int raw) {
    if (WIFEXITED(raw)) return WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) return 128 + WTERMSIG(raw);
    return -1;
}

int remaining_ms(GateProcess::Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - GateProcess::Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

GateProcess::GateProcess(const std::vector<std::string>& args) : GateProcess(gate_binary(), args, false) {}

GateProcess::GateProcess(const std::string& binary, const std::vector<std::string>& args, bool with_stderr) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) std::abort();
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(binary.c_str()));
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);

    child = fork();
    if (child == 0) {
        dup2(fds[1], STDOUT_FILENO);
        if (with_stderr) dup2(fds[1], STDERR_FILENO);
        // Sockets and terminals of the test stay with the test.
        for (int fd = STDERR_FILENO + 1; fd < MAX_INHERITED_FD; fd++) close(fd);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    close(fds[1]);
    out_fd = fds[0];
    fcntl(out_fd, F_SETFL, fcntl(out_fd, F_GETFL) | O_NONBLOCK);
}

GateProcess::~GateProcess() {
    if (child > 0 && !status) {
        kill(child, SIGKILL);
        int raw = 0;
        waitpid(child, &raw, 0);
    }
    if (out_fd >= 0) close(out_fd);
}

bool GateProcess::read_available(Clock::time_point deadline) {
    if (output_ended) return false;
    pollfd pfd{out_fd, POLLIN, 0};
    if (poll(&pfd, 1, remaining_ms(deadline)) <= 0) return true;
    char buf[4096];
    for (;;) {
        const ssize_t n = read(out_fd, buf, sizeof(buf));
        if (n > 0) {
            pending.append(buf, static_cast<size_t>(n));
            continue;
        }
        if (n == 0) output_ended = true;
        if (n < 0 && errno == EINTR) continue;
        break;
    }
    return !output_ended;
}

std::optional<std::string> GateProcess::take_line() {
    const size_t newline = pending.find('\n');
    if (newline == std::string::npos) {
        if (!output_ended || pending.empty()) return std::nullopt;
        // The last line of a process that ended without a newline.
        all_lines.push_back(pending);
        pending.clear();
    } else {
        all_lines.push_back(pending.substr(0, newline));
        pending.erase(0, newline + 1);
    }
    return all_lines.back();
}

std::optional<std::string> GateProcess::next_line(std::chrono::milliseconds timeout) {
    if (returned < all_lines.size()) return all_lines[returned++];
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        if (auto line = take_line()) {
            returned++;
            return line;
        }
        if (output_ended || Clock::now() >= deadline) return std::nullopt;
        read_available(deadline);
    }
}

std::optional<std::string> GateProcess::wait_for(const std::function<bool(const std::string&)>& match,
                                                 std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        auto line = next_line(left.count() > 0 ? left : std::chrono::milliseconds(0));
        if (!line) return std::nullopt;
        if (match(*line)) return line;
    }
}

bool GateProcess::wait_for_line(const std::string& exact, std::chrono::milliseconds timeout) {
    return wait_for([&](const std::string& line) { return line == exact; }, timeout).has_value();
}

std::optional<std::string> GateProcess::wait_for_prefix(const std::string& prefix, std::chrono::milliseconds timeout) {
    return wait_for([&](const std::string& line) { return line.compare(0, prefix.size(), prefix) == 0; }, timeout);
}

std::optional<int> GateProcess::wait_exit(std::chrono::milliseconds timeout) {
    if (status) return status;
    const auto deadline = Clock::now() + timeout;
    while (!output_ended && Clock::now() < deadline) read_available(deadline);
    while (take_line()) {
    }
    for (;;) {
        int raw = 0;
        const pid_t done = waitpid(child, &raw, WNOHANG);
        if (done == child) {
            status = decode_status(raw);
            return status;
        }
        if (Clock::now() >= deadline) return std::nullopt;
        // The output has ended; the exit follows within moments.
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string GateProcess::log() const {
    std::string text;
    for (const auto& line : all_lines) text += line + "\n";
    return text;
}

}  // namespace test_support
