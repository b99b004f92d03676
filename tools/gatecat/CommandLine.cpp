#include "gatecat/CommandLine.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace vostrelka {
namespace gatecat {

namespace {

constexpr double MAX_TIMEOUT_S = 1e9;
constexpr double US_PER_S = 1e6;

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
    out_us = static_cast<int64_t>(std::ceil(seconds * US_PER_S));
    return true;
}

}  // namespace

bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error) {
    out = CommandLine();
    if (argc < 2) {
        error = "missing command (dump or send); try 'gatecat --help'";
        return false;
    }
    const std::string command = argv[1];
    if (command == "-h" || command == "--help" || command == "help") {
        out.command = CommandLine::Command::HELP;
        return true;
    }
    if (command == "--version") {
        out.command = CommandLine::Command::VERSION;
        return true;
    }
    if (command == "dump") {
        out.command = CommandLine::Command::DUMP;
    } else if (command == "send") {
        out.command = CommandLine::Command::SEND;
    } else {
        error = (command.size() > 1 && command[0] == '-' ? "unknown option '" : "unknown command '") + command +
                "'; try 'gatecat --help'";
        return false;
    }
    const bool dump = out.command == CommandLine::Command::DUMP;

    bool options_ended = false;
    for (int i = 2; i < argc; i++) {
        const std::string arg = argv[i];
        if (!options_ended && arg == "--") {
            options_ended = true;
            continue;
        }
        if (options_ended || arg.size() < 2 || arg[0] != '-') {
            if (out.iface.empty()) {
                out.iface = arg;
            } else if (dump) {
                error = command + ": unexpected argument '" + arg + "'";
                return false;
            } else {
                out.frames.push_back(arg);
            }
            continue;
        }
        if (arg == "-h" || arg == "--help") {
            out.command = CommandLine::Command::HELP;
            return true;
        }
        const size_t equals = arg.find('=');
        const std::string name = arg.substr(0, equals);
        const bool inline_value = equals != std::string::npos;
        if (dump && name == "--decode") {
            if (inline_value) {
                error = command + ": --decode takes no value";
                return false;
            }
            out.decode = true;
            continue;
        }
        if (!dump || (name != "--count" && name != "--timeout")) {
            error = command + ": unknown option '" + name + "'; try 'gatecat --help'";
            return false;
        }
        std::string value;
        if (inline_value) {
            value = arg.substr(equals + 1);
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            error = command + ": " + name + " needs a value";
            return false;
        }
        if (name == "--count" && !parse_count(value, out.count)) {
            error = command + ": --count takes a whole number from 1 to 4294967295, not '" + value + "'";
            return false;
        }
        if (name == "--timeout" && !parse_timeout(value, out.timeout_us)) {
            error = command + ": --timeout takes a number of seconds above 0, not '" + value + "'";
            return false;
        }
    }
    if (out.iface.empty()) {
        error = command + ": missing interface description, e.g. udp://127.0.0.1:5000; try 'gatecat --help'";
        return false;
    }
    return true;
}

}  // namespace gatecat
}  // namespace vostrelka
