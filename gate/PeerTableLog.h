#pragma once
// The lines that report peer-table changes ("add local peer ...", "Remove
// MANet peer ...", ...) are printed whatever the debug level, and traffic
// decides how many there are: a flood of new source addresses would print
// two per frame. This keeps them to LINES_PER_WINDOW a second; past that,
// one summary line at the start of the next second says how many were not
// shown. Below the limit every line is printed as it comes.
#include <cstdint>

namespace vostrelka {

class PeerTableLog {
public:
    static constexpr uint32_t LINES_PER_WINDOW = 100;
    static constexpr int64_t WINDOW_US = 1000000;

    // True when a line may be printed at `now_us`; counts it either way.
    bool admit(int64_t now_us);
    // Prints the summary of a window that has ended, if lines were held back.
    void flush(int64_t now_us);
    bool holding_back() const { return hidden != 0; }

private:
    void start_window(int64_t now_us);

    int64_t window_start_us = 0;
    bool started = false;
    uint32_t shown = 0;
    uint64_t hidden = 0;
};

}  // namespace vostrelka
