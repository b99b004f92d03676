#include "support/UdpPoker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace test_support {

namespace {

constexpr auto POKE_PERIOD = std::chrono::milliseconds(100);

}  // namespace

UdpPoker::UdpPoker(uint16_t gate_port) {
    worker = std::thread([this, gate_port] {
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(gate_port);
        const uint8_t byte = 0;
        while (!stop) {
            sendto(fd, &byte, 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
            std::this_thread::sleep_for(POKE_PERIOD);
        }
        close(fd);
    });
}

UdpPoker::~UdpPoker() {
    stop = true;
    worker.join();
}

}  // namespace test_support
