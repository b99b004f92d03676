#include "support/PtyPair.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace test_support {

namespace {

using Clock = std::chrono::steady_clock;

int remaining_ms(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Waits until `fd` is ready for `events` or the deadline passes.
bool wait_for(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        struct pollfd pfd = {fd, events, 0};
        const int ready = poll(&pfd, 1, remaining_ms(deadline));
        if (ready > 0) return true;
        if (ready == 0) return false;
        if (errno != EINTR) return false;
    }
}

}  // namespace

PtyPair::PtyPair() {
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
        master = slave = -1;
        return;
    }
    const char* name = ttyname(slave);
    if (name != nullptr) path = name;
    fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
}

PtyPair::~PtyPair() {
    if (slave >= 0) close(slave);
    if (master >= 0) close(master);
}

bool PtyPair::write_master(const std::vector<uint8_t>& data, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = write(master, data.data() + done, data.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        } else if (!wait_for(master, POLLOUT, deadline)) {
            return false;
        }
    }
    return true;
}

std::vector<uint8_t> PtyPair::read_master(size_t count, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::vector<uint8_t> out;
    uint8_t chunk[4096];
    while (out.size() < count) {
        const ssize_t n = read(master, chunk, std::min(sizeof(chunk), count - out.size()));
        if (n > 0) {
            out.insert(out.end(), chunk, chunk + n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            break;
        } else if (!wait_for(master, POLLIN, deadline)) {
            break;
        }
    }
    return out;
}

std::vector<uint8_t> PtyPair::read_master_available() {
    std::vector<uint8_t> out;
    uint8_t chunk[4096];
    for (;;) {
        const ssize_t n = read(master, chunk, sizeof(chunk));
        if (n > 0) {
            out.insert(out.end(), chunk, chunk + n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return out;
        }
    }
}

}  // namespace test_support
