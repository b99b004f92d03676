#pragma once
// Asks several gateways at once for their "stats" and "peers" over their
// control sockets, each within one shared deadline: a gateway that does not
// answer in time is reported down and holds up no other.
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace vostrelka {
namespace exporter {

struct GatewayReport {
    std::string name;  // the `gateway` label: the socket's folder name
    bool up = false;   // both answers came, each a JSON object
    nlohmann::ordered_json stats;
    nlohmann::ordered_json peers;
};

// "site" for /run/gate/site/control.sock; the file name for a socket given
// without a folder.
std::string gateway_name(const std::string& socket_path);

// Every /run/gate/*/control.sock (or under `run_folder`), sorted.
std::vector<std::string> find_sockets(const std::string& run_folder = "/run/gate");

// One report per socket, in the order given; the whole call returns within
// about `wait_us`.
std::vector<GatewayReport> ask_gateways(const std::vector<std::string>& socket_paths, int64_t wait_us);

}  // namespace exporter
}  // namespace vostrelka
