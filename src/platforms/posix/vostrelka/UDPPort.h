#pragma once
// A byte port over a non-blocking IPv4 UDP socket: writes go to the remote
// address, and each read makes the sender the new remote address.
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "vostrelka/DataPort.h"

namespace vostrelka {
namespace drivers {

class UDPPort : public DataPort {
public:
    UDPPort() = default;
    UDPPort(const UDPPort&) = delete;
    UDPPort& operator=(const UDPPort&) = delete;
    ~UDPPort() override;

    // `local` and `remote` are "host:port" or a bare port. 0 on success,
    // -1 after a log line, with the port closed.
    int open(const char* local, const char* remote);
    // First IPv4 datagram answer for "host:port" or a bare port; null after a
    // log line. The caller releases it with freeaddrinfo().
    static addrinfo* get_addrinfo(const char* address);

    // Both give 0 when the socket would block and -1 when it is closed or fails.
    int64_t write(const uint8_t* data, size_t len) override;
    int64_t read(uint8_t* buf, size_t len) override;
    void close() override;
    int get_fd() const override { return fd; }

private:
    int fd = -1;
    sockaddr_in remote_addr{};
};

}  // namespace drivers
}  // namespace vostrelka
