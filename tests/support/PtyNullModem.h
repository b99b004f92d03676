#pragma once
// Two pseudo-terminals wired back to back like a null-modem cable: what one
// program writes to the first slave arrives at the second slave and the
// other way round. A thread of its own copies between the masters until
// destroyed.
#include <termios.h>

#include <atomic>
#include <thread>

#include "support/PtyPair.h"

namespace test_support {

class PtyNullModem {
public:
    // How often the copier looks at the stop flag while the line is quiet.
    static constexpr int STOP_CHECK_MS = 20;

    PtyNullModem() {
        if (!ok()) return;
        // Raw from the start: a new terminal echoes, and an echo would bounce
        // between the two ends before the programs have set their lines raw.
        for (const PtyPair* pty : {&a, &b}) {
            termios settings{};
            tcgetattr(pty->slave_fd(), &settings);
            cfmakeraw(&settings);
            tcsetattr(pty->slave_fd(), TCSANOW, &settings);
        }
        worker = std::thread([this] {
            pollfd masters[2] = {{a.master_fd(), POLLIN, 0}, {b.master_fd(), POLLIN, 0}};
            while (!stop) {
                if (poll(masters, 2, STOP_CHECK_MS) <= 0) continue;
                if (masters[0].revents & POLLIN) b.write_master(a.read_master_available());
                if (masters[1].revents & POLLIN) a.write_master(b.read_master_available());
            }
        });
    }
    ~PtyNullModem() {
        stop = true;
        if (worker.joinable()) worker.join();
    }

    bool ok() const { return a.ok() && b.ok(); }
    const std::string& path_a() const { return a.slave_path(); }
    const std::string& path_b() const { return b.slave_path(); }

private:
    PtyPair a;
    PtyPair b;
    std::atomic<bool> stop{false};
    std::thread worker;
};

}  // namespace test_support
