#include <gtest/gtest.h>
#include <signal.h>

#include "support/GateProcess.h"
#include "vostrelka/Application.h"
#include "vostrelka/debug.h"

using namespace vostrelka;

TEST(CommandLine, HelpListsTheOptionTextsInDeclarationOrder) {
    test_support::GateProcess gate({"--help"});
    ASSERT_EQ(gate.wait_exit(), 0);
    const std::string help = gate.log();
    size_t at = 0;
    for (const char* text : {"  -h, --help", "Print usage info", "      --version", "Print version",
                             "  -c, --config arg", "Configuration file for gate", "  -d, --debug arg",
                             "Debug level: 0 = none, 1 = warnings, 2 = forw, 3 = recv", "(default: 0)"}) {
        at = help.find(text, at);
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << text << "\n" << help;
    }
}

TEST(ApplicationSignals, HandlerLogsAndClearsTheRunningFlagWithoutExiting) {
    struct App : Application {
        App() : Application("app", "test", false) {}
        void start(const cxxopts::ParseResult&) override {}
    } app;
    EXPECT_TRUE(Application::running());
    testing::internal::CaptureStdout();
    raise(SIGINT);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Application: Got signal 2\n");
    EXPECT_FALSE(Application::running());
    for (int signo : {SIGINT, SIGTERM, SIGABRT}) signal(signo, SIG_DFL);
}

TEST(Debug, FormatWithoutArgumentsStillGoesThroughPrintf) {
    testing::internal::CaptureStdout();
    debug("100%% sure");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "100% sure\n");
}
