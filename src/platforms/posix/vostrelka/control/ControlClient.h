#pragma once
// A local tool's end of a running gateway's control socket: a UNIX stream
// socket that takes one JSON request per line ({"request":"stats"}) and
// answers in JSON lines, in the order the requests came.
#include <signal.h>

#include <cstdint>
#include <string>

namespace vostrelka {
namespace control {

class ControlClient {
public:
    // A line longer than this is not an answer the gateway gives; reading
    // stops there rather than growing without bound.
    static constexpr size_t MAX_LINE_SIZE = 1 << 20;

    enum class Read { LINE, WAITING, CLOSED };

    ControlClient() = default;
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    // Connects to the socket at `path` unless connected already, and sends
    // {"request":"<request>"}. Never waits: a gateway whose listen queue is
    // full refuses at once. False with a one-line `error` when either fails.
    bool request(const std::string& path, const std::string& request, std::string& error);

    // The next line, without its newline, in `line`: LINE. WAITING when
    // none came within `wait_us` or a signal ended the wait (taken with
    // `wait_mask` when given). CLOSED when the gateway closed the socket,
    // reading failed or a line grew past MAX_LINE_SIZE.
    Read read_line(std::string& line, int64_t wait_us, const sigset_t* wait_mask = nullptr);

    // The connection's descriptor, -1 before request(): for a caller that
    // waits on several gateways at once, then reads with a zero wait.
    int descriptor() const { return fd; }

private:
    bool connect(const std::string& path, std::string& error);

    int fd = -1;
    std::string received;  // bytes read after the last whole line
};

}  // namespace control
}  // namespace vostrelka
