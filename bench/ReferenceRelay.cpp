// fwd-relay: the cheapest forwarders of the gateway's shape, the yardsticks
// of the forwarding benchmark. Bytes are passed through untouched, on a
// socket with the system's default buffers.
//
//   fwd-relay --listen 127.0.0.1:47011 --to 127.0.0.1:47003
//   fwd-relay --listen 127.0.0.1:47011 --to 127.0.0.1:47003 --gate-select
//   fwd-relay --listen 127.0.0.1:47011 --to 127.0.0.1:47003 --batch
//   fwd-relay --listen 127.0.0.1:47011 --to 127.0.0.1:47003 --batch-recv
//
// By default one select(), one recvfrom() and one sendto() per datagram: the
// select relay. With --gate-select it makes the select() call the gateway's
// loop made before it asked only about its own descriptors: 1024
// descriptors, a write set beside the read set, a 5 s limit. With --batch
// it takes what is waiting, up to BATCH datagrams, with one recvmmsg() per
// select() and sends them on with one sendmmsg(): the batching relay. With
// --batch-recv it reads the same way but sends each datagram with its own
// sendto(), which is how far a forwarder gets that must know the fate of
// every frame as it sends it.
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
constexpr unsigned BATCH = 32;
constexpr size_t BATCH_DATAGRAM_SIZE = 2048 + 3;  // the gateway's "udp" receive buffer
constexpr int GATE_SELECT_FD_LIMIT = 1024;
constexpr time_t GATE_SELECT_WAIT_S = 5;
const char* const USAGE =
    "usage: fwd-relay --listen HOST:PORT --to HOST:PORT [--gate-select | --batch | --batch-recv]\n";

enum class Mode { SELECT, GATE_SELECT, BATCH, BATCH_RECV };

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

[[noreturn]] void relay_one_by_one(int fd, const sockaddr_in& to, bool gate_select) {
    static uint8_t buffer[MAX_DATAGRAM_SIZE];
    for (;;) {
        wait_readable(fd, gate_select);
        sockaddr_in from{};
        socklen_t from_size = sizeof(from);
        const ssize_t size =
            recvfrom(fd, buffer, sizeof(buffer), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &from_size);
        if (size > 0)
            sendto(fd, buffer, static_cast<size_t>(size), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
}

[[noreturn]] void relay_batched(int fd, const sockaddr_in& to, bool batch_send) {
    static uint8_t buffers[BATCH][BATCH_DATAGRAM_SIZE];
    static iovec iov[BATCH];
    static sockaddr_in from[BATCH];
    static mmsghdr in[BATCH];
    static mmsghdr out[BATCH];
    for (unsigned i = 0; i < BATCH; ++i) {
        iov[i] = {buffers[i], BATCH_DATAGRAM_SIZE};
        in[i].msg_hdr.msg_iov = &iov[i];
        in[i].msg_hdr.msg_iovlen = 1;
        out[i].msg_hdr.msg_iov = &iov[i];
        out[i].msg_hdr.msg_iovlen = 1;
        out[i].msg_hdr.msg_name = const_cast<sockaddr_in*>(&to);
        out[i].msg_hdr.msg_namelen = sizeof(to);
    }
    for (;;) {
        wait_readable(fd, false);
        for (unsigned i = 0; i < BATCH; ++i) {
            iov[i].iov_len = BATCH_DATAGRAM_SIZE;
            in[i].msg_hdr.msg_name = &from[i];
            in[i].msg_hdr.msg_namelen = sizeof(from[i]);
        }
        const int count = recvmmsg(fd, in, BATCH, MSG_DONTWAIT, nullptr);
        if (count <= 0) continue;
        for (int i = 0; i < count; ++i) iov[i].iov_len = in[i].msg_len;
        if (batch_send) {
            sendmmsg(fd, out, static_cast<unsigned>(count), 0);
            continue;
        }
        for (int i = 0; i < count; ++i)
            sendto(fd, buffers[i], iov[i].iov_len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::optional<sockaddr_in> listen;
    std::optional<sockaddr_in> to;
    Mode mode = Mode::SELECT;
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
    if (i < argc) {
        const std::string option = argv[i++];
        if (option == "--gate-select") {
            mode = Mode::GATE_SELECT;
        } else if (option == "--batch") {
            mode = Mode::BATCH;
        } else if (option == "--batch-recv") {
            mode = Mode::BATCH_RECV;
        } else {
            i = argc + 1;
        }
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
    if (mode == Mode::BATCH || mode == Mode::BATCH_RECV) relay_batched(fd, *to, mode == Mode::BATCH);
    relay_one_by_one(fd, *to, mode == Mode::GATE_SELECT);
}
