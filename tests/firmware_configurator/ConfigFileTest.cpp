#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "support/TempDir.h"
#include "vostrelka/firmware_configurator/config.h"

using namespace vostrelka;
using namespace vostrelka::firmware_configurator;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

ConstSlice<char> text(const std::string& s) {
    return ConstSlice<char>(s.data(), s.size());
}

std::string host_of(const manet_config& c) {
    return reinterpret_cast<const char*>(c.utm_inet_host);
}

const char* const KEY_LINE = "KEY 000102030405060708090a0b0c0d0e0F";

std::string full_file() {
    return std::string("ADDR 0A0B0C0D\n") + KEY_LINE +
           "\nUTM_ADDR 00000007\nUTM_INET_ADDR utm.example.net\nUTM_INET_PORT 9000\n";
}

struct Loaded {
    bool ok;
    manet_config config;
    std::string log;
};

Loaded load(const std::string& path, manet_config start = {}) {
    Loaded l{false, start, ""};
    CaptureStdout();
    l.ok = load_manet_config(path.c_str(), l.config);
    l.log = GetCapturedStdout();
    return l;
}

Loaded load_text(const std::string& content) {
    test_support::TempDir dir;
    return load(dir.write_file("manet.conf", content));
}

void expect_full_file_fields(const manet_config& c) {
    EXPECT_EQ(c.node_manet_addr, 0x0A0B0C0Du);
    for (int i = 0; i < 16; i++) EXPECT_EQ(c.node_manet_key[i], i) << i;
    EXPECT_EQ(c.utm_manet_addr, 7u);
    EXPECT_EQ(host_of(c), "utm.example.net");
    EXPECT_EQ(c.utm_inet_port, 9000);
}

}  // namespace

TEST(ConfigFile, LoadsKeysInAnyOrderAmongCommentsAndNoise) {
    // Longer than the 128-byte buffer, so lines cross refills.
    const std::string content =
        "# device settings, written by hand\n"
        "\n"
        "# " +
        std::string(100, '-') +
        "\n"
        "UTM_INET_PORT 9000\n"
        "nospace\n"
        "# the key goes last but one\n"
        "UTM_INET_ADDR utm.example.net\n"
        "SOMETHING else\n"
        "UTM_ADDR 00000007\n" +
        std::string(KEY_LINE) + "\nADDR 0a0b0c0d\n";
    ASSERT_GT(content.size(), 2 * 128u);
    const Loaded l = load_text(content);
    EXPECT_TRUE(l.ok);
    expect_full_file_fields(l.config);
    EXPECT_EQ(l.log, "");
}

TEST(ConfigFile, MissingKeyFailsButFillsTheOtherFields) {
    std::string content = full_file();
    content.erase(content.find("UTM_INET_PORT"));
    manet_config start;
    start.utm_inet_port = 4321;
    test_support::TempDir dir;
    const Loaded l = load(dir.write_file("manet.conf", content), start);
    EXPECT_FALSE(l.ok);
    EXPECT_EQ(l.config.node_manet_addr, 0x0A0B0C0Du);
    EXPECT_EQ(l.config.utm_manet_addr, 7u);
    EXPECT_EQ(host_of(l.config), "utm.example.net");
    EXPECT_EQ(l.config.utm_inet_port, 4321);  // not read, left alone
}

TEST(ConfigFile, LastLineWithoutNewlineCounts) {
    std::string content = full_file();
    content.pop_back();
    const Loaded l = load_text(content);
    EXPECT_TRUE(l.ok);
    EXPECT_EQ(l.config.utm_inet_port, 9000);
}

TEST(ConfigFile, LaterLineDecidesValueAndValidity) {
    EXPECT_FALSE(load_text(full_file() + "UTM_INET_PORT 80x\n").ok);
    const Loaded l = load_text("UTM_INET_PORT 80x\n" + full_file() + "ADDR 00000001\n");
    EXPECT_TRUE(l.ok);
    EXPECT_EQ(l.config.node_manet_addr, 1u);
}

TEST(ConfigFile, KeyPrefixSelectsTheFirstNameStartingWithIt) {
    const Loaded l = load_text(std::string(" 00000011\n") +  // empty key: ADDR
                               "K 0102030405060708090A0B0C0D0E0F10\n"
                               "UTM 00000022\n"
                               "UTM_INET 10.1.2.3\n"
                               "UTM_INET_P 7000\n"
                               "ADDRESS 00000033\n"  // longer than a name: no match
                               "UTM_INET_PORTS 1\n");
    EXPECT_TRUE(l.ok);
    EXPECT_EQ(l.config.node_manet_addr, 0x11u);
    EXPECT_EQ(l.config.node_manet_key[15], 0x10);
    EXPECT_EQ(l.config.utm_manet_addr, 0x22u);
    EXPECT_EQ(host_of(l.config), "10.1.2.3");
    EXPECT_EQ(l.config.utm_inet_port, 7000);
}

TEST(ConfigFile, LineFillingTheBufferEndsTheReading) {
    const std::string longest_fitting = "#" + std::string(126, 'c') + "\n";  // 128 bytes with its newline
    const Loaded fits = load_text(longest_fitting + full_file());
    EXPECT_TRUE(fits.ok);
    EXPECT_EQ(fits.log, "");

    for (size_t length : {128, 200}) {
        const Loaded l = load_text("ADDR 00000005\n#" + std::string(length - 1, 'c') + "\n" + full_file());
        EXPECT_FALSE(l.ok) << length;
        EXPECT_EQ(l.log, "ERROR: buffer overflow\n") << length;
        EXPECT_EQ(l.config.node_manet_addr, 5u) << "lines before the long one are kept";
    }
}

