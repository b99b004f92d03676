#include "gatecat/StatsCommand.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "gatecat/TextTable.h"
#include "vostrelka/control/AnswerField.h"
#include "vostrelka/control/ControlClient.h"

namespace vostrelka {
namespace gatecat {

namespace {

// Ordered: counters print in the order the gateway sends them.
using json = nlohmann::ordered_json;

// A gateway answers at once; this only bounds a wait on one that hangs.
constexpr int64_t ANSWER_WAIT_US = 5000000;

// The answer to `request`, or a discarded value after printing why not.
json fetch(const CommandLine& command_line, const char* request) {
    control::ControlClient client;
    std::string error;
    if (!client.request(command_line.socket_path, request, error)) {
        std::fprintf(stderr, "gatecat: %s: %s\n", request, error.c_str());
        return json(json::value_t::discarded);
    }
    std::string line;
    if (client.read_line(line, ANSWER_WAIT_US) != control::ControlClient::Read::LINE) {
        std::fprintf(stderr, "gatecat: %s: no answer from %s\n", request, command_line.socket_path.c_str());
        return json(json::value_t::discarded);
    }
    json answer = json::parse(line, nullptr, false);
    if (!answer.is_object()) {
        std::fprintf(stderr, "gatecat: %s: the gateway's answer is not a JSON object: %.80s\n", request, line.c_str());
        return json(json::value_t::discarded);
    }
    return answer;
}

// `object[key]` as a table cell: fractions to one decimal, "-" when absent
// or of a kind a cell cannot show.
std::string cell(const json& object, const char* key) {
    if (std::optional<std::string> text = control::field_text(object, key)) return *text;
    const auto found = object.find(key);
    if (found == object.end() || !found->is_number_float()) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", found->get<double>());
    return text;
}

// "crc 1, escape 2" of the nonzero counters of `object[key]`, "none" when
// every one is zero.
std::string nonzero_counters(const json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_object()) return "-";
    std::string text;
    for (const auto& counter : found->items()) {
        if (counter.value().is_number() && counter.value() == 0) continue;
        text += (text.empty() ? "" : ", ") + counter.key() + " " + cell(*found, counter.key().c_str());
    }
    return text.empty() ? "none" : text;
}

const json& array_at(const json& answer, const char* key) {
    static const json EMPTY = json::array();
    const auto found = answer.find(key);
    return found != answer.end() && found->is_array() ? *found : EMPTY;
}

}  // namespace

int run_stats(const CommandLine& command_line, FILE* out) {
    const json answer = fetch(command_line, "stats");
    if (answer.is_discarded()) return EXIT_RUNTIME_FAILURE;

    std::fprintf(out, "gate %s, up %s s\n", cell(answer, "version").c_str(), cell(answer, "uptime_s").c_str());
    TextTable traffic({"iface", "kind", "role", "frames in", "bytes in", "frames out", "bytes out", "description"},
                      {true, false, false, true, true, true, true, false});
    TextTable trouble({"iface", "decode errors", "drops"}, {true, false, false});
    for (const json& iface : array_at(answer, "interfaces")) {
        if (!iface.is_object()) continue;
        traffic.add_row({cell(iface, "id"), cell(iface, "kind"), cell(iface, "role"), cell(iface, "frames_in"),
                         cell(iface, "bytes_in"), cell(iface, "frames_out"), cell(iface, "bytes_out"),
                         cell(iface, "description")});
        trouble.add_row(
            {cell(iface, "id"), nonzero_counters(iface, "decode_errors"), nonzero_counters(iface, "drops")});
    }
    std::fprintf(out, "%s\n%s", traffic.text().c_str(), trouble.text().c_str());
    return EXIT_OK;
}

int run_peers(const CommandLine& command_line, FILE* out) {
    const json answer = fetch(command_line, "peers");
    if (answer.is_discarded()) return EXIT_RUNTIME_FAILURE;

    TextTable local({"addr", "iface", "inet"}, {false, true, false});
    for (const json& peer : array_at(answer, "local_peers")) {
        if (peer.is_object()) local.add_row({cell(peer, "addr"), cell(peer, "iface"), cell(peer, "inet")});
    }
    // The reason a name's lookup last failed comes last: it is the longest.
    TextTable links({"manet_addr", "iface", "local_addr", "inet", "resolver", "state", "age s", "origin", "reason"},
                    {false, true, false, false, false, false, true, false, false});
    for (const json& link : array_at(answer, "manet_links")) {
        if (!link.is_object()) continue;
        links.add_row({cell(link, "manet_addr"), cell(link, "iface"), cell(link, "local_addr"), cell(link, "inet"),
                       cell(link, "resolver"), cell(link, "resolver_state"), cell(link, "age_s"), cell(link, "origin"),
                       cell(link, "reason")});
    }
    std::fprintf(out, "local peers\n%s\nMANet links\n%s", local.text().c_str(), links.text().c_str());
    return EXIT_OK;
}

}  // namespace gatecat
}  // namespace vostrelka
