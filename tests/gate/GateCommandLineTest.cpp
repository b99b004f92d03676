// The gate binary's command line: what it prints and how it ends.
#include <gtest/gtest.h>

#include "support/GateProcess.h"
#include "support/TempDir.h"
#include "vostrelka/version.h"

using test_support::GateProcess;

namespace {

constexpr int EXIT_ABORTED = 128 + 6;  // SIGABRT of an uncaught exception

TEST(GateCommandLine, HelpPrintsUsageAndExitsZero) {
    GateProcess gate({"--help"});
    ASSERT_EQ(gate.wait_exit(), 0);
    ASSERT_GE(gate.lines().size(), 4u) << gate.log();
    EXPECT_EQ(gate.lines()[0], "Net device gateway");
    EXPECT_EQ(gate.lines()[1], "Usage:");
    EXPECT_EQ(gate.lines()[2], "  gate [OPTION...]");
    EXPECT_EQ(gate.lines()[3], "");
    const std::string log = gate.log();
    for (const char* option : {"-h, --help", "--version", "-c, --config", "-d, --debug"}) {
        EXPECT_NE(log.find(option), std::string::npos) << option;
    }
}

TEST(GateCommandLine, HelpWinsOverVersion) {
    GateProcess gate({"--version", "--help"});
    ASSERT_EQ(gate.wait_exit(), 0);
    ASSERT_FALSE(gate.lines().empty());
    EXPECT_EQ(gate.lines()[0], "Net device gateway");
}

TEST(GateCommandLine, VersionPrintsOneLineAndExitsZero) {
    GateProcess gate({"--version"});
    ASSERT_EQ(gate.wait_exit(), 0);
    EXPECT_EQ(gate.lines(), std::vector<std::string>{vostrelka::version::SOFTWARE});
}

TEST(GateCommandLine, MissingConfigOptionExitsOne) {
    GateProcess gate({"--debug", "2"});
    ASSERT_EQ(gate.wait_exit(), 1);
    EXPECT_EQ(gate.lines(), std::vector<std::string>{"ERROR: mission --config argument"});
}

TEST(GateCommandLine, UnreadableConfigFileExitsOne) {
    test_support::TempDir dir;
    const std::string missing = dir.path() + "/absent.json";
    GateProcess gate({"-c", missing});
    ASSERT_EQ(gate.wait_exit(), 1);
    EXPECT_EQ(gate.lines(), std::vector<std::string>{"ERROR: open config file: " + missing});
}

TEST(GateCommandLine, MalformedCommandLineEndsAbnormally) {
    for (const auto& args : std::vector<std::vector<std::string>>{{"--no-such-option"}, {"-d"}, {"-d", "high"}}) {
        GateProcess gate(args);
        EXPECT_EQ(gate.wait_exit(), EXIT_ABORTED) << args[0];
        EXPECT_TRUE(gate.lines().empty()) << gate.log();
    }
}

}  // namespace
