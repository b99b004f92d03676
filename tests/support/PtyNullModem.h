#pragma once
// Two pseudo-terminals wired back to back like a null-modem cable: what one
// program writes to the first slave arrives at the second slave and the
// other way round, so two programs that each open a serial path can talk.
// A thread of its own copies between the two masters until destroyed.
#include <atomic>
#include <string>
#include <thread>

#include "support/PtyPair.h"

namespace test_support {

class PtyNullModem {
public:
    PtyNullModem();
    ~PtyNullModem();
    PtyNullModem(const PtyNullModem&) = delete;
    PtyNullModem& operator=(const PtyNullModem&) = delete;

    bool ok() const { return a.ok() && b.ok(); }
    const std::string& path_a() const { return a.slave_path(); }
    const std::string& path_b() const { return b.slave_path(); }

private:
    void copy_until_stopped();

    PtyPair a;
    PtyPair b;
    std::atomic<bool> stop{false};
    std::thread worker;
};

}  // namespace test_support
