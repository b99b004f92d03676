#include "vostrelka/control/ControlClient.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vostrelka/Time.h"

namespace vostrelka {
namespace control {

namespace {

constexpr size_t READ_CHUNK_SIZE = 65536;

bool write_all(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

ControlClient::~ControlClient() {
    if (fd >= 0) ::close(fd);
}

bool ControlClient::request(const std::string& path, const std::string& request, std::string& error) {
    if (fd < 0 && !connect(path, error)) return false;
    if (!write_all(fd, "{\"request\":\"" + request + "\"}\n")) {
        error = "cannot send the request to " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool ControlClient::connect(const std::string& path, std::string& error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        error = "control socket path too long: " + path;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    // Non-blocking: a UNIX socket connects at once or not at all, and the
    // reads below wait with their own deadline.
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        error = "cannot connect to " + path + ": " + std::strerror(errno);
        if (fd >= 0) ::close(fd), fd = -1;
        return false;
    }
    return true;
}

ControlClient::Read ControlClient::read_line(std::string& line, int64_t wait_us, const sigset_t* wait_mask) {
    for (;;) {
        const size_t end = received.find('\n');
        if (end != std::string::npos) {
            line.assign(received, 0, end);
            received.erase(0, end + 1);
            return Read::LINE;
        }
        if (fd < 0 || received.size() > MAX_LINE_SIZE) return Read::CLOSED;

        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        const int64_t wait = wait_us < 0 ? 0 : wait_us;
        timespec timeout = timespec_from_us(wait);
        const int ready = ::pselect(fd + 1, &readable, nullptr, nullptr, &timeout, wait_mask);
        if (ready < 0 && errno == EINTR) return Read::WAITING;
        if (ready < 0) return Read::CLOSED;
        if (ready == 0) return Read::WAITING;

        char chunk[READ_CHUNK_SIZE];
        const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && errno == EAGAIN) return Read::WAITING;
        if (got <= 0) return Read::CLOSED;
        received.append(chunk, static_cast<size_t>(got));
        // Only one read per call: a waiting caller gets its turn to check
        // its signals and deadline between reads.
        wait_us = 0;
    }
}

}  // namespace control
}  // namespace vostrelka
