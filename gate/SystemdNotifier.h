#pragma once
// Readiness and watchdog messages to the service manager, when it asked for
// them: NOTIFY_SOCKET names a datagram socket (a leading '@' an abstract
// one), WATCHDOG_USEC the watchdog interval, WATCHDOG_PID (when set) the
// process meant. Without NOTIFY_SOCKET nothing here does anything.
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>

namespace vostrelka {

class SystemdNotifier {
public:
    SystemdNotifier() = default;
    ~SystemdNotifier();
    SystemdNotifier(const SystemdNotifier&) = delete;
    SystemdNotifier& operator=(const SystemdNotifier&) = delete;

    // Reads the environment once; false when no notification is wanted.
    bool init_from_environment();
    // READY=1: every interface is open.
    void ready();
    // How often keep_alive() sends; 0 without a watchdog. A quarter of the
    // interval: the manager wants a message at least every half interval.
    int64_t keep_alive_period_us() const { return period_us; }
    // WATCHDOG=1 when a period has passed since the last one.
    void keep_alive(int64_t now_us);
    // When keep_alive() next sends (time_us()); 0 before the first message.
    int64_t next_keep_alive() const { return next_keep_alive_us; }

private:
    bool send(const char* text);

    int fd = -1;
    sockaddr_un address{};
    socklen_t address_size = 0;
    int64_t period_us = 0;
    int64_t next_keep_alive_us = 0;
};

}  // namespace vostrelka
