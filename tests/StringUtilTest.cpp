#include <gtest/gtest.h>

#include <cstring>

#include "vostrelka/FNV.h"
#include "vostrelka/string_util.h"

using namespace vostrelka;

namespace {

// The pieces, each in brackets.
std::string split_text(const char* text, ArrayList<ConstSlice<char>>& out) {
    EXPECT_EQ(split(ConstSlice<char>(text, std::strlen(text)), ',', out), out.size) << text;
    std::string pieces;
    for (const ConstSlice<char>& piece : out) pieces += "[" + std::string(piece.data, piece.size) + "]";
    return pieces;
}

}  // namespace

TEST(Split, KeepsEmptyPiecesAndTheTrailingOne) {
    const std::pair<const char*, const char*> cases[] = {
        {"a,b", "[a][b]"}, {"a,b,", "[a][b][]"}, {",", "[][]"}, {"", "[]"}, {",,a", "[][][a]"}};
    for (const auto& [text, pieces] : cases) {
        ArrayListAlloc<ConstSlice<char>, 8> out;
        EXPECT_EQ(split_text(text, out), pieces);
    }
}

TEST(Split, OverflowStoresWhatFitsAndReturnsCapacity) {
    ArrayListAlloc<ConstSlice<char>, 2> out;
    EXPECT_EQ(split_text("a,b,c", out), "[a][b]");
    EXPECT_TRUE(out.overflow);
    EXPECT_EQ(split_text("x", out), "[x]");
    EXPECT_FALSE(out.overflow) << "a split that fits starts clean";
    ArrayListAlloc<ConstSlice<char>, 0> none;
    EXPECT_EQ(split_text("", none), "");
    EXPECT_TRUE(none.overflow);
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
