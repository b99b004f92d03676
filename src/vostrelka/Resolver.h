#pragma once
// Resolves a HostPort on a background thread, retrying once a second until
// it gets an answer or is destroyed. Polled without blocking.
#include <netdb.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>

#include "vostrelka/HostPort.h"
#include "vostrelka/InetAddress.h"

namespace vostrelka {

class AddressResolver {
public:
    AddressResolver(HostPort host_port, bool blocking);
    ~AddressResolver();  // stops and joins the lookup, about a second at most
    AddressResolver(const AddressResolver&) = delete;
    AddressResolver& operator=(const AddressResolver&) = delete;

    void start();
    bool finished() const;
    std::optional<InetAddress> get_resolved_address();
    std::string to_s() const;  // host + ":" + port_str

    static addrinfo get_hints(const HostPort& host_port);
    std::future<std::optional<InetAddress>> start_resolve();

private:
    std::string host;
    std::string port_str;
    uint16_t port;
    bool blocking;
    std::shared_ptr<std::atomic<bool>> finished_flag;
    std::optional<InetAddress> resolved_address;
    std::future<std::optional<InetAddress>> pending;
    std::shared_ptr<std::atomic<bool>> stop_flag;
};

}  // namespace vostrelka
