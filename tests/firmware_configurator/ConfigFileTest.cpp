#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/TempDir.h"
#include "vostrelka/firmware_configurator/config.h"

using namespace vostrelka::firmware_configurator;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const std::string SAVED =
    "ADDR 0A0B0C0D\nKEY 000102030405060708090A0B0C0D0E0F\nUTM_ADDR 00000007\n"
    "UTM_INET_ADDR 0123456789012345678901234567890\nUTM_INET_PORT 65535\n";

// Loads `content` through a file, or the file at `path`; returns what was logged.
std::string load(manet_config& out, bool& ok, const std::string& content, std::string path = "") {
    test_support::TempDir dir;
    if (path.empty()) path = dir.write_file("manet.conf", content);
    CaptureStdout();
    ok = load_manet_config(path.c_str(), out);
    return GetCapturedStdout();
}

}  // namespace

// Longer than two 128-byte buffers, so lines cross refills.
TEST(ConfigFile, MatchesKeysByPrefixAmongCommentsAndNoiseAndSavesTheFiveLines) {
    manet_config c;
    bool ok = false;
    EXPECT_EQ(load(c, ok,
                   "# " + std::string(100, '-') +
                       "\n\nUTM_INET_P 80x\n"                                 // a later line decides value and validity
                       "nospace\nSOMETHING else\n"                            // no key at all
                       "ADDRESS 00000033\nUTM_INET_PORTS 1\n"                 // longer than a name: no match
                       " 0a0b0c0d\n"                                          // the empty key selects ADDR
                       "K 000102030405060708090a0b0c0d0e0F\nUTM 000000070\n"  // after the 8th digit: ignored
                       "UTM_INET 0123456789012345678901234567890\n# " +       // the longest host
                       std::string(100, '-') +
                       "\nUTM_INET_PORT 65535"),  // no newline at the end
              "");
    ASSERT_TRUE(ok);
    EXPECT_EQ(c.node_manet_addr, 0x0A0B0C0Du);
    EXPECT_EQ(c.node_manet_key[15], 0x0F);
    test_support::TempDir dir;
    const std::string path = dir.path() + "/saved.conf";
    ASSERT_TRUE(save_manet_config(path.c_str(), c));
    std::stringstream written;
    written << std::ifstream(path).rdbuf();
    EXPECT_EQ(written.str(), SAVED);
}

TEST(ConfigFile, BadOrMissingValueFailsTheLoadWhileTheOtherFieldsAreFilled) {
    for (const std::string& content : std::initializer_list<std::string>{
             SAVED + "ADDR 0000001\n", SAVED + "ADDR 0000000G\n", SAVED + "UTM_ADDR  00000001\n",
             SAVED + "KEY 00112233445566778899aabbccddeef\n", SAVED + "UTM_INET_ADDR " + std::string(32, 'h') + "\n",
             SAVED + "UTM_INET_PORT 65536\n", SAVED + "UTM_INET_PORT 80x\n", SAVED + "UTM_INET_PORT +80\n",
             SAVED.substr(0, SAVED.find("UTM_INET_PORT"))}) {
        manet_config c;
        bool ok = true;
        load(c, ok, content);
        EXPECT_FALSE(ok) << content;
        EXPECT_EQ(c.utm_manet_addr, 7u) << content;
    }
}

TEST(ConfigFile, LineFillingTheBufferEndsTheReadingAndFileErrorsAreReported) {
    manet_config c;
    bool ok = false;
    EXPECT_EQ(load(c, ok, "#" + std::string(126, 'c') + "\n" + SAVED), "");
    EXPECT_TRUE(ok) << "128 bytes with the newline fit";
    EXPECT_EQ(load(c, ok, "ADDR 00000005\n#" + std::string(127, 'c') + "\n" + SAVED), "ERROR: buffer overflow\n");
    EXPECT_FALSE(ok);
    EXPECT_EQ(c.node_manet_addr, 5u) << "lines before the long one are kept";
    EXPECT_EQ(load(c, ok, "", "/nonexistent/manet.conf"),
              "ERROR: failed to open config file for reading /nonexistent/manet.conf\n");
    test_support::TempDir dir;
    EXPECT_EQ(load(c, ok, "", dir.path()), "ERROR: reading file: -1\n");  // a directory opens but does not read
    c.node_manet_addr = 5;
    CaptureStdout();
    EXPECT_FALSE(save_manet_config("/nonexistent/manet.conf", c));
    EXPECT_FALSE(save_manet_config("/dev/full", c));
    EXPECT_EQ(GetCapturedStdout(),
              "ERROR: failed to open config file for writing /nonexistent/manet.conf\n"
              "ERROR: failed to write into configuration file, Line: ADDR 00000005\n");
}
