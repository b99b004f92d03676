#pragma once
// The command line of gatecat:
//   gatecat dump IFACE [-d] [-c N] [-t S] [-w FILE]
//   gatecat send IFACE [FRAME...]
//   gatecat stats|peers SOCKET
//   gatecat tap SOCKET [-d] [-c N] [-t S] [-w FILE]
//   gatecat -h | -V
// Options may stand anywhere after the command, in short or long form;
// "--opt=value" works too, and "--" ends the options.
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
    enum class Command { HELP, VERSION, DUMP, SEND, STATS, PEERS, TAP };

    Command command = Command::HELP;
    std::string iface;        // dump and send: the interface description
    std::string socket_path;  // stats, peers and tap: the gateway's control socket
    // dump and tap
    bool decode = false;
    uint32_t count = 0;        // 0 = no limit
    int64_t timeout_us = 0;    // 0 = no limit
    std::string capture_path;  // -w: a pcap file to write, empty for none
    // send: frame texts as given, checked by the send command
    std::vector<std::string> frames;
};

// False with `error` set (one line, without the program name) when the
// arguments do not form a command.
bool parse_command_line(int argc, const char* const* argv, CommandLine& out, std::string& error);

}  // namespace gatecat
}  // namespace vostrelka
