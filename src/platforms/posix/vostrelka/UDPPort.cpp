#include "vostrelka/UDPPort.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vostrelka/debug.h"

namespace vostrelka {
namespace drivers {

namespace {

constexpr const char* LOG_TAG = "UDPPort";
constexpr size_t HOST_BUFFER_SIZE = 64;

}  // namespace

UDPPort::~UDPPort() {
    close();
}

addrinfo* UDPPort::get_addrinfo(const char* address) {
    char host[HOST_BUFFER_SIZE] = {};
    const char* service = address;
    const char* colon = std::strchr(address, ':');
    if (colon != nullptr) {
        const size_t host_length = static_cast<size_t>(colon - address);
        if (host_length >= HOST_BUFFER_SIZE) {
            debug_tagged(LOG_TAG, "ERROR: getaddrinfo for %s: %s", address, gai_strerror(EAI_NONAME));
            return nullptr;
        }
        std::memcpy(host, address, host_length);
        service = colon + 1;
    }

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* result = nullptr;
    const int status = ::getaddrinfo(host[0] != '\0' ? host : nullptr, service, &hints, &result);
    if (status != 0) {
        debug_tagged(LOG_TAG, "ERROR: getaddrinfo for %s: %s", address, gai_strerror(status));
        return nullptr;
    }
    return result;
}

int UDPPort::open(const char* local, const char* remote) {
    close();
    fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        debug_tagged(LOG_TAG, "ERROR: creating socket \"%s\" / \"%s\": %s", local, remote, std::strerror(errno));
        close();
        return -1;
    }

    addrinfo* local_info = get_addrinfo(local);
    addrinfo* remote_info = local_info != nullptr ? get_addrinfo(remote) : nullptr;
    if (remote_info == nullptr) {
        if (local_info != nullptr) ::freeaddrinfo(local_info);
        close();
        return -1;
    }
    sockaddr_in local_addr{};
    std::memcpy(&local_addr, local_info->ai_addr, sizeof(local_addr));
    std::memcpy(&remote_addr, remote_info->ai_addr, sizeof(remote_addr));
    ::freeaddrinfo(local_info);
    ::freeaddrinfo(remote_info);

    if (::fcntl(fd, F_SETFL, O_NONBLOCK) < 0) {
        debug_tagged(LOG_TAG, "ERROR: setting non-blocking mode: %s", std::strerror(errno));
        close();
        return -1;
    }
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&local_addr), sizeof(local_addr)) < 0) {
        debug_tagged(LOG_TAG, "ERROR: binding to UDP port: %s", std::strerror(errno));
        close();
        return -1;
    }
    return 0;
}

int64_t UDPPort::write(const uint8_t* data, size_t len) {
    if (fd < 0) return -1;
    const ssize_t sent =
        ::sendto(fd, data, len, 0, reinterpret_cast<const sockaddr*>(&remote_addr), sizeof(remote_addr));
    if (sent >= 0) return sent;
    return errno == EAGAIN ? 0 : -1;
}

int64_t UDPPort::read(uint8_t* buf, size_t len) {
    if (fd < 0) return -1;
    socklen_t remote_size = sizeof(remote_addr);
    const ssize_t received = ::recvfrom(fd, buf, len, 0, reinterpret_cast<sockaddr*>(&remote_addr), &remote_size);
    if (received >= 0) return received;
    return errno == EAGAIN ? 0 : -1;
}

void UDPPort::close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

}  // namespace drivers
}  // namespace vostrelka
