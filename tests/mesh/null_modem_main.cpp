// mesh-null-modem: two pseudo-terminals wired back to back, for a serial
// interface of a gateway and the simulated device on its other end. Prints
// the two paths on one line, then copies between them until SIGTERM or
// SIGINT.
#include <csignal>
#include <cstdio>

#include "support/PtyPair.h"

int main() {
    // Blocked before the copier thread starts, so that it inherits the mask
    // and the signal is left for sigwait below.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGTERM);
    sigaddset(&stop_signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    test_support::PtyNullModem modem;
    if (!modem.ok()) return std::fprintf(stderr, "mesh-null-modem: cannot open pseudo-terminals\n"), 1;
    std::printf("%s %s\n", modem.path_a().c_str(), modem.path_b().c_str());
    std::fflush(stdout);
    int received = 0;
    return sigwait(&stop_signals, &received), 0;
}
