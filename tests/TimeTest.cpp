#include <gtest/gtest.h>

#include "vostrelka/Time.h"

using namespace vostrelka;

TEST(DateTime, ConvertsUtcFieldsAndNormalisesOutOfRangeOnes) {
    EXPECT_EQ(DateTime{}.to_us(), 0);
    EXPECT_EQ((DateTime{250, 2024, 2, 29, 12, 30, 15}.to_us()), 1709209815LL * 1000000 + 250);
    EXPECT_EQ((DateTime{-1, 2024, 13, 1, 0, 0, 0}.to_us()), 1735689600LL * 1000000 - 1);  // January of the next year
}
