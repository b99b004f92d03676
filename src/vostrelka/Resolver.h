#pragma once
// Resolves a HostPort in the background, retrying once a second until it
// gets an answer or is destroyed. Polled without blocking; the lookups run
// on the process's ResolverPool.
#include <netdb.h>

#include <memory>
#include <optional>
#include <string>

#include "vostrelka/HostPort.h"
#include "vostrelka/InetAddress.h"

namespace vostrelka {

struct ResolverJob;

class AddressResolver {
public:
    AddressResolver(HostPort host_port, bool blocking);
    // Returns at once, even in the middle of a lookup: that lookup's answer
    // is thrown away when it comes.
    ~AddressResolver();
    AddressResolver(const AddressResolver&) = delete;
    AddressResolver& operator=(const AddressResolver&) = delete;

    void start();
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
    std::shared_ptr<ResolverJob> job;  // shared with the pool while it works on it
};

}  // namespace vostrelka
