// The limit on peer-table lines: the first hundred of a second are printed
// as they come, the rest are counted into one summary line.
#include <gtest/gtest.h>

#include "PeerTableLog.h"
#include "support/InProcessGate.h"

using test_support::Lines;
using test_support::log_lines_of;
using vostrelka::PeerTableLog;

namespace {

constexpr int64_t T0_US = 5000000;

TEST(PeerTableLogTest, PastAHundredASecondLinesAreCountedIntoOneSummary) {
    PeerTableLog log;
    int admitted = 0;
    Lines during, after;
    during = log_lines_of([&] {
        for (int64_t i = 0; i < 250; ++i) admitted += log.admit(T0_US + i * 1000);
        log.flush(T0_US + PeerTableLog::WINDOW_US - 1);  // the second is not over
    });
    EXPECT_EQ(admitted, 100);
    EXPECT_EQ(during, Lines{});
    after = log_lines_of([&] {
        log.flush(T0_US + PeerTableLog::WINDOW_US);
        log.flush(T0_US + 3 * PeerTableLog::WINDOW_US);  // nothing more was held back
        EXPECT_TRUE(log.admit(T0_US + 3 * PeerTableLog::WINDOW_US));
    });
    EXPECT_EQ(after, Lines{"WARNING: 150 peer table lines not shown (more than 100 a second)"});
}

}  // namespace
