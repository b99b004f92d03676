#pragma once
// A pseudo-terminal standing in for a serial line. The code under test opens
// the slave by its path, like a real adapter; the test plays the far end of
// the line on the master, which is non-blocking.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

class PtyPair {
public:
    PtyPair() {
        if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
            master = slave = -1;
            return;
        }
        path = ttyname(slave);
        fcntl(master, F_SETFL, fcntl(master, F_GETFL) | O_NONBLOCK);
    }
    ~PtyPair() {
        if (slave >= 0) close(slave);
        if (master >= 0) close(master);
    }
    PtyPair(const PtyPair&) = delete;
    PtyPair& operator=(const PtyPair&) = delete;

    bool ok() const { return master >= 0 && slave >= 0; }
    const std::string& slave_path() const { return path; }
    int master_fd() const { return master; }
    // Kept open for the pair's whole life: on Linux, once every slave
    // descriptor is closed, reads on the master fail with EIO, so the line
    // would die whenever the code under test closes and reopens its port.
    int slave_fd() const { return slave; }

    // Writes all of `data` to the master, waiting for room; false on error
    // or when the line stays full for `timeout`.
    bool write_master(const std::vector<uint8_t>& data, std::chrono::milliseconds timeout = std::chrono::seconds(2)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (size_t done = 0; done < data.size();) {
            const ssize_t n = write(master, data.data() + done, data.size() - done);
            if (n > 0) {
                done += static_cast<size_t>(n);
            } else if ((n < 0 && errno != EAGAIN && errno != EINTR) || !wait(POLLOUT, deadline)) {
                return false;
            }
        }
        return true;
    }
    // Reads from the master until `count` bytes have arrived or `timeout`
    // passes; returns what arrived.
    std::vector<uint8_t> read_master(size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(2)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::vector<uint8_t> out;
        while (out.size() < count) {
            uint8_t chunk[4096];
            const ssize_t n = read(master, chunk, std::min(sizeof(chunk), count - out.size()));
            if (n > 0) {
                out.insert(out.end(), chunk, chunk + n);
            } else if ((n < 0 && errno != EAGAIN && errno != EINTR) || !wait(POLLIN, deadline)) {
                break;
            }
        }
        return out;
    }
    // Everything readable at the master now, without waiting.
    std::vector<uint8_t> read_master_available() { return read_master(SIZE_MAX, std::chrono::milliseconds(0)); }

private:
    bool wait(short events, std::chrono::steady_clock::time_point deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd entry{master, events, 0};
        return poll(&entry, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0) > 0;
    }

    int master = -1;
    int slave = -1;
    std::string path;
};

}  // namespace test_support
