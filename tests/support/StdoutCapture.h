#pragma once
// Catches what this process writes to standard output, line by line with the
// time each line arrived, for code that logs from its own threads. Standard
// output is pointed at a pipe for the capture's life and left unbuffered,
// so a line is seen as soon as it is written. Test failures
// reported meanwhile are captured too and passed on at the end.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

class StdoutCapture {
public:
    struct Line {
        std::string text;  // without the newline
        int64_t at_us;     // time_us() when it was read
    };

    StdoutCapture();
    ~StdoutCapture();  // restores standard output and writes the captured lines to it
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    bool ok() const { return reader.joinable(); }

    // Every line written so far, once the reader has caught up with them.
    std::vector<Line> lines();
    // Waits until `done` holds for the lines so far, or the timeout passes;
    // returns whether it held.
    bool wait_for(const std::function<bool(const std::vector<Line>&)>& done, std::chrono::milliseconds timeout);

private:
    void read_lines(int fd);

    int saved_stdout = -1;
    int write_end = -1;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Line> captured;
    uint64_t syncs_sent = 0;
    uint64_t syncs_seen = 0;
    std::thread reader;
};

}  // namespace test_support
