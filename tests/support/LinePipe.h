#pragma once
// The read end of a pipe, read by a thread of its own into lines, each with
// the time it arrived, until the writers close the pipe. A byte 0x01 is
// never text but a mark, so that a writer can tell when the reader has
// caught up with what it wrote before.
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vostrelka/Time.h"

namespace test_support {

class LinePipe {
public:
    static constexpr char MARK = '\x01';
    struct Line {
        std::string text;  // without the newline
        int64_t at_us;     // time_us() when it was read
    };
    struct Seen {
        std::vector<Line> lines;  // a last line without newline once ended
        std::string text;         // everything but the marks
        bool ended = false;
        uint64_t marks = 0;
    };

    explicit LinePipe(int read_fd) : reader([this, read_fd] { read_all(read_fd); }) {}
    ~LinePipe() { reader.join(); }  // the writers must have closed the pipe

    // Whether `done` held for what was read before the timeout passed.
    bool wait_for(const std::function<bool(const Seen&)>& done, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return done(seen); });
    }
    Seen snapshot() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen;
    }

private:
    void read_all(int fd) {
        std::string partial;
        char buffer[4096];
        for (ssize_t n; (n = read(fd, buffer, sizeof(buffer))) > 0 || (n < 0 && errno == EINTR);) {
            std::lock_guard<std::mutex> lock(mutex);
            for (ssize_t i = 0; i < n; ++i) {
                const char c = buffer[i];
                if (c == MARK) seen.marks++;
                if (c == MARK) continue;
                seen.text.push_back(c);
                if (c != '\n') partial.push_back(c);
                if (c == '\n') seen.lines.push_back({std::move(partial), vostrelka::time_us()}), partial.clear();
            }
            changed.notify_all();
        }
        close(fd);
        std::lock_guard<std::mutex> lock(mutex);
        if (!partial.empty()) seen.lines.push_back({partial, vostrelka::time_us()});
        seen.ended = true;
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    Seen seen;
    std::thread reader;
};

}  // namespace test_support
