// The fleet's name server: answers A queries for NAME with ADDRESS, given as
// NAME=ADDRESS arguments, on IP:53, until SIGTERM or SIGINT.
// Usage: fleet-dns IP NAME=ADDRESS...
#include <signal.h>

#include <cstdio>
#include <string>

#include "dns/DnsResponder.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: fleet-dns IP NAME=ADDRESS...\n");
        return 2;
    }
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);  // before the server's thread starts

    test_support::DnsResponder responder(argv[1]);
    if (!responder.ok()) {
        std::fprintf(stderr, "fleet-dns: cannot listen on %s:53\n", argv[1]);
        return 1;
    }
    for (int i = 2; i < argc; i++) {
        const std::string rule = argv[i];
        const size_t equals = rule.find('=');
        if (equals == std::string::npos) continue;
        responder.set(rule.substr(0, equals), {test_support::DnsResponder::Reply::ANSWER, rule.substr(equals + 1)});
    }
    std::printf("fleet-dns: serving %d names on %s:53\n", argc - 2, argv[1]);
    std::fflush(stdout);
    int signal_number = 0;
    sigwait(&stop, &signal_number);
    std::printf("fleet-dns: %zu answers\n", responder.answers().size());
    return 0;
}
