#include "vostrelka/Resolver.h"

#include <netdb.h>

#include <utility>

#include "vostrelka/ResolverPool.h"

namespace vostrelka {

AddressResolver::AddressResolver(HostPort host_port, bool blocking)
    : host(std::move(host_port.host)),
      port_str(std::move(host_port.port_str)),
      port(host_port.port),
      blocking(blocking) {}

AddressResolver::~AddressResolver() {
    if (job) jobs->withdraw(job);
}

void AddressResolver::start(ResolverPool& pool) {
    if (blocking) {
        // No caller uses this mode; it keeps retrying without a pause and
        // never releases its answer.
        addrinfo hints = get_hints(HostPort{host, port_str, port});
        addrinfo* result = nullptr;
        while (getaddrinfo(host.c_str(), port_str.c_str(), &hints, &result) != 0) {
        }
        resolved_address = InetAddress::from(*result->ai_addr);
        return;
    }
    if (job) return;  // one lookup per resolver
    job = std::make_shared<ResolverJob>();
    job->host = host;
    job->port_str = port_str;
    job->hints = get_hints(HostPort{host, port_str, port});
    jobs = pool.jobs();
    jobs->submit(job);
}

bool AddressResolver::finished() const {
    return job && job->finished.load();
}

std::optional<InetAddress> AddressResolver::get_resolved_address() {
    // The worker wrote the answer before it set `finished` and never
    // touches it again.
    if (finished()) resolved_address = job->answer;
    return resolved_address;
}

const char* AddressResolver::failure_reason() const {
    return job && !job->finished.load() ? job->failure.load() : nullptr;
}

std::string AddressResolver::to_s() const {
    return host + ":" + port_str;
}

addrinfo AddressResolver::get_hints(const HostPort&) {
    addrinfo hints{};
    hints.ai_flags = 0;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    return hints;
}

}  // namespace vostrelka
