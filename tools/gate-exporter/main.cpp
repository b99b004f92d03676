// gate-exporter: serves the counters and tables of running gateways, read
// from their control sockets, as Prometheus metrics on /metrics.
#include <prometheus/exposer.h>
#include <signal.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "gate-exporter/FleetMetrics.h"

namespace {

constexpr const char* DEFAULT_LISTEN = "127.0.0.1:9771";
// Per scrape, for every gateway at once; well under a 1 s scrape interval.
constexpr int64_t ANSWER_WAIT_US = 500000;

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: gate-exporter [--listen ADDR:PORT] [SOCKET...]\n"
                 "Serves the gateways' counters as Prometheus metrics on http://ADDR:PORT/metrics\n"
                 "(default %s). Without SOCKET, every /run/gate/*/control.sock at each scrape.\n",
                 DEFAULT_LISTEN);
}

}  // namespace

int main(int argc, char** argv) {
    std::string listen = DEFAULT_LISTEN;
    std::vector<std::string> sockets;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 0;
        }
        if (arg == "--listen" && i + 1 < argc) {
            listen = argv[++i];
        } else if (arg.rfind("--listen=", 0) == 0) {
            listen = arg.substr(std::strlen("--listen="));
        } else if (arg.rfind("-", 0) == 0) {
            usage(stderr);
            return 2;
        } else {
            sockets.push_back(arg);
        }
    }

    // Signals are taken by sigwait() below, on this thread only; the HTTP
    // server's threads inherit the mask.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    auto collectable = std::make_shared<vostrelka::exporter::FleetCollectable>(sockets, ANSWER_WAIT_US);
    std::unique_ptr<prometheus::Exposer> exposer;
    // The HTTP server reports an address it cannot listen on by throwing.
    try {
        exposer = std::make_unique<prometheus::Exposer>(listen, 2);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "gate-exporter: cannot listen on %s: %s\n", listen.c_str(), error.what());
        return 1;
    }
    exposer->RegisterCollectable(collectable);
    const std::vector<int> ports = exposer->GetListeningPorts();
    std::fprintf(stderr, "gate-exporter: listening on %s, port %d\n", listen.c_str(), ports.empty() ? 0 : ports[0]);

    int signal_number = 0;
    sigwait(&stop_signals, &signal_number);
    return 0;
}
