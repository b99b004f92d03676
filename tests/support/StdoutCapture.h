#pragma once
// Catches what this process writes to standard output, for code that logs
// from its own threads. Standard output goes to a pipe for the capture's
// life, unbuffered, so a line is seen as soon as it is written; at the end
// everything is passed on, test failures reported meanwhile included.
#include <fcntl.h>

#include <cstdio>
#include <memory>

#include "support/LinePipe.h"

namespace test_support {

class StdoutCapture {
public:
    using Line = LinePipe::Line;

    StdoutCapture() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
        std::fflush(stdout);
        saved_stdout = dup(STDOUT_FILENO);
        dup2(ends[1], STDOUT_FILENO);
        write_end = ends[1];
        // Not line-buffered: switching a stream that has written already
        // leaves a lone newline in the buffer until the next flush.
        std::setvbuf(stdout, nullptr, _IONBF, 0);
        pipe = std::make_unique<LinePipe>(ends[0]);
    }
    ~StdoutCapture() {
        dup2(saved_stdout, STDOUT_FILENO);
        close(saved_stdout);
        close(write_end);
        pipe->wait_for([](const LinePipe::Seen& seen) { return seen.ended; }, std::chrono::seconds(5));
        for (const auto& line : pipe->snapshot().lines) std::printf("%s\n", line.text.c_str());
    }

    // Every line written so far: a mark written after them is read after them.
    std::vector<Line> lines() {
        const uint64_t ticket = ++marks_sent;
        if (write(write_end, &LinePipe::MARK, 1) == 1) {
            pipe->wait_for([&](const LinePipe::Seen& seen) { return seen.marks >= ticket; }, std::chrono::seconds(5));
        }
        return pipe->snapshot().lines;
    }
    bool wait_for(const std::function<bool(const std::vector<Line>&)>& done, std::chrono::milliseconds timeout) {
        return pipe->wait_for([&](const LinePipe::Seen& seen) { return done(seen.lines); }, timeout);
    }

private:
    int saved_stdout = -1;
    int write_end = -1;
    uint64_t marks_sent = 0;
    std::unique_ptr<LinePipe> pipe;
};

}  // namespace test_support
