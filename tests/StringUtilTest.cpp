#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "vostrelka/FNV.h"
#include "vostrelka/string_util.h"

using namespace vostrelka;

namespace {

std::vector<std::string> pieces(const ArrayList<ConstSlice<char>>& list) {
    std::vector<std::string> out;
    for (const ConstSlice<char>& piece : list) out.emplace_back(piece.data, piece.size);
    return out;
}

ConstSlice<char> text(const char* s) {
    return ConstSlice<char>(s, std::strlen(s));
}

}  // namespace

TEST(Split, KeepsEmptyPiecesAndTheTrailingOne) {
    struct Case {
        const char* input;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"a,b", {"a", "b"}}, {"a,b,", {"a", "b", ""}}, {",", {"", ""}},
        {"", {""}},          {",,a", {"", "", "a"}},   {"abc", {"abc"}},
    };
    for (const Case& c : cases) {
        ArrayListAlloc<ConstSlice<char>, 8> out;
        EXPECT_EQ(split(text(c.input), ',', out), c.expected.size()) << c.input;
        EXPECT_EQ(pieces(out), c.expected) << c.input;
        EXPECT_FALSE(out.overflow) << c.input;
    }
}

TEST(Split, OverflowStoresWhatFitsAndReturnsCapacity) {
    ArrayListAlloc<ConstSlice<char>, 2> out;
    EXPECT_EQ(split(text("a,b,c"), ',', out), 2u);
    EXPECT_TRUE(out.overflow);
    EXPECT_EQ(pieces(out), (std::vector<std::string>{"a", "b"}));

    // A later split that fits starts clean.
    EXPECT_EQ(split(text("x"), ',', out), 1u);
    EXPECT_FALSE(out.overflow);
}

TEST(Split, EmptyTextIntoNoRoomOverflows) {
    ArrayListAlloc<ConstSlice<char>, 0> none;
    EXPECT_EQ(split(text(""), ',', none), 0u);
    EXPECT_TRUE(none.overflow);
    ArrayListAlloc<ConstSlice<char>, 1> one;
    EXPECT_EQ(split(text(""), ',', one), 1u);
    EXPECT_EQ(one[0].size, 0u);
}

TEST(SplitAddressString, HostMustFitWithItsTerminator) {
    char host[16];
    uint16_t port = 0;
    EXPECT_EQ(split_address_string("host:80", host, 5, port), -1);
    EXPECT_EQ(split_address_string("host:80", host, 6, port), 0);
    EXPECT_STREQ(host, "host");
    EXPECT_EQ(port, 80);
}

TEST(SplitAddressString, PortIsNotValidated) {
    struct Case {
        const char* input;
        const char* host;
        uint16_t port;
    };
    const Case cases[] = {
        {"h:", "h", 0}, {"h:70000", "h", 4464}, {"h:12ab", "h", 12}, {":1", "", 1}, {"a:b:80", "a", 0},
    };
    for (const Case& c : cases) {
        char host[16] = "unchanged";
        uint16_t port = 999;
        ASSERT_EQ(split_address_string(c.input, host, sizeof host, port), 0) << c.input;
        EXPECT_STREQ(host, c.host) << c.input;
        EXPECT_EQ(port, c.port) << c.input;
    }
    char host[16];
    uint16_t port = 0;
    EXPECT_EQ(split_address_string("", host, sizeof host, port), -1);
    EXPECT_EQ(split_address_string("nocolon", host, sizeof host, port), -1);
}

TEST(SliceFromCstr, NeedsTerminatorWithinMaxLen) {
    const char field[4] = {'a', 'b', 'c', 'd'};
    ConstSlice<char> none = slice_from_cstr(field, sizeof field);
    EXPECT_EQ(none.data, nullptr);
    EXPECT_EQ(none.size, 0u);

    const char terminated[4] = {'a', 'b', '\0', 'x'};
    ConstSlice<char> ab = slice_from_cstr(terminated, sizeof terminated);
    EXPECT_EQ(std::string(ab.data, ab.size), "ab");
}

TEST(Fnv1a64, MatchesPublishedVectors) {
    const auto hash = [](const char* s) {
        return fnv1a_64_hash(reinterpret_cast<const uint8_t*>(s), std::strlen(s), FNV1A_64_OFFSET_BASIS);
    };
    EXPECT_EQ(hash(""), 0xcbf29ce484222325ULL);
    EXPECT_EQ(hash("a"), 0xaf63dc4c8601ec8cULL);
    EXPECT_EQ(hash("foobar"), 0x85944171f73967e8ULL);
}

TEST(Fnv1a64, ContinuesFromAnEarlierResult) {
    const uint8_t* foo = reinterpret_cast<const uint8_t*>("foo");
    const uint8_t* bar = reinterpret_cast<const uint8_t*>("bar");
    const uint64_t half = fnv1a_64_hash(foo, 3, FNV1A_64_OFFSET_BASIS);
    EXPECT_EQ(fnv1a_64_hash(bar, 3, half), 0x85944171f73967e8ULL);
}
