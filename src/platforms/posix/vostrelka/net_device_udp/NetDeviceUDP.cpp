#include "vostrelka/net_device_udp/NetDeviceUDP.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include "vostrelka/Time.h"
#include "vostrelka/debug.h"

namespace vostrelka {
namespace net_device {

namespace {

// Whether another socket holds `address` already. Ours share it through
// SO_REUSEPORT by design; a probe without it is refused when anyone holds
// it. Port 0 takes a free port and is never held.
bool address_taken(const InetAddress& address) {
    if (address.port == 0) return false;
    const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (probe < 0) return false;
    const bool taken = ::bind(probe, address.sockaddr(), sizeof(sockaddr_in)) < 0 && errno == EADDRINUSE;
    ::close(probe);
    return taken;
}

}  // namespace

// The receive slots are not cleared: a slot is read only after a datagram
// was written into it, and pages no datagram reached stay untouched.
NetDeviceUDP::NetDeviceUDP(unsigned long buffer_size, unsigned char address_)
    : NetDevice(address_),
      tx_storage(std::make_unique<uint8_t[]>(buffer_size + HEADER_SIZE)),
      rx_storage(new uint8_t[READ_BATCH * (buffer_size + HEADER_SIZE)]),
      tx_buffer(tx_storage.get(), 0, buffer_size + HEADER_SIZE),
      rx_buffer(rx_storage.get(), 0, buffer_size + HEADER_SIZE),
      slot_size(buffer_size + HEADER_SIZE) {
    for (unsigned i = 0; i < READ_BATCH; ++i) {
        rx_vectors[i] = iovec{rx_storage.get() + i * slot_size, slot_size};
        rx_messages[i].msg_hdr.msg_iov = &rx_vectors[i];
        rx_messages[i].msg_hdr.msg_iovlen = 1;
        rx_messages[i].msg_hdr.msg_name = &rx_senders[i];
        rx_messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    }
}

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
    // Asked before our own socket holds it too; said only once we share it.
    const bool taken = address_taken(bind_address);
    if (::bind(socket_fd, bind_address.sockaddr(), sizeof(sockaddr_in)) < 0) {
        const int error = errno;
        ::close(socket_fd);
        socket_fd = -1;
        debug("NetDeviceUDP: ERROR binding to %s: %s", bind_address.to_s().c_str(), std::strerror(error));
        return false;
    }
    if (taken) {
        debug("WARNING: %s is already bound by another socket; the two will share its datagrams",
              bind_address.to_s().c_str());
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

// recvmmsg() rewrites the address length of the messages it filled, and
// only of those.
int NetDeviceUDP::receive_batch() {
    for (int i = 0; i < last_batch; ++i) rx_messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    const int count = ::recvmmsg(socket_fd, rx_messages, READ_BATCH, MSG_TRUNC | MSG_DONTWAIT, nullptr);
    last_batch = count < 0 ? 0 : count;
    return count;
}

ssize_t NetDeviceUDP::take_datagram(int index, const sockaddr_in*& sender) {
    const ssize_t received = rx_messages[index].msg_len;
    rx_buffer.data = static_cast<unsigned char*>(rx_vectors[index].iov_base);
    if (received <= static_cast<ssize_t>(slot_size)) rx_buffer.size = static_cast<uint64_t>(received);
    sender = &rx_senders[index];
    return received;
}

void NetDeviceUDP::do_read() {
    const int count = receive_batch();
    if (count < 0) {
        const int error = errno;
        // Taken even from a failed read, whose sender is all zero and so
        // gets logged.
        take_sender(sockaddr_in{});
        if (error != EAGAIN) debug("NetDeviceUDP: read failed with error %d", error);
        return;
    }
    for (int i = 0; i < count; ++i) {
        const sockaddr_in* sender = nullptr;
        const ssize_t received = take_datagram(i, sender);
        counts.bytes_in += static_cast<uint64_t>(received);
        take_sender(*sender);
        if (received > static_cast<ssize_t>(rx_buffer.capacity)) {
            drop_truncated(received);
        } else if (received > static_cast<ssize_t>(HEADER_SIZE)) {
            // Deliberate and kept: a datagram of header only is dropped, so
            // an empty payload cannot be received here although send_raw
            // sends one.
            Frame frame;
            frame.proto_id = rx_buffer[0];
            frame.src = rx_buffer[1];
            frame.dst = rx_buffer[2];
            frame.payload = ConstSlice<unsigned char>(rx_buffer.data + HEADER_SIZE, rx_buffer.size - HEADER_SIZE);
            deliver(frame);
        }
    }
}

// The text depends on nothing but the 16 address bytes, so the sender of
// the previous datagram needs no second conversion: that conversion costs
// more than the rest of the read.
void NetDeviceUDP::take_sender(const sockaddr_in& sender) {
    if (sender.sin_family == AF_INET && std::memcmp(&sender, &sender_address->addr, sizeof(sender)) == 0) return;
    sockaddr_in copy = sender;
    if (auto from = InetAddress::from(*reinterpret_cast<::sockaddr*>(&copy))) {
        *sender_address = std::move(*from);
    } else {
        debug("Failed to get Inet Address from sockaddr");
    }
}

void NetDeviceUDP::drop_truncated(ssize_t length) {
    counts.drops.truncated++;
    truncated_since_warning++;
    const int64_t now = time_us();
    if (now < next_truncation_warning_us) return;
    next_truncation_warning_us = now + TRUNCATION_WARNING_PERIOD_US;
    debug("WARNING: dropped %lu datagram(s) longer than the %lu-byte receive buffer, the last of %ld bytes from %s",
          static_cast<unsigned long>(truncated_since_warning), static_cast<unsigned long>(rx_buffer.capacity),
          static_cast<long>(length), sender_address->to_s().c_str());
    truncated_since_warning = 0;
}

}  // namespace net_device
}  // namespace vostrelka
