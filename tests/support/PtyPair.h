#pragma once
// Pseudo-terminals standing in for serial lines: the code under test opens
// the slave by its path, like a real adapter, and the test plays the far end
// on the non-blocking master.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace test_support {

class PtyPair {
public:
    using Wait = std::chrono::milliseconds;

    PtyPair() {
        if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return;
        path = ttyname(slave);
        fcntl(master, F_SETFL, O_RDWR | O_NONBLOCK);
    }
    ~PtyPair() { close(slave), close(master); }

    bool ok() const { return master >= 0; }
    const std::string& slave_path() const { return path; }
    // Open for the pair's whole life: once every slave descriptor is closed,
    // reads on the master fail with EIO, so the line would die whenever the
    // code under test closes and reopens its port.
    int slave_fd() const { return slave; }

    // All of `data`, waiting for room; false on error or a line full for `timeout`.
    bool write_master(const std::vector<uint8_t>& data, Wait timeout = Wait(2000)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (size_t done = 0; done < data.size();) {
            const ssize_t n = write(master, data.data() + done, data.size() - done);
            if (n > 0) done += static_cast<size_t>(n);
            if (n <= 0 && !wait(POLLOUT, deadline)) return false;
        }
        return true;
    }
    // What arrives until `count` bytes are there or `timeout` passes.
    std::vector<uint8_t> read_master(size_t count, Wait timeout = Wait(2000)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::vector<uint8_t> out;
        uint8_t chunk[4096];
        while (out.size() < count) {
            const ssize_t n = read(master, chunk, std::min(sizeof(chunk), count - out.size()));
            if (n > 0) out.insert(out.end(), chunk, chunk + n);
            if (n <= 0 && !wait(POLLIN, deadline)) break;
        }
        return out;
    }
    std::vector<uint8_t> read_master_available() { return read_master(SIZE_MAX, Wait(0)); }
    // The far end goes away: the terminal is hung up for whoever still has
    // the slave open, and its path disappears.
    void hang_up() {
        close(slave), close(master);
        slave = master = -1;
    }

private:
    // Only after EAGAIN or EINTR: whether `events` came before the deadline.
    bool wait(short events, std::chrono::steady_clock::time_point deadline) {
        const auto left = std::chrono::duration_cast<Wait>(deadline - std::chrono::steady_clock::now());
        pollfd entry{master, events, 0};
        return (errno == EAGAIN || errno == EINTR) && poll(&entry, 1, std::max(0, int(left.count()))) > 0;
    }

    int master = -1;
    int slave = -1;
    std::string path;
    friend class PtyNullModem;
};

// Two pairs wired back to back like a null-modem cable: what one program
// writes to the first slave arrives at the second and the other way round,
// copied by a thread of its own until destroyed.
class PtyNullModem {
public:
    PtyNullModem() {
        // Raw from the start: an echo would bounce between the two ends
        // before the programs have set their lines raw.
        for (const PtyPair* pty : {&a, &b}) {
            termios settings{};
            tcgetattr(pty->slave, &settings);
            cfmakeraw(&settings);
            tcsetattr(pty->slave, TCSANOW, &settings);
        }
        worker = std::thread([this] {
            pollfd masters[2] = {{a.master, POLLIN, 0}, {b.master, POLLIN, 0}};
            while (!stop) {
                if (poll(masters, 2, 20) <= 0) continue;  // looks at `stop` at least every 20 ms
                if (masters[0].revents & POLLIN) b.write_master(a.read_master_available());
                if (masters[1].revents & POLLIN) a.write_master(b.read_master_available());
            }
        });
    }
    ~PtyNullModem() { stop = true, worker.join(); }

    bool ok() const { return a.ok() && b.ok(); }
    const std::string& path_a() const { return a.slave_path(); }
    const std::string& path_b() const { return b.slave_path(); }

private:
    PtyPair a, b;
    std::atomic<bool> stop{false};
    std::thread worker;
};

}  // namespace test_support
