#include <gtest/gtest.h>

#include "vostrelka/ArrayList.h"
#include "vostrelka/RingBuffer.h"

using namespace vostrelka;

TEST(RingBuffer, PushIntoFullBufferOverwritesOldest) {
    int storage[4];
    RingBuffer<int> ring(storage, 4);
    for (int i = 1; i <= 5; i++) ring.push(i);
    EXPECT_EQ(ring.size(), 4u);
    EXPECT_EQ(ring.front(), 2);
    EXPECT_EQ(ring.oldest_index(), 1u);
    std::vector<int> popped;
    while (!ring.empty()) popped.push_back(ring.pop());
    EXPECT_EQ(popped, (std::vector<int>{2, 3, 4, 5}));
}

TEST(RingBuffer, WrapsAroundWithoutLosingOrder) {
    int storage[3];
    RingBuffer<int> ring(storage, 3);
    ring.push(1);
    ring.push(2);
    EXPECT_EQ(ring.pop(), 1);
    ring.push(3);
    ring.push(4);  // wraps to index 0
    EXPECT_EQ(ring.room(), 0u);
    EXPECT_EQ(ring.pop(), 2);
    EXPECT_EQ(ring.pop(), 3);
    EXPECT_EQ(ring.pop(), 4);
    EXPECT_TRUE(ring.empty());
}

TEST(RingBufferDeathTest, PopFromEmptyAborts) {
    int storage[2];
    RingBuffer<int> ring(storage, 2);
    EXPECT_DEATH(ring.pop(), "_size > 0");
}

TEST(ArrayList, RemoveMovesLaterElementsForward) {
    ArrayListAlloc<int, 5> list;
    for (int i = 0; i < 5; i++) list.push_back(i * 10);
    list.remove(1);
    ASSERT_EQ(list.size, 4u);
    EXPECT_EQ(std::vector<int>(list.begin(), list.end()), (std::vector<int>{0, 20, 30, 40}));
    list.remove(3);  // the last element
    EXPECT_EQ(std::vector<int>(list.begin(), list.end()), (std::vector<int>{0, 20, 30}));
    list.remove(3);  // past the end: nothing
    list.remove(100);
    EXPECT_EQ(list.size, 3u);
}

TEST(ArrayList, AppendToFullListSetsOverflow) {
    ArrayListAlloc<int, 2> list;
    EXPECT_TRUE(list.push_back(1));
    EXPECT_TRUE(list.push_back(2));
    EXPECT_FALSE(list.overflow);
    EXPECT_FALSE(list.push_back(3));
    EXPECT_TRUE(list.overflow);
    EXPECT_EQ(list.size, 2u);
    EXPECT_EQ(list[1], 2);
    list.clear();
    EXPECT_FALSE(list.overflow);
    EXPECT_EQ(list.capacity, 2u);
}
