#include "gate-exporter/FleetMetrics.h"

#include <sys/time.h>

#include <cmath>
#include <map>

namespace vostrelka {
namespace exporter {

namespace {

// Counters keep the order the gateway sends them in.
using json = nlohmann::ordered_json;
using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr const char* ORIGINS[] = {"configured", "learned", "announced"};

// One family per metric name, in the order the families are declared.
struct Families {
    MetricFamily up{
        "gate_up", "1 when the gateway answered on its control socket, 0 when it did not", MetricType::Gauge, {}};
    MetricFamily build_info{"gate_build_info", "The gateway's version; always 1", MetricType::Gauge, {}};
    MetricFamily start_time{
        "gate_start_time_seconds", "When the gateway started, in seconds since the epoch", MetricType::Gauge, {}};
    MetricFamily interface_info{"gate_interface_info", "An interface of the gateway; always 1", MetricType::Gauge, {}};
    MetricFamily frames_in{"gate_frames_received_total", "Frames the interface decoded", MetricType::Counter, {}};
    MetricFamily frames_out{
        "gate_frames_sent_total", "Frames accepted for sending on the interface", MetricType::Counter, {}};
    MetricFamily bytes_in{"gate_bytes_received_total", "Bytes that arrived on the interface", MetricType::Counter, {}};
    MetricFamily bytes_out{"gate_bytes_sent_total", "Bytes that left on the interface", MetricType::Counter, {}};
    MetricFamily decode_errors{
        "gate_decode_errors_total", "Errors of the interface's codec, by kind", MetricType::Counter, {}};
    MetricFamily drops{"gate_drops_total", "Frames that went nowhere, by cause", MetricType::Counter, {}};
    MetricFamily link_up{
        "gate_link_up", "0 while the interface's serial line or CAN interface is lost", MetricType::Gauge, {}};
    MetricFamily local_peers{"gate_local_peers", "Local devices known on the interface", MetricType::Gauge, {}};
    MetricFamily manet_links{
        "gate_manet_links", "Links to MANet nodes on the interface, by origin", MetricType::Gauge, {}};
    MetricFamily resolutions_pending{
        "gate_resolutions_pending", "MANet links whose host name is still being looked up", MetricType::Gauge, {}};

    std::vector<MetricFamily> all() && {
        return {std::move(up),
                std::move(build_info),
                std::move(start_time),
                std::move(interface_info),
                std::move(frames_in),
                std::move(frames_out),
                std::move(bytes_in),
                std::move(bytes_out),
                std::move(decode_errors),
                std::move(drops),
                std::move(link_up),
                std::move(local_peers),
                std::move(manet_links),
                std::move(resolutions_pending)};
    }
};

void add(MetricFamily& family, std::vector<ClientMetric::Label> labels, double value) {
    ClientMetric metric;
    metric.label = std::move(labels);
    if (family.type == MetricType::Counter) {
        metric.counter.value = value;
    } else {
        metric.gauge.value = value;
    }
    family.metric.push_back(std::move(metric));
}

// `object[key]` as text: strings as they are, numbers in decimal.
std::string text(const json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end()) return "";
    if (found->is_string()) return found->get<std::string>();
    if (found->is_number_unsigned()) return std::to_string(found->get<uint64_t>());
    if (found->is_number_integer()) return std::to_string(found->get<int64_t>());
    return found->is_null() ? "" : found->dump();
}

double number(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_number() ? found->get<double>() : 0.0;
}

const json& member(const json& object, const char* key, const json& fallback) {
    const auto found = object.find(key);
    return found != object.end() && found->type() == fallback.type() ? *found : fallback;
}

void add_gateway(Families& families, const GatewayReport& report, double now_s) {
    const ClientMetric::Label gateway{"gateway", report.name};
    add(families.up, {gateway}, 1);
    add(families.build_info, {gateway, {"version", text(report.stats, "version")}}, 1);
    // To the millisecond, as the gateway tells its uptime.
    add(families.start_time, {gateway}, std::round((now_s - number(report.stats, "uptime_s")) * 1000.0) / 1000.0);

    static const json NO_ARRAY = json::array();
    static const json NO_OBJECT = json::object();
    std::map<std::string, int> local_peers;
    std::map<std::pair<std::string, std::string>, int> manet_links;
    int pending = 0;
    for (const json& peer : member(report.peers, "local_peers", NO_ARRAY)) {
        if (peer.is_object()) local_peers[text(peer, "iface")]++;
    }
    for (const json& link : member(report.peers, "manet_links", NO_ARRAY)) {
        if (!link.is_object()) continue;
        manet_links[{text(link, "iface"), text(link, "origin")}]++;
        if (text(link, "resolver_state") == "pending") pending++;
    }

    for (const json& iface : member(report.stats, "interfaces", NO_ARRAY)) {
        if (!iface.is_object()) continue;
        const std::string id = text(iface, "id");
        const ClientMetric::Label label{"iface", id};
        add(families.interface_info,
            {gateway,
             label,
             {"kind", text(iface, "kind")},
             {"role", text(iface, "role")},
             {"description", text(iface, "description")}},
            1);
        add(families.frames_in, {gateway, label}, number(iface, "frames_in"));
        add(families.frames_out, {gateway, label}, number(iface, "frames_out"));
        add(families.bytes_in, {gateway, label}, number(iface, "bytes_in"));
        add(families.bytes_out, {gateway, label}, number(iface, "bytes_out"));
        for (const auto& error : member(iface, "decode_errors", NO_OBJECT).items()) {
            if (error.value().is_number()) {
                add(families.decode_errors, {gateway, label, {"error", error.key()}}, error.value().get<double>());
            }
        }
        for (const auto& drop : member(iface, "drops", NO_OBJECT).items()) {
            if (drop.value().is_number()) {
                add(families.drops, {gateway, label, {"cause", drop.key()}}, drop.value().get<double>());
            }
        }
        const auto up = iface.find("link_up");
        add(families.link_up, {gateway, label}, up == iface.end() || !up->is_boolean() || up->get<bool>() ? 1 : 0);
        add(families.local_peers, {gateway, label}, local_peers[id]);
        for (const char* origin : ORIGINS) {
            add(families.manet_links, {gateway, label, {"origin", origin}}, manet_links[{id, origin}]);
        }
    }
    add(families.resolutions_pending, {gateway}, pending);
}

double wall_clock_s() {
    timeval now{};
    ::gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1e6;
}

}  // namespace

std::vector<MetricFamily> metric_families(const std::vector<GatewayReport>& reports, double now_s) {
    Families families;
    for (const GatewayReport& report : reports) {
        if (report.up) {
            add_gateway(families, report, now_s);
        } else {
            add(families.up, {{"gateway", report.name}}, 0);
        }
    }
    std::vector<MetricFamily> all = std::move(families).all();
    // A family without samples says nothing; leave it out.
    std::vector<MetricFamily> present;
    for (MetricFamily& family : all) {
        if (!family.metric.empty()) present.push_back(std::move(family));
    }
    return present;
}

std::vector<MetricFamily> FleetCollectable::Collect() const {
    const std::vector<std::string> paths = socket_paths.empty() ? find_sockets() : socket_paths;
    const std::vector<GatewayReport> reports = ask_gateways(paths, wait_us);
    return metric_families(reports, wall_clock_s());
}

}  // namespace exporter
}  // namespace vostrelka
