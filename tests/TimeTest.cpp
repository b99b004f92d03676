#include <gtest/gtest.h>

#include "vostrelka/Time.h"

using namespace vostrelka;

TEST(DateTime, ConvertsUtcFieldsToMicroseconds) {
    EXPECT_EQ(DateTime{}.to_us(), 0);
    DateTime t;
    t.year = 2024;
    t.month = 2;
    t.day = 29;
    t.hour = 12;
    t.minute = 30;
    t.second = 15;
    t.microseconds = 250;
    EXPECT_EQ(t.to_us(), 1709209815LL * 1000000 + 250);
    t.month = 13;  // normalised, not refused: January of the next year
    t.day = 1;
    EXPECT_EQ(t.to_us(), 1735734615LL * 1000000 + 250);
}

TEST(Clock, MonotonicStampMapsOntoWallClock) {
    const int64_t mapped = time_utc_us(time_us());
    const int64_t wall = time_utc_us();
    EXPECT_LT(std::llabs(wall - mapped), 1000);
    EXPECT_TRUE(time_utc_valid());
}

TEST(Clock, MonotonicClockAdvances) {
    const int64_t before = time_us();
    sleep_us(2000);
    EXPECT_GE(time_us() - before, 2000);
    EXPECT_GE(time_us_irq(), before);
}