TEST(ConfigFile, UnopenableFileIsReported) {
    const Loaded l = load("/nonexistent-dir/manet.conf");
    EXPECT_FALSE(l.ok);
    EXPECT_EQ(l.log, "ERROR: failed to open config file for reading /nonexistent-dir/manet.conf\n");

    CaptureStdout();
    EXPECT_FALSE(save_manet_config("/nonexistent-dir/manet.conf", manet_config{}));
    EXPECT_EQ(GetCapturedStdout(), "ERROR: failed to open config file for writing /nonexistent-dir/manet.conf\n");
}

TEST(ConfigFile, ReadErrorIsReported) {
    test_support::TempDir dir;
    const Loaded l = load(dir.path());  // a directory opens but does not read
    EXPECT_FALSE(l.ok);
    EXPECT_EQ(l.log, "ERROR: reading file: -1\n");
}

TEST(ConfigFile, SavedFileHasTheFiveLinesAndLoadsBack) {
    manet_config config;
    config.node_manet_addr = 0x0A0B0C0D;
    for (int i = 0; i < 16; i++) config.node_manet_key[i] = static_cast<uint8_t>(0xF0 + i);
    config.utm_manet_addr = 0x80000001;
    std::memcpy(config.utm_inet_host, "0123456789012345678901234567890", 31);  // longest host
    config.utm_inet_port = 65535;

    test_support::TempDir dir;
    const std::string path = dir.path() + "/saved.conf";
    ASSERT_TRUE(save_manet_config(path.c_str(), config));
    std::ifstream file(path);
    std::stringstream written;
    written << file.rdbuf();
    EXPECT_EQ(written.str(),
              "ADDR 0A0B0C0D\n"
              "KEY F0F1F2F3F4F5F6F7F8F9FAFBFCFDFEFF\n"
              "UTM_ADDR 80000001\n"
              "UTM_INET_ADDR 0123456789012345678901234567890\n"
              "UTM_INET_PORT 65535\n");

    const Loaded l = load(path);
    EXPECT_TRUE(l.ok);
    EXPECT_TRUE(l.config == config);
}

TEST(ConfigFile, FailedWriteIsReportedWithTheLine) {
    if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
    manet_config config;
    config.node_manet_addr = 5;
    CaptureStdout();
    EXPECT_FALSE(save_manet_config("/dev/full", config));
    EXPECT_EQ(GetCapturedStdout(), "ERROR: failed to write into configuration file, Line: ADDR 00000005\n");
}

TEST(ConfigValues, Address) {
    const struct {
        const char* value;
        bool valid;
        unsigned int expected;
    } cases[] = {
        {"0000000A", true, 0x0A}, {"deadBEEF", true, 0xDEADBEEF}, {"000000010", true, 0x01},
        {"0000001", false, 0},    {"0000000G", false, 0},         {"", false, 0},
        {" 0000000A", false, 0},  {"0000000A junk", true, 0x0A},
    };
    for (const auto& c : cases) {
        unsigned int out = 0x12345678;
        EXPECT_EQ(parse_address(text(c.value), out), c.valid) << c.value;
        EXPECT_EQ(out, c.valid ? c.expected : 0x12345678u) << c.value;
    }
}

TEST(ConfigValues, KeyAndHash) {
    const std::string good = "00112233445566778899aabbccddeeff";
    unsigned char out[16];
    for (auto parse : {parse_key, parse_hash}) {
        EXPECT_TRUE(parse(text(good), out));
        EXPECT_EQ(out[0], 0x00);
        EXPECT_EQ(out[1], 0x11);
        EXPECT_EQ(out[15], 0xFF);
        EXPECT_TRUE(parse(text(good + "GG"), out)) << "characters after the 32nd are ignored";
        EXPECT_FALSE(parse(text(good.substr(0, 31)), out));
        std::string bad = good;
        bad[7] = 'x';
        EXPECT_FALSE(parse(text(bad), out));
        EXPECT_EQ(out[5], 0) << "the output is zeroed first";
    }
}

TEST(ConfigValues, Port) {
    const struct {
        const char* value;
        bool valid;
        unsigned short expected;
    } cases[] = {
        {"0", true, 0},         {"80", true, 80},
        {"65535", true, 65535}, {"65536", false, 0},
        {"80x", false, 0},      {"", false, 0},
        {"+80", false, 0},      {" 80", false, 0},
        {"-1", false, 0},       {"99999999999999999999", false, 0},
    };
    for (const auto& c : cases) {
        unsigned short out = 1234;
        EXPECT_EQ(parse_utm_inet_port(text(c.value), out), c.valid) << c.value;
        EXPECT_EQ(out, c.valid ? c.expected : 1234) << c.value;
    }
}

TEST(ConfigValues, Host) {
    unsigned char out[32];
    std::memset(out, 'z', sizeof out);
    EXPECT_TRUE(parse_utm_inet_host(text(std::string(31, 'h')), out));
    EXPECT_EQ(out[30], 'h');
    EXPECT_EQ(out[31], 0);

    EXPECT_TRUE(parse_utm_inet_host(text("a.b"), out));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out)), "a.b");
    EXPECT_EQ(out[31], 0) << "the field is NUL-padded";

    EXPECT_TRUE(parse_utm_inet_host(text(""), out));
    EXPECT_EQ(out[0], 0);

    EXPECT_FALSE(parse_utm_inet_host(text(std::string(32, 'h')), out));
    EXPECT_FALSE(parse_utm_inet_host(text(std::string(33, 'h')), out));
    EXPECT_TRUE(parse_utm_inet_host(text(std::string("ab\0cd", 5)), out));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(out)), "ab");
}
