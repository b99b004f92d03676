#pragma once
// One log line per call: printf-formatted, newline appended, written while
// holding stdout_mutex so that lines from the resolver threads never mix.
#include <cstdio>
#include <mutex>

namespace vostrelka {

extern std::mutex stdout_mutex;

#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-security"
#pragma clang diagnostic ignored "-Wformat-nonliteral"
#elif defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif

// With no arguments the format still goes through printf, so a "%" in it
// is interpreted; callers pass text they own.
template <typename... Args>
void debug(const char* format, const Args&... args) {
    std::lock_guard<std::mutex> lock(stdout_mutex);
    std::printf(format, args...);
    std::putchar('\n');
}

// "%s: " with the tag, then the message, as one line.
template <typename... Args>
void debug_tagged(const char* tag, const char* format, const Args&... args) {
    std::lock_guard<std::mutex> lock(stdout_mutex);
    std::printf("%s: ", tag);
    std::printf(format, args...);
    std::putchar('\n');
}

#if defined(__clang__)
#pragma clang diagnostic pop
#elif defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

}  // namespace vostrelka
