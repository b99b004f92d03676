// fwd-relay: the cheapest forwarder of the gateway's shape, the yardstick of
// the forwarding benchmark. One select(), one recvfrom() and one sendto() per
// datagram, on a socket with the system's default buffers, bytes passed
// through untouched.
//
//   fwd-relay --listen 127.0.0.1:47011 --to 127.0.0.1:47003
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "ProbeFrame.h"

namespace {

constexpr size_t MAX_DATAGRAM_SIZE = 65536;
const char* const USAGE = "usage: fwd-relay --listen HOST:PORT --to HOST:PORT\n";

}  // namespace

int main(int argc, char** argv) {
    std::optional<sockaddr_in> listen;
    std::optional<sockaddr_in> to;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--listen") == 0) listen = probe::parse_endpoint(argv[i + 1]);
        if (std::strcmp(argv[i], "--to") == 0) to = probe::parse_endpoint(argv[i + 1]);
    }
    if (!listen || !to || argc != 5) {
        std::fputs(USAGE, stderr);
        return 2;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&*listen), sizeof(*listen)) < 0) {
        std::perror("fwd-relay: socket");
        return 1;
    }
    static uint8_t buffer[MAX_DATAGRAM_SIZE];
    for (;;) {
        fd_set read_set;
        FD_ZERO(&read_set);
        FD_SET(fd, &read_set);
        if (select(fd + 1, &read_set, nullptr, nullptr, nullptr) <= 0) continue;
        sockaddr_in from{};
        socklen_t from_size = sizeof(from);
        const ssize_t size = recvfrom(fd, buffer, sizeof(buffer), 0, reinterpret_cast<sockaddr*>(&from), &from_size);
        if (size > 0)
            sendto(fd, buffer, static_cast<size_t>(size), 0, reinterpret_cast<const sockaddr*>(&*to), sizeof(*to));
    }
}
