#pragma once
// The base of a command-line program: owns the option description, turns
// argc/argv into a call of the program's own start().
#include <atomic>
#include <cxxopts.hpp>
#include <string>

namespace vostrelka {

extern std::atomic<bool> running_flag;

class Application {
public:
    // `skip_signal_handlers` true leaves SIGINT/SIGTERM/SIGABRT to their
    // default action; the gateway passes true.
    Application(const std::string& name, const std::string& description, bool skip_signal_handlers);

    // Parses the command line (a parse error is the library's exception and
    // ends the process), handles --help and --version with exit(0), then
    // calls start().
    void start_with_args(int argc, char** argv);
    virtual void start(const cxxopts::ParseResult& result) = 0;

    void print_help() const;
    void print_version() const;
    static bool running();

protected:
    cxxopts::Options options;
};

// Signal handler for programs that want one: logs the signal and clears running_flag.
void got_signal(int signo);

}  // namespace vostrelka
