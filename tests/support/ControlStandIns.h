#pragma once
// The two ends a control-socket client is tested against: a stand-in
// gateway that answers by the script it is given, and a real gate with two
// local devices and a control socket, ready once its socket answers.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/ControlClient.h"
#include "support/GateProcess.h"
#include "support/TempDir.h"
#include "support/UdpEndpoint.h"

namespace test_support {

// Every request line gets the answer given for it, as many as a connection
// sends (ANSWER_ALL); or the connection closes after its first answer
// (HANG_UP); or no connection is ever accepted (SILENT: it waits in the
// backlog, as with a gateway whose loop is stuck).
class StandInGateway {
public:
    enum Mode { ANSWER_ALL, HANG_UP, SILENT };
    StandInGateway(const std::string& path, std::map<std::string, std::string> answers, Mode mode = ANSWER_ALL)
        : answers(std::move(answers)), hang_up(mode == HANG_UP) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(listener, 4) != 0)
            std::abort();
        if (mode != SILENT) server = std::thread([this] { serve(); });
    }
    ~StandInGateway() {
        stop = true;
        if (server.joinable()) server.join();
        close(listener);
    }
    std::vector<std::string> requests() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen;
    }

private:
    static bool readable(int fd) {
        pollfd entry{fd, POLLIN, 0};
        return poll(&entry, 1, 50) > 0;
    }
    void serve() {
        while (!stop) {
            if (!readable(listener)) continue;
            const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            std::string line;
            char c;
            while (!stop) {
                if (!readable(client)) continue;
                if (read(client, &c, 1) != 1) break;
                if (c != '\n') {
                    line += c;
                    continue;
                }
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    seen.push_back(line);
                }
                const std::string answer = answers[line];
                line.clear();
                if (send(client, answer.data(), answer.size(), MSG_NOSIGNAL) < 0 || hang_up) break;
            }
            close(client);
        }
    }

    std::map<std::string, std::string> answers;
    const bool hang_up;
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::vector<std::string> seen;
    std::thread server;
};

// A gate with device 0x10 behind "udp" link 1 and device 0x20 behind
// "udpserial" link 2, its control socket at `socket`. `ready` once the
// socket accepts a client.
struct GateWithTwoDevices {
    explicit GateWithTwoDevices(const std::string& socket)
        : socket(in_its_folder(socket)),
          gate({"--config",
                dir.write_file("gate.json", R"({"control": {"path": ")" + socket + R"("}, "ifaces": [)" +
                                                R"({"iface": "udp://127.0.0.1:)" + std::to_string(link_1) +
                                                R"(", "id": 1}, {"iface": "udpserial://127.0.0.1:)" +
                                                std::to_string(link_2) + R"(", "id": 2}], "local_peers": [)" +
                                                peer("0x10", 1, device_10) + ", " + peer("0x20", 2, device_20) +
                                                "]}")}) {
        ready = ControlClient(socket).ask("stats").is_object();
    }
    static std::string in_its_folder(const std::string& path) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        return path;
    }
    static std::string peer(const char* address, int iface, UdpEndpoint& device) {
        return R"({"netdev_addr": ")" + std::string(address) + R"(", "iface_id": )" + std::to_string(iface) +
               R"(, "inet_addr": ")" + device.address() + R"("})";
    }
    // Device 0x10 sends a 7-byte frame to 0x20; true once it arrived.
    bool forward_one_frame() {
        return device_10.send_to(link_1, {0x07, 0x10, 0x20, 0xDE, 0xAD, 0xBE, 0xEF}) && device_20.receive();
    }

    TempDir dir;
    UdpEndpoint device_10, device_20;
    const uint16_t link_1 = free_udp_port(), link_2 = free_udp_port();
    const std::string socket;
    GateProcess gate;
    bool ready = false;
};

}  // namespace test_support
