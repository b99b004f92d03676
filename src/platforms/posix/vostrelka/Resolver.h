#pragma once
// Resolves a HostPort in the background, retrying once a second until it
// gets an answer or is destroyed. Polled without blocking; the lookups run
// on the ResolverPool it is started on.
#include <netdb.h>

#include <memory>
#include <optional>
#include <string>

#include "vostrelka/HostPort.h"
#include "vostrelka/InetAddress.h"

namespace vostrelka {

struct ResolverJob;
class ResolverPool;
class ResolverQueue;

class AddressResolver {
public:
    AddressResolver(HostPort host_port, bool blocking);
    // Returns at once, even in the middle of a lookup: that lookup's answer
    // is thrown away when it comes.
    ~AddressResolver();
    AddressResolver(const AddressResolver&) = delete;
    AddressResolver& operator=(const AddressResolver&) = delete;

    // The lookup runs on `pool`'s workers; the pool may go first.
    void start(ResolverPool& pool);
    bool finished() const;
    std::optional<InetAddress> get_resolved_address();
    std::string to_s() const;  // host + ":" + port_str
    // The reason the last attempt of a lookup still going on failed, as its
    // log line gives it; null before the first failure and once finished.
    const char* failure_reason() const;

    static addrinfo get_hints(const HostPort& host_port);

private:
    std::string host;
    std::string port_str;
    uint16_t port;
    bool blocking;
    std::optional<InetAddress> resolved_address;
    std::shared_ptr<ResolverJob> job;     // shared with the pool while it works on it
    std::shared_ptr<ResolverQueue> jobs;  // the queue of the pool it was started on
};

}  // namespace vostrelka
