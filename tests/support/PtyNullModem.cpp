#include "support/PtyNullModem.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

namespace test_support {

namespace {

// How often the copier looks at the stop flag while the line is quiet.
constexpr int STOP_CHECK_MS = 20;

// Moves what `from` holds to `to`; the masters are non-blocking, so a full
// `to` is waited for briefly rather than dropping bytes.
void pass_on(int from, int to) {
    char buf[4096];
    const ssize_t n = read(from, buf, sizeof buf);
    for (ssize_t done = 0; n > 0 && done < n;) {
        const ssize_t written = write(to, buf + done, static_cast<size_t>(n - done));
        if (written > 0) {
            done += written;
        } else if (written < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        } else {
            pollfd out{to, POLLOUT, 0};
            poll(&out, 1, STOP_CHECK_MS);
        }
    }
}

}  // namespace

PtyNullModem::PtyNullModem() {
    if (!ok()) return;
    // Raw from the start: a new terminal echoes, and an echo would bounce
    // between the two ends before the programs have set their lines raw.
    for (const PtyPair* pty : {&a, &b}) {
        termios settings{};
        tcgetattr(pty->slave_fd(), &settings);
        cfmakeraw(&settings);
        tcsetattr(pty->slave_fd(), TCSANOW, &settings);
    }
    worker = std::thread([this] { copy_until_stopped(); });
}

PtyNullModem::~PtyNullModem() {
    stop = true;
    if (worker.joinable()) worker.join();
}

void PtyNullModem::copy_until_stopped() {
    pollfd fds[2] = {{a.master_fd(), POLLIN, 0}, {b.master_fd(), POLLIN, 0}};
    while (!stop) {
        if (poll(fds, 2, STOP_CHECK_MS) <= 0) continue;
        if (fds[0].revents & POLLIN) pass_on(a.master_fd(), b.master_fd());
        if (fds[1].revents & POLLIN) pass_on(b.master_fd(), a.master_fd());
    }
}

}  // namespace test_support
