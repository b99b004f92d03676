// The framework's small utilities: time, containers, text.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "vostrelka/ArrayList.h"
#include "vostrelka/FNV.h"
#include "vostrelka/RingBuffer.h"
#include "vostrelka/Time.h"
#include "vostrelka/string_util.h"

using namespace vostrelka;

TEST(DateTime, ConvertsUtcFieldsAndNormalisesOutOfRangeOnes) {
    EXPECT_EQ(DateTime{}.to_us(), 0);
    EXPECT_EQ((DateTime{250, 2024, 2, 29, 12, 30, 15}.to_us()), 1709209815LL * 1000000 + 250);
    EXPECT_EQ((DateTime{-1, 2024, 13, 1, 0, 0, 0}.to_us()), 1735689600LL * 1000000 - 1);  // January of the next year
}

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

namespace {

// The pieces, each in brackets.
std::string split_text(const char* text, ArrayList<ConstSlice<char>>& out) {
    EXPECT_EQ(split(ConstSlice<char>(text, std::strlen(text)), ',', out), out.size) << text;
    std::string pieces;
    for (const ConstSlice<char>& piece : out) pieces += "[" + std::string(piece.data, piece.size) + "]";
    return pieces;
}

}  // namespace

// A split that does not fit stores what fits and returns the capacity; one that fits starts clean.
TEST(Split, KeepsEmptyPiecesAndTheTrailingOneAndFlagsOverflow) {
    const std::pair<const char*, const char*> cases[] = {
        {"a,b", "[a][b]"}, {",", "[][]"}, {"", "[]"}, {",,a", "[][][a]"}, {"a,b,c", "[a][b][c]"}, {"a,b,", "[a][b][]"}};
    ArrayListAlloc<ConstSlice<char>, 3> out;
    for (const auto& [text, pieces] : cases) EXPECT_EQ(split_text(text, out), pieces);
    EXPECT_FALSE(out.overflow);
    EXPECT_EQ(split_text("a,b,c,d", out), "[a][b][c]");
    EXPECT_TRUE(out.overflow);
    EXPECT_EQ(split_text("x", out), "[x]");
    EXPECT_FALSE(out.overflow);
}

TEST(SplitAddressString, HostMustFitWithItsTerminatorAndThePortIsNotValidated) {
    char host[8];
    uint16_t port = 0;
    EXPECT_EQ(split_address_string("host:80", host, 5, port), -1);
    EXPECT_EQ(split_address_string("host:70000", host, 6, port), 0);
    EXPECT_STREQ(host, "host");
    EXPECT_EQ(port, 4464);
    EXPECT_EQ(split_address_string(":12ab", host, 2, port), 0);  // an empty host fits too
    EXPECT_EQ(port, 12);
}

TEST(Fnv1a64, MatchesPublishedVectorsAndContinuesFromAnEarlierResult) {
    const auto hash = [](const char* s, uint64_t start = FNV1A_64_OFFSET_BASIS) {
        return fnv1a_64_hash(reinterpret_cast<const uint8_t*>(s), std::strlen(s), start);
    };
    EXPECT_EQ(hash(""), 0xcbf29ce484222325ULL);
    EXPECT_EQ(hash("bar", hash("foo")), 0x85944171f73967e8ULL);
}
