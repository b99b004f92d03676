#pragma once
// A pseudo-terminal standing in for a serial line. The code under test opens
// the slave by its path, like a real adapter; the test plays the far end of
// the line on the master.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

class PtyPair {
public:
    // Opens the pair; ok() tells whether that worked. The master is
    // non-blocking.
    PtyPair();
    ~PtyPair();
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
    bool write_master(const std::vector<uint8_t>& data,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));
    // Reads from the master until `count` bytes have arrived or `timeout`
    // passes; returns what arrived.
    std::vector<uint8_t> read_master(size_t count, std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));
    // Everything readable at the master now, without waiting.
    std::vector<uint8_t> read_master_available();

private:
    int master = -1;
    int slave = -1;
    std::string path;
};

}  // namespace test_support
