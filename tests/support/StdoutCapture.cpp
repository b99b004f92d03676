#include "support/StdoutCapture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "vostrelka/Time.h"

namespace test_support {

namespace {

// Written straight into the pipe to learn when the reader has caught up; a
// single byte, so it cannot split anything, and never part of a log line.
constexpr char SYNC_MARK = '\x01';

}  // namespace

StdoutCapture::StdoutCapture() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    std::fflush(stdout);
    saved_stdout = dup(STDOUT_FILENO);
    if (saved_stdout < 0 || dup2(ends[1], STDOUT_FILENO) < 0) {
        close(ends[0]);
        close(ends[1]);
        return;
    }
    write_end = ends[1];
    // Unbuffered rather than line-buffered: switching a stream that has
    // already written to line buffering leaves a lone putchar('\n') sitting
    // in the buffer until the next flush.
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    reader = std::thread([this, fd = ends[0]] { read_lines(fd); });
}

StdoutCapture::~StdoutCapture() {
    std::fflush(stdout);
    if (saved_stdout >= 0) {
        // Once fd 1 and our own copy are gone the reader sees the end of the pipe.
        dup2(saved_stdout, STDOUT_FILENO);
        close(saved_stdout);
    }
    if (write_end >= 0) close(write_end);
    if (reader.joinable()) reader.join();
    // Hand everything on, so that test failures reported while capturing
    // and the log around them still reach the test output.
    for (const auto& line : captured) std::printf("%s\n", line.text.c_str());
    std::fflush(stdout);
}

void StdoutCapture::read_lines(int fd) {
    std::string partial;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        int64_t now = vostrelka::time_us();
        std::lock_guard<std::mutex> lock(mutex);
        for (ssize_t i = 0; i < n; ++i) {
            if (buffer[i] == SYNC_MARK) {
                ++syncs_seen;
                continue;
            }
            if (buffer[i] != '\n') {
                partial.push_back(buffer[i]);
                continue;
            }
            captured.push_back({partial, now});
            partial.clear();
        }
        changed.notify_all();
    }
    std::lock_guard<std::mutex> lock(mutex);
    if (!partial.empty()) captured.push_back({partial, vostrelka::time_us()});
    close(fd);
}

std::vector<StdoutCapture::Line> StdoutCapture::lines() {
    std::fflush(stdout);
    // Whatever was written before the mark is read before it.
    std::unique_lock<std::mutex> lock(mutex);
    const uint64_t ticket = ++syncs_sent;
    lock.unlock();  // the reader may need the lock to make room in the pipe
    const bool sent = write(write_end, &SYNC_MARK, 1) == 1;
    lock.lock();
    if (sent) changed.wait_for(lock, std::chrono::seconds(5), [&] { return syncs_seen >= ticket; });
    return captured;
}

bool StdoutCapture::wait_for(const std::function<bool(const std::vector<Line>&)>& done,
                             std::chrono::milliseconds timeout) {
    std::fflush(stdout);
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return done(captured); });
}

}  // namespace test_support
