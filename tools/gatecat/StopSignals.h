#pragma once
// Ctrl-C and SIGTERM end a dump cleanly, with its closing counts, instead of
// killing it. The signals stay blocked except while the loop waits, so one
// that arrives between two waits is taken at the next wait, never lost.
#include <signal.h>

namespace vostrelka {
namespace gatecat {

class StopSignals {
public:
    // Installs the handlers and blocks the signals; false when the system refused.
    bool install();
    bool requested() const;
    // The signal mask to wait with (the one from before install()).
    const sigset_t* wait_mask() const { return &unblocked; }

private:
    sigset_t unblocked{};
};

}  // namespace gatecat
}  // namespace vostrelka
