#include "gatecat/CommandLine.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cxxopts.hpp>

#include "vostrelka/Time.h"

namespace vostrelka {
namespace gatecat {

namespace {

constexpr double MAX_TIMEOUT_S = 1e9;

bool parse_count(const std::string& text, uint32_t& out) {
    if (text.empty() || text.size() > 10) return false;
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    if (value == 0 || value > UINT32_MAX) return false;
    out = static_cast<uint32_t>(value);
    return true;
}

bool parse_timeout(const std::string& text, int64_t& out_us) {
    if (text.empty() || !(text[0] == '.' || (text[0] >= '0' && text[0] <= '9'))) return false;
    errno = 0;
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(seconds) || seconds <= 0 || seconds > MAX_TIMEOUT_S) return false;
    out_us = static_cast<int64_t>(std::ceil(seconds * static_cast<double>(US_PER_S)));
    return true;
}

struct CommandName {
    const char* name;
    CommandLine::Command command;
};

constexpr CommandName COMMANDS[] = {
    {"dump", CommandLine::Command::DUMP},   {"send", CommandLine::Command::SEND},
    {"stats", CommandLine::Command::STATS}, {"peers", CommandLine::Command::PEERS},
    {"tap", CommandLine::Command::TAP},
};

bool watches_frames(CommandLine::Command command) {
    return command == CommandLine::Command::DUMP || command == CommandLine::Command::TAP;
}

// The options a command takes: only those, so that an option of another
// command is refused rather than silently ignored.
cxxopts::Options options_of(CommandLine::Command command) {
    cxxopts::Options options("gatecat");
    options.allow_unrecognised_options();
    options.add_options()("h,help", "")("V,version", "")("arguments", "", cxxopts::value<std::vector<std::string>>());
    if (watches_frames(command)) {
        options.add_options()("d,decode", "")("c,count", "", cxxopts::value<std::string>())(
            "t,timeout", "", cxxopts::value<std::string>())("w,write", "", cxxopts::value<std::string>());
    }
    options.parse_positional({"arguments"});
    return options;
}

// The option named in `arg` as the user spelled it: "--count" of
// "--count=5", "-c" of "-dc".
std::string option_as_written(const std::string& arg) {
    if (arg.compare(0, 2, "--") == 0) return arg.substr(0, arg.find('='));
    return arg.size() > 1 ? "-" + arg.substr(arg.size() - 1) : arg;
}

}  // namespace

bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error) {
    out = CommandLine();
    if (argc < 2) {
        error = "missing command (dump, send, stats, peers or tap); try 'gatecat --help'";
        return false;
    }
    const std::string command = argv[1];
    if (command == "-h" || command == "--help" || command == "help") {
        out.command = CommandLine::Command::HELP;
        return true;
    }
    if (command == "-V" || command == "--version") {
        out.command = CommandLine::Command::VERSION;
        return true;
    }
    const CommandName* known = nullptr;
    for (const CommandName& entry : COMMANDS) {
        if (command == entry.name) known = &entry;
    }
    if (known == nullptr) {
        error = (command.size() > 1 && command[0] == '-' ? "unknown option '" : "unknown command '") + command +
                "'; try 'gatecat --help'";
        return false;
    }
    out.command = known->command;
    const bool frames_watched = watches_frames(out.command);

    // The options start after the command: cxxopts takes its first argument
    // as the program's name.
    const int option_argc = argc - 1;
    const char* const* option_argv = argv + 1;
    for (int i = 1; i < option_argc && std::string(option_argv[i]) != "--"; i++) {
        if (frames_watched && std::string(option_argv[i]).rfind("--decode=", 0) == 0) {
            error = command + ": --decode takes no value";
            return false;
        }
    }
    cxxopts::Options options = options_of(out.command);
    std::vector<std::string> arguments;
    try {
        const cxxopts::ParseResult result = options.parse(option_argc, option_argv);
        if (result.count("help")) {
            out = CommandLine();
            return true;
        }
        if (result.count("version")) {
            out = CommandLine();
            out.command = CommandLine::Command::VERSION;
            return true;
        }
        for (const std::string& unknown : result.unmatched()) {
            error = command + ": unknown option '" + option_as_written(unknown) + "'; try 'gatecat --help'";
            return false;
        }
        if (result.count("arguments")) arguments = result["arguments"].as<std::vector<std::string>>();
        if (frames_watched) {
            out.decode = result.count("decode") != 0;
            if (result.count("write")) out.capture_path = result["write"].as<std::string>();
            if (result.count("count") && !parse_count(result["count"].as<std::string>(), out.count)) {
                error = command + ": --count takes a whole number from 1 to 4294967295, not '" +
                        result["count"].as<std::string>() + "'";
                return false;
            }
            if (result.count("timeout") && !parse_timeout(result["timeout"].as<std::string>(), out.timeout_us)) {
                error = command + ": --timeout takes a number of seconds above 0, not '" +
                        result["timeout"].as<std::string>() + "'";
                return false;
            }
        }
    } catch (const cxxopts::exceptions::missing_argument&) {
        // Only the last argument can lack its value.
        error = command + ": " + option_as_written(option_argv[option_argc - 1]) + " needs a value";
        return false;
    } catch (const cxxopts::exceptions::exception& e) {
        error = command + ": " + e.what();
        return false;
    }
    const bool on_socket = out.command != CommandLine::Command::DUMP && out.command != CommandLine::Command::SEND;
    if (arguments.empty()) {
        error = on_socket
                    ? command + ": missing control socket path, e.g. /run/gate/site/control.sock; try 'gatecat --help'"
                    : command + ": missing interface description, e.g. udp://127.0.0.1:5000; try 'gatecat --help'";
        return false;
    }
    (on_socket ? out.socket_path : out.iface) = arguments[0];
    if (out.command == CommandLine::Command::SEND) {
        out.frames.assign(arguments.begin() + 1, arguments.end());
    } else if (arguments.size() > 1) {
        error = command + ": unexpected argument '" + arguments[1] + "'";
        return false;
    }
    return true;
}

}  // namespace gatecat
}  // namespace vostrelka
