#pragma once
// The command line of gatecat:
//   gatecat dump IFACE [--decode] [--count N] [--timeout S]
//   gatecat send IFACE [FRAME...]
//   gatecat --help | --version
// Options may stand anywhere after the command; "--opt=value" works too.
#include <cstdint>
#include <string>
#include <vector>

namespace vostrelka {
namespace gatecat {

// Exit statuses, as the usage text states them.
constexpr int EXIT_OK = 0;
constexpr int EXIT_RUNTIME_FAILURE = 1;
constexpr int EXIT_USAGE = 2;

struct CommandLine {
    enum class Command { HELP, VERSION, DUMP, SEND };

    Command command = Command::HELP;
    std::string iface;
    // dump
    bool decode = false;
    uint32_t count = 0;      // 0 = no limit
    int64_t timeout_us = 0;  // 0 = no limit
    // send: frame texts as given, checked by the send command
    std::vector<std::string> frames;
};

// False with `error` set (one line, without the program name) when the
// arguments do not form a command.
bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error);

}  // namespace gatecat
}  // namespace vostrelka
