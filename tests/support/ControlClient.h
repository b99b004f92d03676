#pragma once
// A client of a running gate's control socket: JSON lines out and in.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

namespace test_support {

class ControlClient {
public:
    // Connects, retrying until `timeout_ms` while the gate is still starting.
    explicit ControlClient(const std::string& path, int timeout_ms = 5000) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    ~ControlClient() { close(fd); }
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    bool send_text(const std::string& text) {
        return send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    bool request(const std::string& name) { return send_text(R"({"request":")" + name + "\"}\n"); }

    // The next line without its newline; nothing at the deadline or the end.
    std::optional<std::string> line(int timeout_ms = 3000) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        for (;;) {
            const size_t end = buffered.find('\n');
            if (end != std::string::npos) {
                std::string text = buffered.substr(0, end);
                buffered.erase(0, end + 1);
                return text;
            }
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd entry{fd, POLLIN, 0};
            if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) != 1) return std::nullopt;
            char chunk[65536];
            const ssize_t got = recv(fd, chunk, sizeof(chunk), 0);
            if (got <= 0) return std::nullopt;
            buffered.append(chunk, static_cast<size_t>(got));
        }
    }
    // The next line as JSON; a discarded value when none came or it is not JSON.
    nlohmann::json json_line(int timeout_ms = 3000) {
        const std::optional<std::string> text = line(timeout_ms);
        return text ? nlohmann::json::parse(*text, nullptr, false) : nlohmann::json(nlohmann::json::value_t::discarded);
    }
    nlohmann::json ask(const std::string& name) { return request(name) ? json_line() : nlohmann::json(); }

private:
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string buffered;
};

}  // namespace test_support
