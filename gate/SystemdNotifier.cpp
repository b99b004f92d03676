#include "SystemdNotifier.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vostrelka {

namespace {
constexpr int64_t KEEP_ALIVES_PER_INTERVAL = 4;
}

SystemdNotifier::~SystemdNotifier() {
    if (fd >= 0) ::close(fd);
}

bool SystemdNotifier::init_from_environment() {
    const char* socket_path = std::getenv("NOTIFY_SOCKET");
    if (socket_path == nullptr) return false;
    const size_t length = std::strlen(socket_path);
    if (length < 2 || length >= sizeof(address.sun_path) || (socket_path[0] != '/' && socket_path[0] != '@')) {
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socket_path, length);
    if (socket_path[0] == '@') address.sun_path[0] = '\0';
    address_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;

    // The watchdog is ours only when no other process is named.
    const char* watchdog_pid = std::getenv("WATCHDOG_PID");
    const char* watchdog_usec = std::getenv("WATCHDOG_USEC");
    if (watchdog_usec != nullptr && (watchdog_pid == nullptr || std::atol(watchdog_pid) == getpid())) {
        const long long interval_us = std::atoll(watchdog_usec);
        if (interval_us > 0) period_us = interval_us / KEEP_ALIVES_PER_INTERVAL;
        if (interval_us > 0 && period_us == 0) period_us = 1;
    }
    return true;
}

void SystemdNotifier::ready() {
    send("READY=1");
}

void SystemdNotifier::keep_alive(int64_t now_us) {
    if (period_us == 0 || now_us < next_keep_alive_us) return;
    send("WATCHDOG=1");
    next_keep_alive_us = now_us + period_us;
}

bool SystemdNotifier::send(const char* text) {
    if (fd < 0) return false;
    return ::sendto(fd, text, std::strlen(text), MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&address),
                    address_size) >= 0;
}

}  // namespace vostrelka
