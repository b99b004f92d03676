// The devices behind one gateway of the fleet, in one process: DEVICES UDP
// sockets on 127.0.0.1:BASE_PORT+k (k = 1..DEVICES), each sending RATE MANet
// packets a second to its gateway at 127.0.0.1:GATE_PORT, addressed in turn
// to every device behind the other gateways, and logging what it sent and
// what it received:
//   S <ms since the epoch> <src node> <dst node> <seq>
//   R <ms since the epoch> <src node> <dst node> <seq>
// Device k behind gateway g is MANet node 0x0B00gg0k (hex), local address
// 0x10 + k. SIGUSR1 stops the sending; SIGTERM or SIGINT end the program.
// Usage: fleet-device GATEWAY GATEWAYS DEVICES GATE_PORT BASE_PORT RATE LOG
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr uint8_t MANET_PROTO = 0x0A;
constexpr uint8_t GATEWAY_ADDRESS = 0xFF;
constexpr size_t FRAME_SIZE = 3 + 10 + 4;  // link header, MANet header, sequence number

volatile std::sig_atomic_t stop_sending = 0, stop_all = 0;

int64_t now_ms() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

uint32_t node(unsigned gateway, unsigned device) {
    return 0x0B000000u | (gateway << 8) | device;
}

void put32(uint8_t* at, uint32_t value) {
    for (int i = 0; i < 4; i++) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t get32(const uint8_t* at) {
    return at[0] | at[1] << 8 | at[2] << 16 | static_cast<uint32_t>(at[3]) << 24;
}

sockaddr_in loopback(unsigned port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 8) {
        std::fprintf(stderr, "usage: fleet-device GATEWAY GATEWAYS DEVICES GATE_PORT BASE_PORT RATE LOG\n");
        return 2;
    }
    const unsigned self = std::atoi(argv[1]), gateways = std::atoi(argv[2]), devices = std::atoi(argv[3]),
                   gate_port = std::atoi(argv[4]), base_port = std::atoi(argv[5]);
    const double rate = std::atof(argv[6]);
    FILE* log = std::fopen(argv[7], "w");
    if (log == nullptr || gateways < 2 || devices < 1 || rate <= 0) return 2;

    std::signal(SIGUSR1, [](int) { stop_sending = 1; });
    std::signal(SIGTERM, [](int) { stop_all = 1; });
    std::signal(SIGINT, [](int) { stop_all = 1; });

    std::vector<pollfd> sockets;
    for (unsigned k = 1; k <= devices; k++) {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const sockaddr_in address = loopback(base_port + k);
        if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            std::fprintf(stderr, "fleet-device: cannot bind 127.0.0.1:%u\n", base_port + k);
            return 1;
        }
        sockets.push_back({fd, POLLIN, 0});
    }
    std::printf("fleet-device: %u devices behind gateway %u\n", devices, self);
    std::fflush(stdout);

    const sockaddr_in gate = loopback(gate_port);
    const int64_t period_ms = static_cast<int64_t>(1000.0 / rate);
    // The devices' sending is spread over the period, not in one burst.
    std::vector<int64_t> due(devices);
    std::vector<uint32_t> seq(devices, 0), turn(devices, 0);
    const int64_t start = now_ms();
    for (unsigned k = 0; k < devices; k++) due[k] = start + period_ms * k / devices;
    const unsigned destinations = (gateways - 1) * devices;
    int64_t flushed = start;

    while (!stop_all) {
        const int64_t now = now_ms();
        int64_t wait = 100;
        for (unsigned k = 0; k < devices && !stop_sending; k++) {
            if (now >= due[k]) {
                // Every device behind the other gateways in turn; devices
                // start at different points so the load spreads.
                const unsigned index = (turn[k]++ + k * (gateways - 1)) % destinations;
                unsigned gateway = index / devices + 1;
                if (gateway >= self) gateway++;
                const unsigned device = index % devices + 1;
                uint8_t frame[FRAME_SIZE] = {MANET_PROTO, static_cast<uint8_t>(0x10 + k + 1), GATEWAY_ADDRESS};
                const uint32_t src = node(self, k + 1), dst = node(gateway, device);
                put32(frame + 3, src);
                put32(frame + 7, dst);
                frame[11] = 1, frame[12] = 0;  // kind, flag
                put32(frame + 13, ++seq[k]);
                // A gateway that is down refuses; the frame counts as sent all the same.
                sendto(sockets[k].fd, frame, sizeof frame, 0, reinterpret_cast<const sockaddr*>(&gate), sizeof gate);
                std::fprintf(log, "S %lld %08X %08X %u\n", static_cast<long long>(now), src, dst, seq[k]);
                due[k] += period_ms;
                if (due[k] < now) due[k] = now + period_ms;  // fell behind: no burst to catch up
            }
            wait = std::min(wait, due[k] - now);
        }
        if (poll(sockets.data(), sockets.size(), static_cast<int>(std::max<int64_t>(wait, 0))) > 0) {
            for (pollfd& entry : sockets) {
                if (!(entry.revents & POLLIN)) continue;
                uint8_t frame[256];
                ssize_t got;
                while ((got = recv(entry.fd, frame, sizeof frame, 0)) >= 0) {
                    if (got < static_cast<ssize_t>(FRAME_SIZE) || frame[0] != MANET_PROTO) continue;
                    std::fprintf(log, "R %lld %08X %08X %u\n", static_cast<long long>(now_ms()), get32(frame + 3),
                                 get32(frame + 7), get32(frame + 13));
                }
            }
        }
        if (now - flushed >= 500) std::fflush(log), flushed = now;
    }
    std::fclose(log);
    return 0;
}
