#include "support/FreeUdpPort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace test_support {

namespace {

constexpr auto BOUND_POLL_PERIOD = std::chrono::milliseconds(10);

// /proc/net/udp lines: "sl local_address rem_address ...", addresses as
// hex "0100007F:1F90" (address in host order, port big-endian hex).
bool listed_as_bound(uint16_t port) {
    std::ifstream table("/proc/net/udp");
    std::string line;
    std::getline(table, line);  // header
    char port_hex[8];
    std::snprintf(port_hex, sizeof(port_hex), ":%04X", port);
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, local;
        fields >> slot >> local;
        if (local.size() > 5 && local.compare(local.size() - 5, 5, port_hex) == 0) return true;
    }
    return false;
}

}  // namespace

uint16_t free_udp_port() {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) std::abort();
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        std::abort();
    close(fd);
    return ntohs(addr.sin_port);
}

bool wait_until_udp_bound(uint16_t port, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (listed_as_bound(port)) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(BOUND_POLL_PERIOD);
    }
}

}  // namespace test_support
