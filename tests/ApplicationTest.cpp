#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "support/ProcessRun.h"
#include "support/paths.h"
#include "vostrelka/Application.h"
#include "vostrelka/Task.h"
#include "vostrelka/debug.h"

using test_support::gate_binary;
using test_support::run_process;

namespace {

int count_lines(const std::string& text) {
    int lines = 0;
    for (char c : text) lines += c == '\n';
    return lines;
}

}  // namespace

TEST(CommandLine, VersionPrintsOneLineAndExitsZero) {
    auto r = run_process(gate_binary(), {"--version"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(count_lines(r.out), 1);
    EXPECT_EQ(r.out.rfind("0.1.0", 0), 0u) << r.out;
}

TEST(CommandLine, HelpListsTheFourOptionsAndExitsZero) {
    auto r = run_process(gate_binary(), {"--help"});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out.rfind("Net device gateway\nUsage:\n  gate [OPTION...]\n\n", 0), 0u) << r.out;
    const char* expected[] = {"  -h, --help",       "Print usage info",
                              "      --version",    "Print version",
                              "  -c, --config arg", "Configuration file for gate",
                              "  -d, --debug arg",  "Debug level: 0 = none, 1 = warnings, 2 = forw, 3 = recv",
                              "(default: 0)"};
    size_t from = 0;
    for (const char* text : expected) {
        const size_t at = r.out.find(text, from);
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << text << "\n" << r.out;
        from = at;
    }
}

TEST(CommandLine, HelpWinsOverVersion) {
    auto help = run_process(gate_binary(), {"--help"});
    auto both = run_process(gate_binary(), {"--help", "--version"});
    ASSERT_TRUE(both.exited);
    EXPECT_EQ(both.exit_status, 0);
    EXPECT_EQ(both.out, help.out);
}

TEST(CommandLine, MissingConfigIsAnErrorWithStatusOne) {
    auto r = run_process(gate_binary(), {});
    ASSERT_TRUE(r.exited);
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "ERROR: mission --config argument\n");
    // The debug level is read before the configuration is looked for.
    auto with_level = run_process(gate_binary(), {"-d", "2"});
    EXPECT_EQ(with_level.exit_status, 1);
    EXPECT_EQ(with_level.out, "ERROR: mission --config argument\n");
}

TEST(CommandLine, MalformedArgumentsEndTheProcessAbnormally) {
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"-d"}, {"--no-such-option"}, {"-d", "high"}, {"-x"}}) {
        auto r = run_process(gate_binary(), args);
        EXPECT_FALSE(r.exited && r.exit_status == 0) << args[0];
        EXPECT_FALSE(r.exited && r.exit_status == 1) << args[0];
        EXPECT_NE(r.signal, 0) << args[0] << " should end by the uncaught exception";
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
