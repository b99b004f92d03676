#include "vostrelka/net_device_can/NetDeviceCan.h"

#include <fcntl.h>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "vostrelka/debug.h"

namespace vostrelka {
namespace net_device {

namespace {
// Every error class but lost arbitration, which is normal bus traffic.
constexpr can_err_mask_t ERROR_CLASSES = CAN_ERR_MASK & 0xFD;
// Kernel filters match extended, non-remote frames only.
constexpr uint32_t FILTER_FLAGS = CAN_EFF_FLAG;
constexpr uint32_t FILTER_MASK_FLAGS = CAN_EFF_FLAG | CAN_RTR_FLAG;
constexpr uint8_t DLC_MASK = 0x0F;
}  // namespace

NetDeviceCan::NetDeviceCan(std::string ifname_, uint8_t address_, ArrayList<CanDeviceReceiver>& receivers_,
                           RingBuffer<CanFrame>& tx_queue_)
    : NetDeviceCanBase(address_, receivers_, tx_queue_, nullptr), ifname(std::move(ifname_)) {}

NetDeviceCan::~NetDeviceCan() {
    close();
}

int NetDeviceCan::create_can_socket(const char* name) {
    int s = socket(PF_CAN, SOCK_RAW, CAN_RAW);
    if (s < 0) return -1;

    struct ifreq ifr;
    std::memset(&ifr, 0, sizeof(ifr));
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    sockaddr_can addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.can_family = AF_CAN;

    bool ok = ioctl(s, SIOCGIFINDEX, &ifr) == 0;
    if (ok) {
        addr.can_ifindex = ifr.ifr_ifindex;
        can_err_mask_t error_classes = ERROR_CLASSES;
        ok = setsockopt(s, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &error_classes, sizeof(error_classes)) == 0;
    }
    if (ok) {
        int flags = fcntl(s, F_GETFL);
        ok = flags >= 0 && fcntl(s, F_SETFL, flags | O_NONBLOCK) == 0;
    }
    if (ok) ok = bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    if (!ok) {
        const int saved = errno;
        ::close(s);
        errno = saved;
        return -1;
    }
    return s;
}

int NetDeviceCan::open() {
    if (fd >= 0) return 0;
    fd = create_can_socket(ifname.c_str());
    if (fd < 0) {
        debug("ERROR: creating CAN socket: %d", errno);
        return -1;
    }
    ifindex = bound_index();
    return 0;
}

int NetDeviceCan::bound_index() const {
    sockaddr_can addr{};
    socklen_t size = sizeof(addr);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size) != 0) return 0;
    return addr.can_ifindex;
}

bool NetDeviceCan::reopen() {
    if (!lost) return true;
    fd = create_can_socket(ifname.c_str());
    if (fd < 0) return false;
    ifindex = bound_index();
    lost = false;
    debug("CAN interface %s is back", ifname.c_str());
    return true;
}

// ENETDOWN comes both when the interface is taken down (the socket stays
// bound and hears it again once it is up) and on its way to deletion;
// ENODEV and ENXIO only once it is gone. Its index tells which.
bool NetDeviceCan::lose_link_if_gone(int error) {
    if (error != ENODEV && error != ENETDOWN && error != ENXIO) return false;
    const unsigned int index_now = if_nametoindex(ifname.c_str());
    if (index_now != 0 && static_cast<int>(index_now) == ifindex) return false;
    debug("CAN interface %s lost", ifname.c_str());
    close();
    lost = true;
    return true;
}

void NetDeviceCan::close() {
    if (fd < 0) return;
    ::close(fd);
    fd = -1;
}

bool NetDeviceCan::is_fd_set(fd_set* set) {
    return fd >= 0 && FD_ISSET(fd, set);
}

// A lost link has no socket and waits for reopen(); it registers nothing.
void NetDeviceCan::register_fd(fd_set* read_set, fd_set* write_set, fd_set* /*except_set*/) {
    if (fd < 0) return;
    FD_SET(fd, read_set);
    if (has_queued_frames()) FD_SET(fd, write_set);
}

void NetDeviceCan::on_event(uint8_t events) {
    if (events & event_system::EVENT_READABLE) do_read();
    if (fd >= 0 && (events & event_system::EVENT_WRITABLE)) do_write();
}

