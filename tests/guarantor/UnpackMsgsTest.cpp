#include <gtest/gtest.h>

#include "vostrelka/guarantor/unpack_msgs.h"

using namespace vostrelka;
using Records = std::vector<std::vector<uint8_t>>;

namespace {

// The result, and each record handed over as seq's low byte, type, id, then the body.
std::pair<int32_t, Records> walk(const std::vector<uint8_t>& payload) {
    Records records;
    const int32_t result =
        guarantor::unpack_msgs(ConstSlice<uint8_t>(payload.data(), payload.size()),
                               [&](const guarantor::GuarantorHeader& h, const tessera::MessageInfo& m) {
                                   records.push_back({uint8_t(h.seq), h.type, m.id});
                                   records.back().insert(records.back().end(), m.payload, m.payload + m.size);
                               });
    return {result, records};
}

}  // namespace

// Under 8 bytes there is no record; from 8 on a record that does not fit is cut.
TEST(UnpackMsgs, ShortOrCutPayloadsHandNothingOver) {
    const std::pair<std::vector<uint8_t>, int32_t> cases[] = {
        {{}, 0},
        {std::vector<uint8_t>(7, 0), 0},
        {std::vector<uint8_t>(9, 0), -1},
        {{0, 0, 0, 0, 0, 4, 4, 0, 0, 0, 1, 2, 3}, -1},            // 4 body bytes claimed, 3 present
        {{0, 0, 0, 0, 0, 4, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}, -1}};  // size + 5 wraps 32 bits
    for (const auto& [payload, result] : cases) EXPECT_EQ(walk(payload), std::make_pair(result, Records{}));
}

// The walk advances by size + 5, so a second record starts 5 bytes before the
// first one's end, inside its body. Records before a cut stay handed over.
TEST(UnpackMsgs, SecondRecordIsReadAtTheFiveByteStride) {
    std::vector<uint8_t> payload = {1,    0, 0, 0, 0, 4, 6, 0, 0, 0,  // seq 1, type 0, id 4, size 6
                                    0xB0, 2, 0, 0, 0, 1,              // a body whose last 5 bytes are seq 2, type 1 ...
                                    6,    0, 0, 0, 0};                // ... of a record going on with id 6, size 0
    const std::vector<uint8_t> first = {1, 0, 4, 0xB0, 2, 0, 0, 0, 1};
    EXPECT_EQ(walk(payload), std::make_pair(0, Records{first, {2, 1, 6}}));
    payload[17] = 1;  // the second record now claims a body byte that is not there
    EXPECT_EQ(walk(payload), std::make_pair(-1, Records{first}));
}
