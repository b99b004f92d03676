#include "vostrelka/Application.h"

#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "vostrelka/debug.h"
#include "vostrelka/version.h"

namespace vostrelka {

std::atomic<bool> running_flag{false};

void got_signal(int signo) {
    {
        std::lock_guard<std::mutex> lock(stdout_mutex);
        std::printf("%s: ", "Application");
        std::printf("Got signal %u", static_cast<unsigned>(signo));
        std::putchar('\n');
    }
    running_flag.store(false, std::memory_order_seq_cst);
}

static void install_signal_handler(int signo) {
    struct sigaction action {};
    action.sa_handler = got_signal;
    sigfillset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(signo, &action, nullptr);
}

Application::Application(const std::string& name, const std::string& description, bool skip_signal_handlers)
    : options(name, description) {
    if (setvbuf(stdout, nullptr, _IOLBF, 0) != 0) debug("Failed to enable line buffering on STDOUT");
    options.add_options()("h,help", "Print usage info")("version", "Print version");
    if (!skip_signal_handlers) {
        install_signal_handler(SIGINT);
        install_signal_handler(SIGTERM);
        install_signal_handler(SIGABRT);
    }
    running_flag.store(true, std::memory_order_seq_cst);
}

void Application::start_with_args(int argc, char** argv) {
    const cxxopts::ParseResult result = options.parse(argc, argv);
    if (result["help"].as<bool>()) {
        print_help();
        exit(0);
    }
    if (result["version"].as<bool>()) {
        print_version();
        exit(0);
    }
    start(result);
}

void Application::print_help() const {
    debug("%s", options.help().c_str());
}

void Application::print_version() const {
    debug("%s", version::SOFTWARE);
}

bool Application::running() {
    return running_flag.load();
}

}  // namespace vostrelka
