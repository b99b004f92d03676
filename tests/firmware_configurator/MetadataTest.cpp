#include <gtest/gtest.h>

#include <cstring>

#include "vostrelka/firmware_configurator/metadata.h"

using namespace vostrelka;
using namespace vostrelka::msgs;

TEST(Metadata, BaseConfigRecordHasTheModemLayout) {
    uint8_t storage[32];
    Slice<uint8_t> out(storage, 0, sizeof storage);
    const rfmodem::base_config config{5, 1.0f, 3};
    ASSERT_EQ(encode_record(config, out), 14u);
    EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.end()),
              (std::vector<uint8_t>{0x01, 0x09, 0, 0, 0, 0x05, 0, 0, 0, 0, 0, 0x80, 0x3F, 0x03}));
    rfmodem::base_config back;
    ASSERT_TRUE(decode(ConstSlice<uint8_t>(storage + 5, 9), back));
    EXPECT_TRUE(back == config);
}

// Body fields: serial 0-31, hash 32-47, cfg_id 48, then the nested manet_config.
TEST(Metadata, DeviceConfigTravelsInAGuarantorRecordWithItsFieldsAtTheirOffsets) {
    firmware_configurator::device_config d;
    std::memcpy(d.device_serial, "SN-0042", 7);
    std::memset(d.hash, 0x8F, 16);
    std::memset(d.manet_config.node_manet_key, 0x6F, 16);
    d.cfg_id = 7;
    d.manet_config.node_manet_addr = 0x11223344;
    d.manet_config.utm_manet_addr = 0xA1B2C3D4;
    d.manet_config.utm_inet_port = 0x1F90;
    std::memcpy(d.manet_config.utm_inet_host, "utm.example.net", 15);
    d.manet_config.generic_config_json = "xyz";
    uint8_t record[124];
    Slice<uint8_t> out(record, 0, sizeof record);
    ASSERT_EQ(encode_guarantor_record(guarantor::GuarantorHeader{77, 2}, d, out), 124u);
    const std::string expected = std::string("\x4D\0\0\0\x02\x04\x72\0\0\0", 10) +  // seq, type, id, body size
                                 std::string("SN-0042").append(25, '\0') + std::string(16, '\x8F') + '\x07' +
                                 "\x44\x33\x22\x11\xD4\xC3\xB2\xA1\x90\x1F" + std::string(16, '\x6F') +
                                 std::string("utm.example.net").append(17, '\0') + std::string("\x03\0\0\0xyz", 7);
    EXPECT_EQ(std::string(record, record + 124), expected);
    firmware_configurator::device_config back;
    ASSERT_TRUE(decode(ConstSlice<uint8_t>(record + 10, 114), back));
    EXPECT_TRUE(back == d);
}

// The schema texts are what gatecat and the capture dissector read, and the
// fixed sizes what every encoder and decoder keeps to.
TEST(Metadata, DescriptorsStateEachMessagesFieldsInWireOrder) {
    using namespace firmware_configurator;
    using namespace rfmodem;
    const MessageMetadata* const manet = &manet_config::METADATA;
    const struct {
        const MessageMetadata& metadata;
        uint64_t fixed_body_size;
        const char* name;
        const char* schema;
        uint64_t expected_size;
        const MessageMetadata* nested;
    } cases[] = {
        {utm_status::METADATA, utm_status::FIXED_BODY_SIZE, "utm_status", "uint32_t manet_addr;uint8_t online;", 5,
         nullptr},
        {ack::METADATA, ack::FIXED_BODY_SIZE, "ack", "int8_t status;string status_str;", 5, nullptr},
        {manet_config::METADATA, manet_config::FIXED_BODY_SIZE, "manet_config",
         "uint32_t node_manet_addr;uint32_t utm_manet_addr;uint16_t utm_inet_port;uint8_t[16] node_manet_key;"
         "uint8_t[32] utm_inet_host;string generic_config_json;",
         62, nullptr},
        {set_config::METADATA, set_config::FIXED_BODY_SIZE, "set_config",
         "uint8_t finalize;uint8_t[16] hash;manet_config manet_config;", 79, manet},
        {device_config::METADATA, device_config::FIXED_BODY_SIZE, "device_config",
         "uint8_t[32] device_serial;uint8_t[16] hash;uint8_t cfg_id;manet_config manet_config;", 111, manet},
        {base_config::METADATA, base_config::FIXED_BODY_SIZE, "base_config",
         "uint32_t addr;float power;uint8_t channel;", 9, nullptr},
        {client_config::METADATA, client_config::FIXED_BODY_SIZE, "client_config", "float power;", 4, nullptr},
        {stats::METADATA, stats::FIXED_BODY_SIZE, "stats",
         "uint32_t freq;float local_signal;float local_noise;float remote_signal;float remote_noise;uint8_t channel;"
         "uint8_t state;uint8_t local_per;uint8_t remote_per;uint8_t util_rx;uint8_t util_tx;",
         26, nullptr},
    };
    for (const auto& c : cases) {
        EXPECT_STREQ(c.metadata.name, c.name);
        EXPECT_STREQ(c.metadata.schema, c.schema) << c.name;
        EXPECT_EQ(c.fixed_body_size, c.expected_size) << c.name;
        EXPECT_EQ(c.metadata.nested[0], c.nested) << c.name;
        if (c.nested != nullptr) {
            EXPECT_EQ(c.metadata.nested[1], nullptr) << c.name;
        }
    }
}

// Every prefix of a body is refused and leaves the target as it was; encode
// writes exactly the body or, without room for all of it, nothing.
TEST(Metadata, CodecRefusesCutShortBodiesAndTooLittleRoom) {
    firmware_configurator::device_config d;
    d.cfg_id = 9;
    d.manet_config.generic_config_json = "xyz";
    uint8_t body[115] = {};
    Slice<uint8_t> out(body, 0, 114);
    ASSERT_EQ(encode(d, out), 114u);
    firmware_configurator::device_config target;
    target.cfg_id = 1;
    for (uint64_t size = 0; size < 114; size++) {
        EXPECT_FALSE(decode(ConstSlice<uint8_t>(body, size), target)) << size;
        EXPECT_EQ(target.cfg_id, 1) << size;
    }
    ASSERT_TRUE(decode(ConstSlice<uint8_t>(body, 115), target));  // a byte after the last field is not ours to judge
    EXPECT_TRUE(target == d);
    Slice<uint8_t> small(body, 1, 114);
    EXPECT_EQ(encode(d, small), 0u);
    EXPECT_EQ(small.size, 1u);
}
