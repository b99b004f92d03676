#include "vostrelka/NetDeviceSerial.h"

namespace vostrelka {
namespace net_device {

namespace {

// FD_SET beyond the set's size writes past it; such a descriptor cannot be
// watched by select() anyway.
bool selectable(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}

}  // namespace

bool NetDeviceSerial::is_fd_set(fd_set* set) {
    const int fd = port.get_fd();
    return selectable(fd) && FD_ISSET(fd, set);
}

void NetDeviceSerial::register_fd(fd_set* read_set, fd_set* write_set, fd_set* /*except_set*/) {
    const int fd = port.get_fd();
    if (!selectable(fd)) return;
    FD_SET(fd, read_set);
    if (!tx_buffer.empty()) FD_SET(fd, write_set);
}

void NetDeviceSerial::on_event(uint8_t events) {
    if (events & event_system::EVENT_READABLE) do_read();
    if (events & event_system::EVENT_WRITABLE) do_write();
}

}  // namespace net_device
}  // namespace vostrelka
