// gate-check: reads gateway configuration files as the gateway would and
// says what is wrong with them, or what they configure, without opening
// any of it. Exit status 0 when every file is good, 1 when one is not,
// 2 for a wrong command line.
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "ConfigReader.h"
#include "SystemChecks.h"
#include "vostrelka/version.h"

namespace {

using namespace vostrelka;

constexpr int EXIT_BAD_FILE = 1;
constexpr int EXIT_USAGE = 2;

const char* const USAGE = R"USAGE(gate-check - check gateway configuration files before starting them

Usage:
  gate-check [-q] CONFIG...
  gate-check -h | --help | -V | --version

Reads each CONFIG as gate reads it, opens nothing, and prints what it
configures: interfaces with their kind and role, local and MANet peers,
RF modems and the control socket.

  -q, --quiet  print errors and warnings only

Errors and warnings go to standard error, one line each:
  FILE:LINE:COLUMN: error: ...      malformed JSON
  FILE: ifaces[2].id: error: ...    a field of an entry
  FILE: ifaces[0].typ: warning: ... an unknown key, or what will fail at start
Keys starting with "_" are notes and never warned about.

Exit status: 0 every file is good (warnings allowed), 1 a file has an
error, 2 wrong command line.
)USAGE";

void diagnostic(const std::string& path, const std::string& where, const char* severity, const std::string& message) {
    // A JSON position reads "FILE:3:17:", like a compiler's.
    const bool position = !where.empty() && std::isdigit(static_cast<unsigned char>(where[0]));
    const std::string place = where.empty() ? "" : (position ? where + ":" : " " + where + ":");
    std::fprintf(stderr, "%s:%s %s: %s\n", path.c_str(), place.c_str(), severity, message.c_str());
}

std::string hex(unsigned long value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*lX", digits, value);
    return text;
}

std::string count(size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

void print_config(const std::string& path, const GateConfig& config) {
    std::printf("%s: %s, %s, %s, %s, %s\n", path.c_str(),
                count(config.ifaces.size(), "interface", "interfaces").c_str(),
                count(config.local_peers.size(), "local peer", "local peers").c_str(),
                count(config.manet_peers.size(), "MANet peer", "MANet peers").c_str(),
                count(config.rfmodems.size(), "RF modem", "RF modems").c_str(),
                config.control ? "a control socket" : "no control socket");
    for (const GateConfig::Iface& iface : config.ifaces) {
        std::printf("  iface %u: %s %s %s\n", iface.id, iface.kind.c_str(), iface.manet ? "manet" : "local",
                    iface.description.c_str());
    }
    for (const GateConfig::LocalPeer& peer : config.local_peers) {
        const std::string inet = peer.inet_addr ? " / " + peer.inet_addr->to_s() : "";
        std::printf("  local peer %s%s on iface %u\n", hex(peer.addr, 2).c_str(), inet.c_str(), peer.iface_id);
    }
    for (const GateConfig::MANetPeer& peer : config.manet_peers) {
        const std::string inet = peer.host_port ? " / " + peer.host_port->host + ":" + peer.host_port->port_str : "";
        std::printf("  MANet peer %s / %s%s on iface %u\n", hex(peer.manet_addr, 8).c_str(), hex(peer.addr, 2).c_str(),
                    inet.c_str(), peer.iface_id);
    }
    for (const GateConfig::RFModem& modem : config.rfmodems) {
        std::printf("  RF modem on iface %u: addr=%s channel=%d power=%.1f\n", modem.iface_id,
                    hex(modem.addr, 8).c_str(), static_cast<int>(modem.channel), static_cast<double>(modem.power));
    }
    if (config.control)
        std::printf("  control socket %s mode %04o\n", config.control->path.c_str(), config.control->mode);
}

// True when the file is good.
bool check_file(const std::string& path, bool quiet) {
    std::string why;
    const std::optional<std::string> text = read_config_file(path, &why);
    if (!text) {
        diagnostic(path, "", "error", "cannot read: " + why);
        return false;
    }
    ConfigReadOptions options;
    options.device_problem = gate_check::description_problem;
    options.warn = true;
    ConfigReading reading = read_config(*text, options);
    for (ConfigWarning& warning : gate_check::system_warnings(reading.config)) {
        reading.warnings.push_back(std::move(warning));
    }
    for (const ConfigWarning& warning : reading.warnings) diagnostic(path, warning.where, "warning", warning.message);
    if (reading.error) {
        diagnostic(path, reading.error->where, "error", reading.error->message);
        return false;
    }
    if (!quiet) print_config(path, reading.config);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    bool quiet = false;
    bool options_done = false;
    std::vector<std::string> paths;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        if (options_done || arg.empty() || arg[0] != '-' || arg == "-") {
            paths.push_back(arg);
        } else if (arg == "--") {
            options_done = true;
        } else if (arg == "-q" || arg == "--quiet") {
            quiet = true;
        } else if (arg == "-h" || arg == "--help") {
            std::fputs(USAGE, stdout);
            return 0;
        } else if (arg == "-V" || arg == "--version") {
            std::printf("%s\n", version::SOFTWARE);
            return 0;
        } else {
            std::fprintf(stderr, "gate-check: unknown option '%s'; try 'gate-check --help'\n", arg.c_str());
            return EXIT_USAGE;
        }
    }
    if (paths.empty()) {
        std::fputs("gate-check: missing configuration file; try 'gate-check --help'\n", stderr);
        return EXIT_USAGE;
    }
    bool good = true;
    for (const std::string& path : paths) good = check_file(path, quiet) && good;
    return good ? 0 : EXIT_BAD_FILE;
}
