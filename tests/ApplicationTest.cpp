#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "support/GateProcess.h"
#include "vostrelka/Application.h"
#include "vostrelka/Task.h"
#include "vostrelka/debug.h"

// What the gateway's command line prints and how it ends is tested on the
// real binary in tests/gate/GateCommandLineTest.cpp; here the help text's
// option lines, which come from the frame's declarations.
TEST(CommandLine, HelpListsTheOptionsInDeclarationOrderWithTheirTexts) {
    test_support::GateProcess gate({"--help"});
    ASSERT_EQ(gate.wait_exit(), 0);
    const std::string help = gate.log();
    const char* expected[] = {"  -h, --help",       "Print usage info",
                              "      --version",    "Print version",
                              "  -c, --config arg", "Configuration file for gate",
                              "  -d, --debug arg",  "Debug level: 0 = none, 1 = warnings, 2 = forw, 3 = recv",
                              "(default: 0)"};
    size_t from = 0;
    for (const char* text : expected) {
        const size_t at = help.find(text, from);
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << text << "\n" << help;
        from = at;
    }
}

namespace {

class SignalledApp : public vostrelka::Application {
public:
    SignalledApp() : Application("app", "test", false) {}
    void start(const cxxopts::ParseResult&) override {}
};

}  // namespace

TEST(ApplicationSignals, HandlerLogsAndClearsRunningFlag) {
    SignalledApp app;
    EXPECT_TRUE(vostrelka::Application::running());
    testing::internal::CaptureStdout();
    raise(SIGINT);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Application: Got signal 2\n");
    EXPECT_FALSE(vostrelka::Application::running());
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
    signal(SIGABRT, SIG_DFL);
}

TEST(Debug, FormatWithoutArgumentsStillGoesThroughPrintf) {
    testing::internal::CaptureStdout();
    vostrelka::debug("100%% sure");
    vostrelka::debug("%s=%u", "x", 7u);
    vostrelka::debug_tagged("Tag", "value %d", -3);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "100% sure\nx=7\nTag: value -3\n");
}

namespace {

struct CountingTask : vostrelka::TaskBase {
    std::atomic<int> spins{0};
    void run() {
        worker = std::make_unique<std::thread>([this] {
            while (keep_running) spins++;
        });
    }
};

}  // namespace

TEST(TaskRegistry, StopAllTasksJoinsEveryWorkerAndEmptiesTheRegistry) {
    CountingTask a;
    CountingTask b;
    a.run();
    b.run();
    vostrelka::_tasks = {&a, &b};
    EXPECT_EQ(vostrelka::stop_all_tasks(), 0);
    EXPECT_EQ(a.worker, nullptr);
    EXPECT_EQ(b.worker, nullptr);
    EXPECT_FALSE(a.keep_running);
    EXPECT_TRUE(vostrelka::_tasks.empty());
}

TEST(TaskRegistry, WaitAllTasksJoinsWithoutAskingToStop) {
    vostrelka::TaskBase finite;
    finite.worker = std::make_unique<std::thread>([] {});
    vostrelka::_tasks = {&finite};
    EXPECT_EQ(vostrelka::wait_all_tasks(), 0);
    EXPECT_EQ(finite.worker, nullptr);
    EXPECT_TRUE(finite.keep_running);
    EXPECT_TRUE(vostrelka::_tasks.empty());
}
