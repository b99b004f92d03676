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
      encoder(tx_buffer, decode_buffer, *this) {
    counts.decode_kind = DecodeErrorKind::SERIAL;
}

int NetDeviceUDPSerial::send_raw(const Frame& frame) {
    tx_buffer.clear();
    if (socket_fd < 0) {
        counts.drops.send_error++;
        return -1;
    }
    const uint64_t encoded = encoder.encode(frame, counts.serial);
    if (encoded == 0) {
        counts.drops.send_error++;
        debug_tagged(LOG_TAG, "ERROR: encoding frame, payload_size=%u, buffer+size=%u",
                     static_cast<unsigned>(frame.payload.size), static_cast<unsigned>(tx_buffer.capacity));
        return -1;
    }
    const ssize_t sent =
        ::sendto(socket_fd, tx_buffer.data, tx_buffer.size, 0, destination_address.sockaddr(), sizeof(sockaddr_in));
    if (count_datagram_sent(frame, sent)) return 0;
    // Both figures are the encoded size; what sendto returned is not shown.
    debug_tagged(LOG_TAG, "ERROR: sendto, size=%u, sent=%u", static_cast<unsigned>(tx_buffer.size),
                 static_cast<unsigned>(encoded));
    return -1;
}

// A datagram too long for the buffer is dropped whole: fed in part, it
// would leave the decoder in the middle of a frame whose rest never comes.
void NetDeviceUDPSerial::do_read() {
    const int count = receive_batch();
    if (count < 0) {
        if (errno != EAGAIN) debug_tagged(LOG_TAG, "ERROR: read failed with error %d", errno);
        return;
    }
    for (int i = 0; i < count; ++i) {
        const sockaddr_in* sender = nullptr;
        const ssize_t received = take_datagram(i, sender);
        take_sender(*sender);
        if (received == 0) continue;
        counts.bytes_in += static_cast<uint64_t>(received);
        if (received > static_cast<ssize_t>(rx_buffer.capacity)) {
            drop_truncated(received);
        } else {
            encoder.decode(ConstSlice<unsigned char>(rx_buffer), counts.serial);
        }
    }
}

void NetDeviceUDPSerial::on_frame(const Frame& frame) {
    deliver(frame);
}

}  // namespace net_device
}  // namespace vostrelka
