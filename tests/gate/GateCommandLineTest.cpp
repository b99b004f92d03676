// The gate binary's command line: what it prints and how it ends.
#include <gtest/gtest.h>

#include "support/GateProcess.h"
#include "vostrelka/version.h"

namespace {

constexpr int EXIT_ABORTED = 128 + 6;  // SIGABRT of an uncaught exception

TEST(GateCommandLine, EachCommandLinePrintsItsLinesAndEndsWithItsStatus) {
    struct Case {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> lines;
        bool only_first_lines;  // help text goes on with the options
    };
    const std::string absent = "/nonexistent/gate.json";
    const Case cases[] = {
        {{"--help"}, 0, {"Net device gateway", "Usage:", "  gate [OPTION...]", ""}, true},
        {{"--version", "--help"}, 0, {"Net device gateway"}, true},
        {{"--version"}, 0, {vostrelka::version::SOFTWARE}, false},
        {{"--debug", "2"}, 1, {"ERROR: mission --config argument"}, false},
        {{"-c", absent}, 1, {"ERROR: open config file: " + absent}, false},
        {{"--no-such-option"}, EXIT_ABORTED, {}, false},
        {{"-d"}, EXIT_ABORTED, {}, false},
        {{"-d", "high"}, EXIT_ABORTED, {}, false},
    };
    for (const Case& c : cases) {
        test_support::GateProcess gate(c.args);
        EXPECT_EQ(gate.wait_exit(), c.status) << c.args[0];
        std::vector<std::string> lines = gate.lines();
        if (c.only_first_lines && lines.size() > c.lines.size()) lines.resize(c.lines.size());
        EXPECT_EQ(lines, c.lines) << c.args[0];
    }
}

}  // namespace
