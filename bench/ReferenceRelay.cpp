// fwd-relay: the cheapest forwarder of the gateway's shape, the yardstick of
// the forwarding benchmark. One select(), one recvfrom() and one sendto() per
// datagram, on a socket with the system's default buffers, bytes passed
// through untouched.
//
//   fwd-relay --listen 127.0.0.1:47011 --to 127.0.0.1:47003
//   fwd-relay --listen 127.0.0.1:47011 --to 127.0.0.1:47003 --gate-select
//
// With --gate-select it makes the select() call the gateway's loop makes in
// every pass instead of the cheapest one: 1024 descriptors, a write set
// beside the read set, a 5 s limit. The difference between the two relays is
// what that call costs; the rest of the gateway's difference is its own work.
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
constexpr int GATE_SELECT_FD_LIMIT = 1024;
constexpr time_t GATE_SELECT_WAIT_S = 5;
const char* const USAGE = "usage: fwd-relay --listen HOST:PORT --to HOST:PORT [--gate-select]\n";

// Blocks until `fd` is readable.
void wait_readable(int fd, bool gate_select) {
    fd_set read_set;
    FD_ZERO(&read_set);
    FD_SET(fd, &read_set);
    if (!gate_select) {
        select(fd + 1, &read_set, nullptr, nullptr, nullptr);
        return;
    }
    fd_set write_set;
    FD_ZERO(&write_set);
    timeval wait{GATE_SELECT_WAIT_S, 0};
    select(GATE_SELECT_FD_LIMIT, &read_set, &write_set, nullptr, &wait);
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<sockaddr_in> listen;
    std::optional<sockaddr_in> to;
    bool gate_select = false;
    int i = 1;
    for (; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--listen") == 0) {
            listen = probe::parse_endpoint(argv[i + 1]);
        } else if (std::strcmp(argv[i], "--to") == 0) {
            to = probe::parse_endpoint(argv[i + 1]);
        } else {
            break;
        }
    }
    if (i < argc && std::strcmp(argv[i], "--gate-select") == 0) {
        gate_select = true;
        ++i;
    }
    if (!listen || !to || i != argc) {
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
        wait_readable(fd, gate_select);
        sockaddr_in from{};
        socklen_t from_size = sizeof(from);
        const ssize_t size =
            recvfrom(fd, buffer, sizeof(buffer), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &from_size);
        if (size > 0)
            sendto(fd, buffer, static_cast<size_t>(size), 0, reinterpret_cast<const sockaddr*>(&*to), sizeof(*to));
    }
}
