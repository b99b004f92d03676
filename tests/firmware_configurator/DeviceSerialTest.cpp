#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/TempDir.h"
#include "vostrelka/firmware_configurator/serial.h"

using namespace vostrelka::firmware_configurator;

namespace {

device_config valid_config() {
    device_config c;
    std::memcpy(c.device_serial, "GW-000123", 9);
    c.manet_config.utm_manet_addr = 7;
    c.manet_config.utm_inet_port = 9000;
    std::memcpy(c.manet_config.utm_inet_host, "utm.local", 9);
    return c;
}

}  // namespace

TEST(DeviceSerial, DeviceConfigRulesAndHashComparison) {
    EXPECT_TRUE(validate_device_config(valid_config()));
    const struct {
        const char* why;
        void (*spoil)(device_config&);
    } invalid[] = {
        {"serial without NUL", [](device_config& c) { std::memset(c.device_serial, 'S', 32); }},
        {"empty serial", [](device_config& c) { std::memset(c.device_serial, 0, 32); }},
        {"control character in serial", [](device_config& c) { c.device_serial[2] = '\n'; }},
        {"host without NUL", [](device_config& c) { std::memset(c.manet_config.utm_inet_host, 'h', 32); }},
        {"UTM without host", [](device_config& c) { c.manet_config.utm_inet_host[0] = '\0'; }},
        {"UTM without port", [](device_config& c) { c.manet_config.utm_inet_port = 0; }},
    };
    for (const auto& c : invalid) {
        device_config config = valid_config();
        c.spoil(config);
        EXPECT_FALSE(validate_device_config(config)) << c.why;
    }

    device_config a = valid_config(), b = valid_config();
    b.device_serial[0] = 'X';  // only the hash counts
    EXPECT_TRUE(check_device_config_same(a, b));
    b.hash[15] ^= 1;
    EXPECT_FALSE(check_device_config_same(a, b));
}

TEST(DeviceSerial, FirmwareCompatibilityNumberIsTheThirdNumber) {
    const uint32_t INVALID = INVALID_COMPATIBILITY_NUMBER;
    const std::pair<const char*, uint32_t> cases[] = {{"1.4.27.3", 27},
                                                      {"1.4.2147483647.0", 2147483647},
                                                      {"1.4.2147483648.0", INVALID},
                                                      {"1.4.27", INVALID},
                                                      {"1.4..3", INVALID},
                                                      {"1.4.2a.3", INVALID}};
    for (const auto& [version, expected] : cases) {
        char text[32] = {};
        std::strncpy(text, version, sizeof text - 1);
        EXPECT_EQ(get_firmware_compatibility_number(text), expected) << version;
    }
}

TEST(DeviceSerial, LoadsOnlyAnExactSerialLineWithAValidValue) {
    test_support::TempDir dir;
    char serial[32] = "untouched";
    EXPECT_TRUE(load_serial(dir.write_file("a", "SERIALS other\nSERIAL GW-000123\n"), serial));
    EXPECT_STREQ(serial, "GW-000123");
    for (const char* bad : {"SERIAL GW 1\n", "SERIAL \n", "SERIA GW-1\n"}) {
        EXPECT_FALSE(load_serial(dir.write_file("b", bad), serial)) << bad;
        EXPECT_STREQ(serial, "GW-000123") << "left as it was";
    }
}
