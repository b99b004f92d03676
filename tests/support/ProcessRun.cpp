#include "support/ProcessRun.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

namespace test_support {

static long now_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

namespace {

ProcessResult run(const std::string& program, const std::vector<std::string>& args, const std::string* input,
                  int timeout_ms) {
    ProcessResult result;
    int out_pipe[2];
    int err_pipe[2];
    int in_pipe[2] = {-1, -1};
    if (pipe(out_pipe) != 0 || pipe(err_pipe) != 0) return result;
    if (input != nullptr && pipe(in_pipe) != 0) return result;

    const pid_t pid = fork();
    if (pid == 0) {
        if (input != nullptr) {
            dup2(in_pipe[0], STDIN_FILENO);
            close(in_pipe[0]);
            close(in_pipe[1]);
        }
        dup2(out_pipe[1], STDOUT_FILENO);
        dup2(err_pipe[1], STDERR_FILENO);
        close(out_pipe[0]);
        close(err_pipe[0]);
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(out_pipe[1]);
    close(err_pipe[1]);
    if (input != nullptr) {
        // A program that ends before reading its input must not take the
        // test down with SIGPIPE.
        signal(SIGPIPE, SIG_IGN);
        close(in_pipe[0]);
        if (write(in_pipe[1], input->data(), input->size()) != static_cast<ssize_t>(input->size())) {
            kill(pid, SIGKILL);
        }
        close(in_pipe[1]);
    }

    const long deadline = now_ms() + timeout_ms;
    bool killed = false;
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open_fds = 2;
    while (open_fds > 0) {
        const long left = deadline - now_ms();
        if (left <= 0 && !killed) {
            kill(pid, SIGKILL);
            killed = true;
        }
        if (poll(fds, 2, killed ? 1000 : static_cast<int>(left)) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[4096];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                open_fds--;
            }
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    result.exited = WIFEXITED(status);
    if (result.exited) result.exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

}  // namespace

ProcessResult run_process(const std::string& program, const std::vector<std::string>& args, int timeout_ms) {
    return run(program, args, nullptr, timeout_ms);
}

ProcessResult run_process_with_input(const std::string& program, const std::vector<std::string>& args,
                                     const std::string& input, int timeout_ms) {
    return run(program, args, &input, timeout_ms);
}

}  // namespace test_support
