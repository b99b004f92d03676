#include "gate-exporter/FleetMetrics.h"

#include <sys/time.h>

#include <array>
#include <cmath>
#include <map>
#include <utility>

#include "vostrelka/control/AnswerField.h"

namespace vostrelka {
namespace exporter {

namespace {

// Counters keep the order the gateway sends them in.
using json = nlohmann::ordered_json;
using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

constexpr const char* ORIGINS[] = {"configured", "learned", "announced"};

// The families, in the order of the exposition.
enum Metric {
    UP,
    BUILD_INFO,
    START_TIME,
    INTERFACE_INFO,
    FRAMES_IN,
    FRAMES_OUT,
    BYTES_IN,
    BYTES_OUT,
    DECODE_ERRORS,
    DROPS,
    LINK_UP,
    LOCAL_PEERS,
    MANET_LINKS,
    RESOLUTIONS_PENDING,
    METRIC_COUNT
};

struct Declaration {
    const char* name;
    const char* help;
    MetricType type;
};

const Declaration DECLARATIONS[METRIC_COUNT] = {
    {"gate_up", "1 when the gateway answered on its control socket, 0 when it did not", MetricType::Gauge},
    {"gate_build_info", "The gateway's version; always 1", MetricType::Gauge},
    {"gate_start_time_seconds", "When the gateway started, in seconds since the epoch", MetricType::Gauge},
    {"gate_interface_info", "An interface of the gateway; always 1", MetricType::Gauge},
    {"gate_frames_received_total", "Frames the interface decoded", MetricType::Counter},
    {"gate_frames_sent_total", "Frames accepted for sending on the interface", MetricType::Counter},
    {"gate_bytes_received_total", "Bytes that arrived on the interface", MetricType::Counter},
    {"gate_bytes_sent_total", "Bytes that left on the interface", MetricType::Counter},
    {"gate_decode_errors_total", "Errors of the interface's codec, by kind", MetricType::Counter},
    {"gate_drops_total", "Frames that went nowhere, by cause", MetricType::Counter},
    {"gate_link_up", "0 while the interface's serial line or CAN interface is lost", MetricType::Gauge},
    {"gate_local_peers", "Local devices known on the interface", MetricType::Gauge},
    {"gate_manet_links", "Links to MANet nodes on the interface, by origin", MetricType::Gauge},
    {"gate_resolutions_pending", "MANet links whose host name is still being looked up", MetricType::Gauge},
};

// The plain counters of an interface, by their key in the stats answer.
const std::pair<Metric, const char*> TRAFFIC[] = {
    {FRAMES_IN, "frames_in"}, {FRAMES_OUT, "frames_out"}, {BYTES_IN, "bytes_in"}, {BYTES_OUT, "bytes_out"}};

class Families {
public:
    Families() {
        for (int i = 0; i < METRIC_COUNT; i++) {
            families[i] = MetricFamily{DECLARATIONS[i].name, DECLARATIONS[i].help, DECLARATIONS[i].type, {}};
        }
    }
    void add(Metric which, std::vector<ClientMetric::Label> labels, double value) {
        MetricFamily& family = families[which];
        ClientMetric metric;
        metric.label = std::move(labels);
        if (family.type == MetricType::Counter) {
            metric.counter.value = value;
        } else {
            metric.gauge.value = value;
        }
        family.metric.push_back(std::move(metric));
    }
    // A family without samples says nothing; it is left out.
    std::vector<MetricFamily> present() && {
        std::vector<MetricFamily> present;
        for (MetricFamily& family : families) {
            if (!family.metric.empty()) present.push_back(std::move(family));
        }
        return present;
    }

private:
    std::array<MetricFamily, METRIC_COUNT> families;
};

// `object[key]` as a label value, empty when it has none.
std::string text(const json& object, const char* key) {
    return control::field_text(object, key).value_or("");
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
    families.add(UP, {gateway}, 1);
    families.add(BUILD_INFO, {gateway, {"version", text(report.stats, "version")}}, 1);
    // To the millisecond, as the gateway tells its uptime.
    families.add(START_TIME, {gateway}, std::round((now_s - number(report.stats, "uptime_s")) * 1000.0) / 1000.0);

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
        families.add(INTERFACE_INFO,
                     {gateway,
                      label,
                      {"kind", text(iface, "kind")},
                      {"role", text(iface, "role")},
                      {"description", text(iface, "description")}},
                     1);
        for (const auto& [metric, key] : TRAFFIC) families.add(metric, {gateway, label}, number(iface, key));
        for (const auto& error : member(iface, "decode_errors", NO_OBJECT).items()) {
            if (error.value().is_number()) {
                families.add(DECODE_ERRORS, {gateway, label, {"error", error.key()}}, error.value().get<double>());
            }
        }
        for (const auto& drop : member(iface, "drops", NO_OBJECT).items()) {
            if (drop.value().is_number()) {
                families.add(DROPS, {gateway, label, {"cause", drop.key()}}, drop.value().get<double>());
            }
        }
        const auto up = iface.find("link_up");
        families.add(LINK_UP, {gateway, label}, up == iface.end() || !up->is_boolean() || up->get<bool>() ? 1 : 0);
        families.add(LOCAL_PEERS, {gateway, label}, local_peers[id]);
        for (const char* origin : ORIGINS) {
            families.add(MANET_LINKS, {gateway, label, {"origin", origin}}, manet_links[{id, origin}]);
        }
    }
    families.add(RESOLUTIONS_PENDING, {gateway}, pending);
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
            families.add(UP, {{"gateway", report.name}}, 0);
        }
    }
    return std::move(families).present();
}

std::vector<MetricFamily> FleetCollectable::Collect() const {
    const std::vector<std::string> paths = socket_paths.empty() ? find_sockets() : socket_paths;
    const std::vector<GatewayReport> reports = ask_gateways(paths, wait_us);
    return metric_families(reports, wall_clock_s());
}

}  // namespace exporter
}  // namespace vostrelka
