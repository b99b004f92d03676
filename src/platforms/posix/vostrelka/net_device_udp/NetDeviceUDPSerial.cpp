#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "vostrelka/debug.h"

namespace vostrelka {
namespace net_device {

namespace {
constexpr const char* LOG_TAG = "NetDeviceUDPSerial";
}

NetDeviceUDPSerial::NetDeviceUDPSerial(unsigned long buffer_size, unsigned char address_)
    : NetDeviceUDP(2 * buffer_size, address_),
      decode_storage(std::make_unique<uint8_t[]>(buffer_size)),
      decode_buffer(decode_storage.get(), 0, buffer_size),
      encoder(tx_buffer, decode_buffer, *this) {}

int NetDeviceUDPSerial::send_raw(const Frame& frame) {
    if (socket_fd < 0) return -1;
    tx_buffer.clear();
    const uint64_t encoded = encoder.encode(frame, error_stats);
    if (encoded == 0) {
        debug_tagged(LOG_TAG, "ERROR: encoding frame, payload_size=%u, buffer+size=%u",
                     static_cast<unsigned>(frame.payload.size), static_cast<unsigned>(tx_buffer.capacity));
        return -1;
    }
    const ssize_t sent =
        ::sendto(socket_fd, tx_buffer.data, tx_buffer.size, 0, destination_address.sockaddr(), sizeof(sockaddr_in));
    if (sent >= 0 && static_cast<uint64_t>(sent) == encoded) return 0;
    // Both figures are the encoded size; what sendto returned is not shown.
    debug_tagged(LOG_TAG, "ERROR: sendto, size=%u, sent=%u", static_cast<unsigned>(tx_buffer.size),
                 static_cast<unsigned>(encoded));
    return -1;
}

void NetDeviceUDPSerial::do_read() {
    // The sender's socket address is written in place; its host and port
    // text keep whatever they held before.
    socklen_t sender_size = sizeof(sockaddr_in);
    const ssize_t received =
        ::recvfrom(socket_fd, rx_buffer.data, rx_buffer.capacity, 0, sender_address->sockaddr(), &sender_size);
    if (received >= 1) {
        if (static_cast<uint64_t>(received) <= rx_buffer.capacity) rx_buffer.size = static_cast<uint64_t>(received);
        encoder.decode(ConstSlice<unsigned char>(rx_buffer), error_stats);
    } else if (received < 0 && errno != EAGAIN) {
        debug_tagged(LOG_TAG, "ERROR: read failed with error %d", errno);
    }
}

void NetDeviceUDPSerial::on_frame(const Frame& frame) {
    deliver(frame);
}

}  // namespace net_device
}  // namespace vostrelka
