#include "vostrelka/net_device_udp/NetDeviceUDP.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include "vostrelka/debug.h"

namespace vostrelka {
namespace net_device {

NetDeviceUDP::NetDeviceUDP(unsigned long buffer_size, unsigned char address_)
    : NetDevice(address_),
      tx_storage(std::make_unique<uint8_t[]>(buffer_size + HEADER_SIZE)),
      rx_storage(std::make_unique<uint8_t[]>(buffer_size + HEADER_SIZE)),
      tx_buffer(tx_storage.get(), 0, buffer_size + HEADER_SIZE),
      rx_buffer(rx_storage.get(), 0, buffer_size + HEADER_SIZE) {}

NetDeviceUDP::~NetDeviceUDP() {
    if (socket_fd != -1) ::close(socket_fd);
}

bool NetDeviceUDP::create_socket(const InetAddress& bind_address) {
    if (socket_fd != -1) ::close(socket_fd);
    // The first four messages carry no reason text: that is the output users grep for.
    socket_fd = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (socket_fd < 0) {
        socket_fd = -1;
        debug("NetDeviceUDP: ERROR creating socket: ");
        return false;
    }
    auto fail = [this](const char* message) {
        ::close(socket_fd);
        socket_fd = -1;
        debug(message);
        return false;
    };

    const int enable = 1;
    if (::setsockopt(socket_fd, SOL_SOCKET, SO_REUSEADDR, &enable, sizeof(enable)) < 0) {
        return fail("NetDeviceUDP: ERROR setting socket SO_REUSEADDR: ");
    }
    if (::setsockopt(socket_fd, SOL_SOCKET, SO_REUSEPORT, &enable, sizeof(enable)) < 0) {
        return fail("NetDeviceUDP: ERROR setting socket SO_REUSEPORT: ");
    }
    const int flags = ::fcntl(socket_fd, F_GETFL);
    assert(flags != -1);
    if (::fcntl(socket_fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        return fail("NetDeviceUDP: ERROR setting socket non-blocking mode: ");
    }
    if (::bind(socket_fd, bind_address.sockaddr(), sizeof(sockaddr_in)) < 0) {
        const int error = errno;
        ::close(socket_fd);
        socket_fd = -1;
        debug("NetDeviceUDP: ERROR binding to %s: %s", bind_address.to_s().c_str(), std::strerror(error));
        return false;
    }
    return true;
}

// Routing points the device at a peer before every send, nearly always the
// peer of the last send: then there is nothing to copy, and comparing the
// texts too would cost as much as copying them.
void NetDeviceUDP::set_destination_address(const InetAddress& address) {
    if (std::memcmp(&destination_address.addr, &address.addr, sizeof(address.addr)) != 0) {
        destination_address = address;
    }
}

bool NetDeviceUDP::is_fd_set(fd_set* set) {
    return socket_fd >= 0 && FD_ISSET(socket_fd, set);
}

void NetDeviceUDP::register_fd(fd_set* read_set, fd_set* /*write_set*/, fd_set* /*except_set*/) {
    if (socket_fd >= 0) FD_SET(socket_fd, read_set);
}

void NetDeviceUDP::on_event(uint8_t events) {
    if (events & event_system::EVENT_READABLE) do_read();
}

int NetDeviceUDP::send_raw(const Frame& frame) {
    tx_buffer.clear();
    if (socket_fd < 0 || frame.payload.size + HEADER_SIZE > tx_buffer.capacity) {
        counts.drops.send_error++;
        return -1;
    }

    // The size was checked above: no check per byte.
    tx_buffer.data[0] = frame.proto_id;
    tx_buffer.data[1] = frame.src;
    tx_buffer.data[2] = frame.dst;
    if (frame.payload.size > 0) std::memcpy(tx_buffer.data + HEADER_SIZE, frame.payload.data, frame.payload.size);
    tx_buffer.size = HEADER_SIZE + frame.payload.size;

    const ssize_t sent =
        ::sendto(socket_fd, tx_buffer.data, tx_buffer.size, 0, destination_address.sockaddr(), sizeof(sockaddr_in));
    return count_datagram_sent(frame, sent) ? 0 : -1;
}

bool NetDeviceUDP::count_datagram_sent(const Frame& frame, ssize_t sent) {
    if (sent < 0 || static_cast<uint64_t>(sent) != tx_buffer.size) {
        counts.drops.send_error++;
        return false;
    }
    count_sent(frame);
    counts.bytes_out += tx_buffer.size;
    return true;
}

void NetDeviceUDP::do_read() {
    sockaddr_in sender{};
    socklen_t sender_size = sizeof(sender);
    const ssize_t received = ::recvfrom(socket_fd, rx_buffer.data, rx_buffer.capacity, 0,
                                        reinterpret_cast<::sockaddr*>(&sender), &sender_size);
    const int error = received < 0 ? errno : 0;
    if (received > 0) counts.bytes_in += static_cast<uint64_t>(received);

    // Taken even from a failed read, whose sender is all zero and so gets
    // logged. The text depends on nothing but the 16 address bytes, so the
    // sender of the previous datagram needs no second conversion: that
    // conversion costs more than the rest of the read.
    const bool same_sender =
        sender.sin_family == AF_INET && std::memcmp(&sender, &sender_address->addr, sizeof(sender)) == 0;
    if (same_sender) {
        // sender_address already holds exactly this conversion.
    } else if (auto from = InetAddress::from(*reinterpret_cast<::sockaddr*>(&sender))) {
        *sender_address = std::move(*from);
    } else {
        debug("Failed to get Inet Address from sockaddr");
    }

    // Deliberate and kept: a datagram of header only is dropped, so an empty
    // payload cannot be received here although send_raw sends one.
    if (received > static_cast<ssize_t>(HEADER_SIZE)) {
        if (static_cast<uint64_t>(received) <= rx_buffer.capacity) rx_buffer.size = static_cast<uint64_t>(received);
        Frame frame;
        frame.proto_id = rx_buffer[0];
        frame.src = rx_buffer[1];
        frame.dst = rx_buffer[2];
        frame.payload = ConstSlice<unsigned char>(rx_buffer.data + HEADER_SIZE, rx_buffer.size - HEADER_SIZE);
        deliver(frame);
    } else if (received < 0 && error != EAGAIN) {
        debug("NetDeviceUDP: read failed with error %d", error);
    }
}

}  // namespace net_device
}  // namespace vostrelka
