#include <gtest/gtest.h>

#include <vector>

#include "vostrelka/ArrayList.h"
#include "vostrelka/RingBuffer.h"

using namespace vostrelka;

TEST(RingBuffer, PushIntoFullBufferOverwritesOldestAndOrderSurvivesTheWrap) {
    int storage[4];
    RingBuffer<int> ring(storage, 4);
    for (int i = 1; i <= 5; i++) ring.push(i);
    EXPECT_EQ(ring.size(), 4u);
    EXPECT_EQ(ring.front(), 2);
    EXPECT_EQ(ring.pop(), 2);
    ring.push(6);
    std::vector<int> rest;
    while (!ring.empty()) rest.push_back(ring.pop());
    EXPECT_EQ(rest, (std::vector<int>{3, 4, 5, 6}));
}

TEST(ArrayList, RemoveShiftsLaterElementsForwardAndIgnoresIndexPastTheEnd) {
    ArrayListAlloc<int, 4> list;
    for (int i : {0, 10, 20, 30}) list.push_back(i);
    list.remove(1);
    list.remove(3);
    EXPECT_EQ(std::vector<int>(list.begin(), list.end()), (std::vector<int>{0, 20, 30}));
}
