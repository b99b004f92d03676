#pragma once
// The gateways' reports as Prometheus metric families, built afresh at every
// scrape: a gateway's interfaces and links come and go with it, so nothing
// is kept between scrapes.
#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <cstdint>
#include <string>
#include <vector>

#include "gate-exporter/GatewayQuery.h"

namespace vostrelka {
namespace exporter {

// `now_s` is the wall-clock time of the scrape, for gate_start_time_seconds.
std::vector<prometheus::MetricFamily> metric_families(const std::vector<GatewayReport>& reports, double now_s);

// Asks the gateways at `socket_paths` (every /run/gate/*/control.sock when
// empty) at each Collect(). Called from the HTTP server's threads; holds no
// state that changes.
class FleetCollectable : public prometheus::Collectable {
public:
    FleetCollectable(std::vector<std::string> socket_paths, int64_t wait_us)
        : socket_paths(std::move(socket_paths)), wait_us(wait_us) {}

    std::vector<prometheus::MetricFamily> Collect() const override;

private:
    const std::vector<std::string> socket_paths;
    const int64_t wait_us;
};

}  // namespace exporter
}  // namespace vostrelka