int NetDeviceCan::apply_filters(const Slice<CanAcceptanceFilter>& filters) {
    if (fd < 0) return -1;
    can_filter kernel_filters[CAN_RAW_FILTER_MAX];
    if (filters.size > CAN_RAW_FILTER_MAX) return -1;
    for (uint64_t i = 0; i < filters.size; i++) {
        kernel_filters[i].can_id = filters[i].id | FILTER_FLAGS;
        kernel_filters[i].can_mask = filters[i].mask | FILTER_MASK_FLAGS;
    }
    const socklen_t len = static_cast<socklen_t>(filters.size * sizeof(can_filter));
    if (setsockopt(fd, SOL_CAN_RAW, CAN_RAW_FILTER, filters.size > 0 ? kernel_filters : nullptr, len) != 0) return -1;
    return 0;
}

// Returns with the queue emptied (true), or with the oldest frame still
// queued when the socket would not take it (false). A full device queue
// (ENOBUFS) is normal under load and is retried on the next writable event.
bool NetDeviceCan::do_write_from_buffer(RingBuffer<CanFrame>& queue) {
    if (fd < 0) return false;  // lost: frames wait in the queue for the link
    while (!queue.empty()) {
        const can_frame frame = to_socketcan_frame(queue.front());
        const ssize_t written = write(fd, &frame, sizeof(frame));
        if (written == static_cast<ssize_t>(sizeof(frame))) {
            counts.bytes_out += frame.can_dlc;
            queue.pop();
            continue;
        }
        if (written < 0 && errno == ENOBUFS) return false;
        if (written < 0 && lose_link_if_gone(errno)) return false;
        debug("ERROR: while writing to CAN socket: %u", static_cast<unsigned>(errno));
        return false;
    }
    return true;
}

void NetDeviceCan::do_read() {
    if (fd < 0) return;
    can_frame frame;
    for (;;) {
        const ssize_t got = read(fd, &frame, sizeof(frame));
        if (got < 0 && errno != EAGAIN) lose_link_if_gone(errno);
        if (got < 1) return;
        if (got != static_cast<ssize_t>(sizeof(frame))) continue;
        if (frame.can_id & CAN_ERR_FLAG) {
            handle_error_frame(frame);
        } else if ((frame.can_id & CAN_EFF_FLAG) && !(frame.can_id & CAN_RTR_FLAG)) {
            handle_data_frame(frame);
        }
        // Standard 11-bit and remote frames carry nothing of ours.
    }
}

void NetDeviceCan::handle_data_frame(can_frame& frame) {
    handle_can_frame(to_netdev_frame(frame));
}

// One line per error class present, then the catch-all line that ends
// every error frame, deliberately, so each one is seen in the log.
void NetDeviceCan::handle_error_frame(can_frame& frame) {
    const canid_t classes = frame.can_id & CAN_ERR_MASK;
    if (classes & CAN_ERR_TX_TIMEOUT) debug("ERROR: tx timeout");
    if (classes & CAN_ERR_BUSOFF) debug("ERROR: BUSOFF");
    if (classes & CAN_ERR_CRTL) debug("ERROR: CAN controller error type=%u", static_cast<unsigned>(frame.data[1]));
    if (classes & CAN_ERR_PROT) {
        debug("ERROR: CAN protocol error type=%u, location=%u", static_cast<unsigned>(frame.data[2]),
              static_cast<unsigned>(frame.data[3]));
    }
    if (classes & CAN_ERR_TRX) debug("ERROR: CAN transceiver error type=%u", static_cast<unsigned>(frame.data[4]));
    if (classes & CAN_ERR_ACK) debug("ERROR: CAN ACK error");
    if (classes != 0) debug("ERROR: CAN bus error");
}

CanFrame NetDeviceCan::to_netdev_frame(const can_frame& frame) {
    CanFrame out;
    out.id = frame.can_id & CAN_EFF_MASK;
    out.len = frame.can_dlc & DLC_MASK;
    std::memcpy(out.data, frame.data, sizeof(out.data));
    return out;
}

can_frame NetDeviceCan::to_socketcan_frame(CanFrame frame) {
    can_frame out;
    std::memset(&out, 0, sizeof(out));
    out.can_id = frame.id | CAN_EFF_FLAG;
    out.can_dlc = frame.len;
    std::memcpy(out.data, frame.data, sizeof(out.data));
    return out;
}

}  // namespace net_device
}  // namespace vostrelka
