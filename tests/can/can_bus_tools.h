#pragma once
// Driving a SocketCAN interface from a test with can-utils as the
// independent party: cansend to put frames on the bus, candump to see them.
#include <signal.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "vostrelka/Time.h"

extern char** environ;

namespace can_bus_tools {

constexpr int64_t TOOL_TIMEOUT_US = 5000000;

// A child process, its standard output readable line by line.
class Process {
public:
    explicit Process(const std::vector<std::string>& argv, bool capture_output) {
        int fds[2] = {-1, -1};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (capture_output && pipe(fds) == 0) {
            posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
            posix_spawn_file_actions_addclose(&actions, fds[0]);
            posix_spawn_file_actions_addclose(&actions, fds[1]);
        }
        std::vector<char*> args;
        for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) != 0) pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        if (fds[1] >= 0) close(fds[1]);
        out_fd = fds[0];
    }
    ~Process() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            wait();
        }
        if (out_fd >= 0) close(out_fd);
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool started() const { return pid > 0; }

    // Exit status, or -1 when it did not exit normally.
    int wait() {
        int status = 0;
        if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // The next line of output without its newline; false at the deadline or end.
    bool read_line(std::string& line, int64_t deadline_us) {
        for (;;) {
            const size_t nl = pending.find('\n');
            if (nl != std::string::npos) {
                line = pending.substr(0, nl);
                pending.erase(0, nl + 1);
                return true;
            }
            const int64_t left_us = deadline_us - vostrelka::time_us();
            if (left_us <= 0 || out_fd < 0) return false;
            fd_set set;
            FD_ZERO(&set);
            FD_SET(out_fd, &set);
            timeval tv{static_cast<time_t>(left_us / 1000000), static_cast<suseconds_t>(left_us % 1000000)};
            if (select(out_fd + 1, &set, nullptr, nullptr, &tv) <= 0) continue;
            char buf[4096];
            const ssize_t got = read(out_fd, buf, sizeof(buf));
            if (got <= 0) return false;
            pending.append(buf, static_cast<size_t>(got));
        }
    }

private:
    pid_t pid = -1;
    int out_fd = -1;
    std::string pending;
};

inline int run(const std::vector<std::string>& argv) {
    Process p(argv, false);
    return p.wait();
}

// "cansend IFACE ID#DATA"; 0 when it went out.
inline int cansend(const std::string& iface, const std::string& frame) {
    return run({"cansend", iface, frame});
}

// candump in log form; lines come back as "IFACE ID#DATA" without the time stamp.
class Candump {
public:
    explicit Candump(const std::string& iface_) : iface(iface_), process({"candump", "-L", iface_}, true) {}

    // Waits until candump is listening: a probe frame with a standard
    // identifier, which the devices under test ignore, must come through.
    bool wait_ready() {
        const int64_t deadline = vostrelka::time_us() + TOOL_TIMEOUT_US;
        while (vostrelka::time_us() < deadline) {
            if (cansend(iface, PROBE) != 0) return false;
            std::string line;
            if (next_raw(line, vostrelka::time_us() + 100000) && line == iface + " " + PROBE) {
                // Drain probes sent before candump was listening.
                while (next_raw(line, vostrelka::time_us() + 20000)) {
                }
                return true;
            }
        }
        return false;
    }

    // The next frame that is not a probe.
    bool next(std::string& line, int64_t deadline_us = vostrelka::time_us() + TOOL_TIMEOUT_US) {
        while (next_raw(line, deadline_us)) {
            if (line != iface + " " + PROBE) return true;
        }
        return false;
    }

private:
    static constexpr const char* PROBE = "7FF#";
    std::string iface;
    Process process;

    bool next_raw(std::string& line, int64_t deadline_us) {
        if (!process.read_line(line, deadline_us)) return false;
        const size_t space = line.find(") ");
        if (space != std::string::npos) line = line.substr(space + 2);
        return true;
    }
};

}  // namespace can_bus_tools
