#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/TempDir.h"
#include "vostrelka/firmware_configurator/serial.h"

using namespace vostrelka::firmware_configurator;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

device_config valid_config() {
    device_config c;
    std::memcpy(c.device_serial, "GW-000123", 9);
    c.manet_config.utm_manet_addr = 7;
    c.manet_config.utm_inet_port = 9000;
    std::memcpy(c.manet_config.utm_inet_host, "utm.local", 9);
    return c;
}

uint32_t compatibility(const std::string& version) {
    char text[32] = {};
    std::memcpy(text, version.data(), std::min(version.size(), sizeof text));
    return get_firmware_compatibility_number(text);
}

struct SerialLoad {
    bool ok;
    std::string serial;
    std::string log;
};

SerialLoad load(const std::string& content) {
    test_support::TempDir dir;
    const std::string path = dir.write_file("serial", content);
    char serial[32];
    std::memset(serial, 'q', sizeof serial);
    serial[31] = '\0';
    CaptureStdout();
    const bool ok = load_serial(path, serial);
    const std::string log = GetCapturedStdout();
    if (ok) {
        for (size_t i = std::strlen(serial); i < sizeof serial; i++) EXPECT_EQ(serial[i], '\0') << "NUL padding";
    }
    return {ok, serial, log};
}

}  // namespace

TEST(DeviceSerial, SerialMustEndWithinItsField) {
    device_config c = valid_config();
    EXPECT_TRUE(validate_serial(c));
    std::memset(c.device_serial, 'S', 31);
    EXPECT_TRUE(validate_serial(c));
    c.device_serial[31] = 'S';
    EXPECT_FALSE(validate_serial(c));
}

TEST(DeviceSerial, DeviceConfigRules) {
    EXPECT_TRUE(validate_device_config(valid_config()));

    device_config no_utm = valid_config();
    no_utm.manet_config.utm_manet_addr = 0;
    no_utm.manet_config.utm_inet_port = 0;
    no_utm.manet_config.utm_inet_host[0] = '\0';
    EXPECT_TRUE(validate_device_config(no_utm)) << "a device may name no UTM at all";

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
}

TEST(DeviceSerial, ConfigsAreTheSameWhenTheirHashesAre) {
    device_config a = valid_config();
    device_config b = valid_config();
    b.cfg_id = 9;
    b.device_serial[0] = 'X';
    EXPECT_TRUE(check_device_config_same(a, b));
    for (int byte : {0, 7, 8, 15}) {
        device_config c = a;
        c.hash[byte] ^= 1;
        EXPECT_FALSE(check_device_config_same(a, c)) << byte;
    }
}

TEST(DeviceSerial, FirmwareCompatibilityNumber) {
    const struct {
        const char* version;
        uint32_t expected;
    } cases[] = {
        {"1.4.27.3", 27},
        {"0.0.0.", 0},
        {"1.4.2147483647.0", 2147483647},
        {"1.4.2147483648.0", INVALID_COMPATIBILITY_NUMBER},
        {"1.4.99999999999999999999.0", INVALID_COMPATIBILITY_NUMBER},
        {"1.4.27", INVALID_COMPATIBILITY_NUMBER},
        {"1.4..3", INVALID_COMPATIBILITY_NUMBER},
        {"1.4.2a.3", INVALID_COMPATIBILITY_NUMBER},
        {"1.4.+2.3", INVALID_COMPATIBILITY_NUMBER},
        {"", INVALID_COMPATIBILITY_NUMBER},
        {"1.4.27.3x", 27},
    };
    for (const auto& c : cases) EXPECT_EQ(compatibility(c.version), c.expected) << c.version;

    // Only the first 31 characters are looked at.
    const std::string third_dot_at_31st = "1." + std::string(26, '2') + ".3.";
    const std::string third_dot_at_32nd = "1." + std::string(27, '2') + ".3.";
    EXPECT_EQ(compatibility(third_dot_at_31st), 3u);
    EXPECT_EQ(compatibility(third_dot_at_32nd), INVALID_COMPATIBILITY_NUMBER);
}

TEST(DeviceSerial, LoadsTheSerialLine) {
    const SerialLoad l = load("# device identity\nMODEL gw2\nSERIAL GW-000123\nSERIALS other\nSERIA x\n");
    EXPECT_TRUE(l.ok);
    EXPECT_EQ(l.serial, "GW-000123");
    EXPECT_EQ(l.log, "");
    EXPECT_EQ(load("SERIAL " + std::string(31, '9')).serial, std::string(31, '9'));
}

TEST(DeviceSerial, RefusesBadSerialValues) {
    const std::string untouched(31, 'q');
    for (const std::string& content :
         std::vector<std::string>{"SERIAL \n", "SERIAL " + std::string(32, '9') + "\n", "SERIAL GW 1\n", "MODEL gw2\n",
                                  "", "SERIAL good\nSERIAL \n"}) {
        const SerialLoad l = load(content);
        EXPECT_FALSE(l.ok) << content;
        EXPECT_EQ(l.serial, untouched) << content;
    }
}

TEST(DeviceSerial, SerialFileErrorsAreReported) {
    const SerialLoad overflow = load("#" + std::string(200, 'x') + "\nSERIAL GW-1\n");
    EXPECT_FALSE(overflow.ok);
    EXPECT_EQ(overflow.log, "ERROR: buffer overflow\n");

    char serial[32] = {};
    CaptureStdout();
    EXPECT_FALSE(load_serial("/nonexistent-dir/serial", serial));
    EXPECT_EQ(GetCapturedStdout(), "ERROR: failed to open serial file for reading /nonexistent-dir/serial\n");
}
