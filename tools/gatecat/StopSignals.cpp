#include "gatecat/StopSignals.h"

namespace vostrelka {
namespace gatecat {

namespace {

volatile sig_atomic_t stop_flag = 0;

void on_stop_signal(int) {
    stop_flag = 1;
}

}  // namespace

bool StopSignals::install() {
    sigset_t stop_set;
    sigemptyset(&stop_set);
    sigaddset(&stop_set, SIGINT);
    sigaddset(&stop_set, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &stop_set, &unblocked) != 0) return false;
    sigdelset(&unblocked, SIGINT);
    sigdelset(&unblocked, SIGTERM);

    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

bool StopSignals::requested() const {
    return stop_flag != 0;
}

}  // namespace gatecat
}  // namespace vostrelka
