#pragma once
// What /proc says about a process of the test: CPU used, and the numbers of
// its status file.
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace test_support {

// User plus system time in clock ticks, -1 when the process is gone.
inline long cpu_ticks_of(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    if (!std::getline(stat, text)) return -1;
    // The command name in parentheses may hold spaces; the fields after it
    // are state (3) ... utime (14), stime (15).
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    long utime = 0, stime = 0;
    for (int number = 3; number <= 15 && fields >> field; number++) {
        if (number == 14) utime = std::stol(field);
        if (number == 15) stime = std::stol(field);
    }
    return utime + stime;
}

// The share of one core `pid` used over `period`, in percent.
inline double cpu_percent_of(pid_t pid, std::chrono::milliseconds period) {
    const long before = cpu_ticks_of(pid);
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(period);
    const long after = cpu_ticks_of(pid);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return 100.0 * static_cast<double>(after - before) / static_cast<double>(sysconf(_SC_CLK_TCK)) / seconds;
}

// A number from /proc/PID/status ("VmRSS:" in kB, "Threads:"), -1 if absent.
inline long proc_status(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field, 0) == 0) return std::strtol(line.c_str() + field.size(), nullptr, 10);
    return -1;
}

}  // namespace test_support
