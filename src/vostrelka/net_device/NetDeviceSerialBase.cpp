#include "vostrelka/net_device/NetDeviceSerialBase.h"

#include <cstring>

namespace vostrelka {
namespace net_device {

NetDeviceSerialBase::NetDeviceSerialBase(drivers::DataPort& port_, Slice<unsigned char>& read_buffer_,
                                         Slice<unsigned char>& tx_buffer_, Slice<unsigned char>& rx_buffer_,
                                         unsigned char address_)
    : NetDevice(address_, DecodeErrorKind::SERIAL),
      port(port_),
      read_buffer(read_buffer_),
      tx_buffer(tx_buffer_),
      rx_buffer(rx_buffer_),
      codec(tx_buffer_, rx_buffer_, *this) {}

int NetDeviceSerialBase::send_raw(const Frame& frame) {
    const bool queued = codec.encode(frame, counts.serial) > 0;
    if (queued) {
        count_sent(frame);
    } else {
        counts.drops.queue_full++;
    }
    write_queue();
    return queued ? 0 : -1;
}

void NetDeviceSerialBase::on_frame(const Frame& frame) {
    deliver(frame);
}

void NetDeviceSerialBase::do_read() {
    for (;;) {
        const int64_t n = port.read(read_buffer.data, read_buffer.capacity);
        if (n <= 0) return;
        read_buffer.size = static_cast<uint64_t>(n);
        counts.bytes_in += read_buffer.size;
        codec.decode(ConstSlice<unsigned char>(read_buffer), counts.serial);
    }
}

void NetDeviceSerialBase::do_write() {
    write_queue();
}

// One write of the whole queue; what the port took leaves from the front and
// the rest moves up, so the queue always starts at the oldest unsent byte.
void NetDeviceSerialBase::write_queue() {
    if (tx_buffer.empty()) return;
    const int64_t n = port.write(tx_buffer.data, tx_buffer.size);
    if (n <= 0) return;
    const uint64_t taken = static_cast<uint64_t>(n);
    counts.bytes_out += taken;
    if (taken >= tx_buffer.size) {
        tx_buffer.clear();
        return;
    }
    std::memmove(tx_buffer.data, tx_buffer.data + taken, tx_buffer.size - taken);
    tx_buffer.size -= taken;
}

}  // namespace net_device
}  // namespace vostrelka
