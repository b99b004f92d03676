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
