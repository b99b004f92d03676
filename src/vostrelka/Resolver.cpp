#include "vostrelka/Resolver.h"

#include <netdb.h>

#include <chrono>
#include <exception>
#include <utility>

#include "vostrelka/Time.h"
#include "vostrelka/debug.h"

namespace vostrelka {

namespace {

constexpr const char* TAG = "Resolver";
constexpr long RETRY_PERIOD_US = 1000000;
constexpr time_t SUSPEND_WAIT_S = 1;

using Flag = std::shared_ptr<std::atomic<bool>>;

// A request that is still queued or running cannot be reused or left behind,
// so wait until the C library lets go of it. An answer that arrived before
// the cancellation took hold is released here.
void cancel(gaicb* request) {
    while (gai_cancel(request) == EAI_NOTCANCELED) {
    }
    if (request->ar_result != nullptr) {
        freeaddrinfo(request->ar_result);
        request->ar_result = nullptr;
    }
}

// The background lookup. Works on its own copies of the endpoint and
// shares only the two flags with its resolver, so either side may end first.
// Ends with the address, or empty when stopped or when submission failed;
// in the latter case `finished` stays false on purpose: the peer is never
// collected and stays unresolved until its resolver is replaced.
std::optional<InetAddress> lookup(HostPort endpoint, Flag stop, Flag finished) {
    const std::string& host = endpoint.host;
    const std::string& port_str = endpoint.port_str;
    addrinfo hints = AddressResolver::get_hints(endpoint);
    gaicb request{};
    request.ar_name = host.c_str();
    request.ar_service = port_str.c_str();
    request.ar_request = &hints;
    request.ar_result = nullptr;
    gaicb* list[1] = {&request};
    const gaicb* wait_list[1] = {&request};

    debug_tagged(TAG, "Trying to resolve %s:%s", host.c_str(), port_str.c_str());

    for (;;) {
        if (stop->load()) {
            finished->store(true);
            return std::nullopt;
        }

        int r = getaddrinfo_a(GAI_NOWAIT, list, 1, nullptr);
        if (r != 0) {
            debug_tagged(TAG, "ERROR: getaddrinfo_a() failed. %s", gai_strerror(r));
            return std::nullopt;
        }

        const timespec ts{SUSPEND_WAIT_S, 0};
        int s;
        do {
            s = gai_suspend(wait_list, 1, &ts);
        } while (s == EAI_AGAIN && !stop->load());

        int e = gai_error(&request);

        if (stop->load()) {
            cancel(&request);
            finished->store(true);
            return std::nullopt;
        }

        if (e == 0) {
            if (request.ar_result == nullptr) {
                debug_tagged(TAG, "ERROR: unexpected null result!");
                sleep_us(RETRY_PERIOD_US);
                continue;
            }
            auto address = InetAddress::from(*request.ar_result->ai_addr);
            freeaddrinfo(request.ar_result);
            finished->store(true);
            return address;
        }

        if (e != EAI_INPROGRESS) {
            std::string reason = "Reason: ";
            if (s != 0) {
                reason += gai_strerror(s);
                reason += " / ";
            }
            reason += gai_strerror(e);
            debug_tagged(TAG, "WARN: failed to resolve address. %s:%s. %s", host.c_str(), port_str.c_str(),
                         reason.c_str());
        }
        cancel(&request);
        sleep_us(RETRY_PERIOD_US);
    }
}

}  // namespace

AddressResolver::AddressResolver(HostPort host_port, bool blocking)
    : host(std::move(host_port.host)),
      port_str(std::move(host_port.port_str)),
      port(host_port.port),
      blocking(blocking),
      finished_flag(std::make_shared<std::atomic<bool>>(false)),
      stop_flag(std::make_shared<std::atomic<bool>>(false)) {}

AddressResolver::~AddressResolver() {
    stop_flag->store(true);
    stop_flag.reset();
    // Releasing the last reference to an async result joins its thread:
    // at most one suspend wait, a pause or a cancellation away.
    pending = {};
}

void AddressResolver::start() {
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
    if (!pending.valid()) pending = start_resolve();
}

bool AddressResolver::finished() const {
    return finished_flag->load();
}

std::optional<InetAddress> AddressResolver::get_resolved_address() {
    // Never waits: a deferred task (no thread was available) reports itself
    // as deferred here and is never run.
    if (pending.valid() && pending.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
        try {
            resolved_address = pending.get();
        } catch (const std::exception&) {
            resolved_address.reset();
        }
    }
    return resolved_address;
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

std::future<std::optional<InetAddress>> AddressResolver::start_resolve() {
    return std::async(lookup, HostPort{host, port_str, port}, stop_flag, finished_flag);
}

}  // namespace vostrelka
