#include <gtest/gtest.h>

#include "vostrelka/FNV.h"

TEST(Placeholder, Builds) { EXPECT_EQ(vostrelka::fnv1a_64_hash(nullptr, 0, 5), 5u); }
