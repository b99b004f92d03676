#include "ControlServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "vostrelka/ProtoIds.h"
#include "vostrelka/Time.h"
#include "vostrelka/manet/MAPacket.h"

namespace vostrelka {

namespace {

constexpr size_t READ_CHUNK_BYTES = 1024;
// Per client and event, so that a client that keeps writing cannot keep the
// loop from its devices; what is left is read in the next pass.
constexpr int READ_CHUNKS_PER_EVENT = 16;

std::string error_line(const std::string& text) {
    return nlohmann::json{{"error", text}}.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

// Sends without blocking and without SIGPIPE: a client that went away must
// not end the gateway.
ssize_t send_some(int fd, const char* data, size_t size) {
    return ::send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool make_address(const std::string& path, sockaddr_un& address) {
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Whether a process accepts connections at `address` now.
bool somebody_listens(const sockaddr_un& address) {
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return false;
    const bool connected = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(probe);
    return connected;
}

}  // namespace

ControlServer::ControlServer(Answer answer_, std::vector<TappedDevice> devices_)
    : answer(std::move(answer_)), devices(std::move(devices_)) {}

ControlServer::~ControlServer() {
    while (!clients.empty()) close_client(clients.size() - 1);
    if (listen_fd >= 0) {
        ::close(listen_fd);
        ::unlink(path.c_str());
    }
}

bool ControlServer::open(const std::string& path_, mode_t mode, std::string& error) {
    sockaddr_un address;
    if (!make_address(path_, address)) {
        error = "path is empty or too long";
        return false;
    }
    struct stat existing {};
    if (::lstat(path_.c_str(), &existing) == 0) {
        if (!S_ISSOCK(existing.st_mode)) {
            error = "a file that is not a socket is in the way";
            return false;
        }
        if (somebody_listens(address)) {
            error = "another process listens on it";
            return false;
        }
        ::unlink(path_.c_str());
    }

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        ::chmod(path_.c_str(), mode) != 0 || ::listen(fd, static_cast<int>(MAX_CLIENTS)) != 0) {
        error = std::strerror(errno);
        ::close(fd);
        return false;
    }
    listen_fd = fd;
    path = path_;
    return true;
}

bool ControlServer::is_fd_set(fd_set* set) {
    if (listen_fd >= 0 && FD_ISSET(listen_fd, set)) return true;
    for (const Client& client : clients) {
        if (FD_ISSET(client.fd, set)) return true;
    }
    return false;
}

void ControlServer::register_fd(fd_set* read_set, fd_set* write_set, fd_set* /*except_set*/) {
    if (listen_fd >= 0) FD_SET(listen_fd, read_set);
    for (const Client& client : clients) {
        FD_SET(client.fd, read_set);
        if (client.output_sent < client.output.size()) FD_SET(client.fd, write_set);
    }
}

void ControlServer::on_event(uint8_t /*events*/) {
    accept_clients();
    for (size_t i = 0; i < clients.size();) {
        if (read_requests(clients[i]) && flush(clients[i])) {
            ++i;
        } else {
            close_client(i);
        }
    }
}

void ControlServer::accept_clients() {
    for (;;) {
        const int fd = ::accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        // select() cannot watch a descriptor past FD_SETSIZE.
        if (clients.size() >= MAX_CLIENTS || fd >= FD_SETSIZE) {
            const std::string refusal = error_line("too many clients");
            send_some(fd, refusal.data(), refusal.size());
            ::close(fd);
            continue;
        }
        Client client;
        client.fd = fd;
        clients.push_back(std::move(client));
    }
}

bool ControlServer::read_requests(Client& client) {
    char chunk[READ_CHUNK_BYTES];
    for (int chunks = 0; chunks < READ_CHUNKS_PER_EVENT; chunks++) {
        const ssize_t got = ::recv(client.fd, chunk, sizeof(chunk), MSG_DONTWAIT);
        if (got == 0) return false;
        if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
        for (ssize_t i = 0; i < got; i++) {
            const char c = chunk[i];
            if (c != '\n') {
                if (client.skipping) continue;
                if (client.request.size() < MAX_REQUEST_BYTES) {
                    client.request.push_back(c);
                    continue;
                }
                client.skipping = true;
                client.request.clear();
                if (!queue(client, error_line("request too long"))) return false;
                continue;
            }
            if (client.skipping) {
                client.skipping = false;
                continue;
            }
            std::string request;
            request.swap(client.request);
            if (!request.empty() && request.back() == '\r') request.pop_back();
            if (!handle_request(client, request)) return false;
        }
    }
    return true;
}

// False when the client has to go: it let too much output pile up.
bool ControlServer::handle_request(Client& client, const std::string& text) {
    if (text.empty()) return true;

    const nlohmann::json request = nlohmann::json::parse(text, nullptr, false);
    if (request.is_discarded() || !request.is_object() || !request.contains("request") ||
        !request["request"].is_string()) {
        return queue(client, error_line("malformed request"));
    }
    const std::string name = request["request"].get<std::string>();
    if (name == "tap") {
        client.tapping = true;
        update_taps();
        return true;
    }
    const std::optional<std::string> reply = answer(name);
    if (!reply) return queue(client, error_line("unknown request: " + name));
    return queue(client, *reply + "\n", true);
}

bool ControlServer::queue(Client& client, const std::string& text, bool even_if_large) {
    const size_t waiting = client.output.size() - client.output_sent;
    if (waiting + text.size() > MAX_PENDING_BYTES && !(even_if_large && waiting == 0)) return false;
    if (client.output_sent > 0 && client.output_sent == client.output.size()) {
        client.output.clear();
        client.output_sent = 0;
    }
    client.output += text;
    return true;
}

bool ControlServer::flush(Client& client) {
    while (client.output_sent < client.output.size()) {
        const ssize_t sent =
            send_some(client.fd, client.output.data() + client.output_sent, client.output.size() - client.output_sent);
        if (sent < 0) {
            const int error = errno;
            // A client that reads, but never quite all of it, must not make
            // the part already sent pile up in front of the rest.
            if (client.output_sent >= MAX_PENDING_BYTES) {
                client.output.erase(0, client.output_sent);
                client.output_sent = 0;
            }
            return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
        }
        client.output_sent += static_cast<size_t>(sent);
    }
    client.output.clear();
    client.output_sent = 0;
    return true;
}

void ControlServer::close_client(size_t index) {
    const bool was_tapping = clients[index].tapping;
    ::close(clients[index].fd);
    clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(index));
    if (was_tapping) update_taps();
}

void ControlServer::update_taps() {
    bool any = false;
    for (const Client& client : clients) any = any || client.tapping;
    if (any == tapped) return;
    tapped = any;
    for (const TappedDevice& tapped_device : devices) tapped_device.device->set_tap(any ? this : nullptr);
}

void ControlServer::on_tapped_frame(const net_device::NetDevice& device, const net_device::Frame& frame,
                                    net_device::FrameDirection direction) {
    const std::string& text = tap_line(device, frame, direction);
    for (Client& client : clients) {
        if (!client.tapping) continue;
        if (client.lost > 0) {
            if (!queue(client, "{\"lost\":" + std::to_string(client.lost) + "}\n")) {
                client.lost++;
                continue;
            }
            client.lost = 0;
        }
        if (!queue(client, text)) client.lost++;
    }
}

// {"t":..,"iface":..,"dir":"in"|"out","proto_id":..,"src":..,"dst":..,
//  "payload":"<hex>"[,"manet":{"src":..,"dst":..,"kind":..,"flag":..}]}
const std::string& ControlServer::tap_line(const net_device::NetDevice& device, const net_device::Frame& frame,
                                           net_device::FrameDirection direction) {
    static constexpr char HEX[] = "0123456789ABCDEF";
    uint32_t iface_id = 0;
    for (const TappedDevice& tapped_device : devices) {
        if (tapped_device.device == &device) iface_id = tapped_device.iface_id;
    }
    const int64_t now_us = time_utc_us();
    char head[192];
    std::snprintf(head, sizeof head,
                  "{\"t\":%lld.%06lld,\"iface\":%u,\"dir\":\"%s\",\"proto_id\":%u,\"src\":%u,\"dst\":%u,\"payload\":\"",
                  static_cast<long long>(now_us / 1000000), static_cast<long long>(now_us % 1000000), iface_id,
                  direction == net_device::FrameDirection::IN ? "in" : "out", frame.proto_id, frame.src, frame.dst);
    line.assign(head);
    for (uint64_t i = 0; i < frame.payload.size; i++) {
        line.push_back(HEX[frame.payload.data[i] >> 4]);
        line.push_back(HEX[frame.payload.data[i] & 0x0F]);
    }
    line.push_back('"');
    manet::MAPacket packet;
    if (frame.proto_id == MANET_PROTO_ID && manet::MAPacket::parse(frame.payload, packet)) {
        std::snprintf(head, sizeof head, ",\"manet\":{\"src\":%u,\"dst\":%u,\"kind\":%u,\"flag\":%s}", packet.src_addr,
                      packet.dst_addr, packet.kind, packet.flag ? "true" : "false");
        line.append(head);
    }
    line.append("}\n");
    return line;
}

}  // namespace vostrelka
