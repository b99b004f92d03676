#include <gtest/gtest.h>

#include <vector>

#include "vostrelka/firmware_configurator/metadata.h"
#include "vostrelka/guarantor/unpack_msgs.h"

using namespace vostrelka;
using vostrelka::guarantor::GuarantorHeader;
using vostrelka::tessera::MessageInfo;

namespace {

struct Seen {
    uint32_t seq;
    uint8_t type;
    uint8_t id;
    std::vector<uint8_t> body;
};

struct Walk {
    int32_t result;
    std::vector<Seen> records;
};

Walk walk(const std::vector<uint8_t>& payload) {
    Walk w{};
    w.result = guarantor::unpack_msgs(
        ConstSlice<uint8_t>(payload.data(), payload.size()), [&](const GuarantorHeader& h, const MessageInfo& m) {
            w.records.push_back({h.seq, h.type, m.id, std::vector<uint8_t>(m.payload, m.payload + m.size)});
        });
    return w;
}

}  // namespace

// Under 8 bytes there is no record; 8 or 9 bytes are a cut one.
TEST(UnpackMsgs, ShortPayloads) {
    const struct {
        size_t length;
        int32_t result;
    } cases[] = {{0, 0}, {1, 0}, {7, 0}, {8, -1}, {9, -1}};
    for (const auto& c : cases) {
        const Walk w = walk(std::vector<uint8_t>(c.length, 0));
        EXPECT_EQ(w.result, c.result) << c.length;
        EXPECT_TRUE(w.records.empty()) << c.length;
    }
}

TEST(UnpackMsgs, EmptyBodyRecord) {
    const Walk w = walk({0x2A, 0, 0, 0, 1, 4, 0, 0, 0, 0});
    EXPECT_EQ(w.result, 0);
    ASSERT_EQ(w.records.size(), 1u);
    EXPECT_EQ(w.records[0].seq, 42u);
    EXPECT_EQ(w.records[0].type, GuarantorHeader::TYPE_REQUEST);
    EXPECT_EQ(w.records[0].id, 4);
    EXPECT_TRUE(w.records[0].body.empty());
}

TEST(UnpackMsgs, SizeClaimingTooMuchIsCutShort) {
    // 3 body bytes present, 4 claimed; and a size whose +5 would wrap 32 bits.
    for (uint8_t top : {0x00, 0xFF}) {
        const uint8_t low = top == 0 ? 4 : 0xFF;
        const Walk w = walk({0, 0, 0, 0, 0, 4, low, top, top, top, 1, 2, 3});
        EXPECT_EQ(w.result, -1);
        EXPECT_TRUE(w.records.empty());
    }
}

// The walk advances by size + 5, so a second record starts 5 bytes before the
// first one's end, inside its body.
TEST(UnpackMsgs, SecondRecordIsReadAtTheFiveByteStride) {
    const std::vector<uint8_t> payload = {
        1,    0, 0, 0, 0,  // seq 1, type 0
        4,    6, 0, 0, 0,  // id 4, size 6
        0xB0,              // body of 6 bytes, the last 5 of which are ...
        2,    0, 0, 0, 1,  // ... seq 2, type 1 of the second record,
        6,    0, 0, 0, 0,  // which goes on with id 6, size 0
    };
    const Walk w = walk(payload);
    EXPECT_EQ(w.result, 0);
    ASSERT_EQ(w.records.size(), 2u);
    EXPECT_EQ(w.records[0].id, 4);
    EXPECT_EQ(w.records[0].body, (std::vector<uint8_t>{0xB0, 2, 0, 0, 0, 1}));
    EXPECT_EQ(w.records[1].seq, 2u);
    EXPECT_EQ(w.records[1].type, GuarantorHeader::TYPE_REQUEST);
    EXPECT_EQ(w.records[1].id, 6);
    EXPECT_TRUE(w.records[1].body.empty());
}

TEST(UnpackMsgs, RecordsBeforeACutStayHandedOver) {
    std::vector<uint8_t> payload = {0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    payload[11] = 9;  // the strided record claims 9 body bytes, 0 are left
    const Walk w = walk(payload);
    EXPECT_EQ(w.result, -1);
    EXPECT_EQ(w.records.size(), 1u);
}

TEST(UnpackMsgs, DeviceConfigTravelsThroughAGuarantorRecord) {
    namespace fc = msgs::firmware_configurator;
    fc::device_config config;
    config.manet_config.utm_manet_addr = 0x0A000001;
    config.manet_config.utm_inet_port = 9000;
    uint8_t storage[256];
    Slice<uint8_t> out(storage, 0, sizeof storage);
    ASSERT_EQ(msgs::encode_guarantor_record(GuarantorHeader{77, GuarantorHeader::TYPE_DATA}, config, out), 121u);

    int seen = 0;
    const int32_t result =
        guarantor::unpack_msgs(ConstSlice<uint8_t>(out), [&](const GuarantorHeader& h, const MessageInfo& m) {
            seen++;
            EXPECT_EQ(h.seq, 77u);
            ASSERT_EQ(m.id, fc::device_config::ID);
            fc::device_config decoded;
            ASSERT_TRUE(fc::decode(m.body(), decoded));
            EXPECT_TRUE(decoded == config);
        });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(seen, 1);
}
