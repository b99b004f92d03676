#pragma once
// The CAN net device over a Linux SocketCAN interface: one raw socket,
// non-blocking, receiving every extended data frame and the error frames.
#include <linux/can.h>

#include <string>

#include "vostrelka/net_device/CanDeviceStorage.h"
#include "vostrelka/net_device/NetDeviceCanBase.h"

namespace vostrelka {
namespace net_device {

class NetDeviceCan : public NetDeviceCanBase {
public:
    NetDeviceCan(std::string ifname, uint8_t address, ArrayList<CanDeviceReceiver>& receivers,
                 RingBuffer<CanFrame>& tx_queue);
    ~NetDeviceCan() override;
    NetDeviceCan(const NetDeviceCan&) = delete;
    NetDeviceCan& operator=(const NetDeviceCan&) = delete;

    // 0, or -1 after printing why the socket could not be made.
    int open();
    void close();

    // A deleted interface (a USB adapter pulled: it comes back with a new
    // index) leaves the socket bound to nothing, deaf for good; it is closed
    // with one line. An interface only taken down keeps its socket.
    bool link_lost() const { return lost; }
    // One quiet try to open a lost link again by its name; true, after one
    // line, when it is back.
    bool reopen();
    // A bound, non-blocking raw socket on `ifname`, or -1 (errno tells why).
    static int create_can_socket(const char* ifname);

    bool is_fd_set(fd_set* set) override;
    void register_fd(fd_set* read_set, fd_set* write_set, fd_set* except_set) override;
    void on_event(uint8_t events) override;
    int apply_filters(const Slice<CanAcceptanceFilter>& filters) override;
    bool do_write_from_buffer(RingBuffer<CanFrame>& queue) override;

    void do_read();
    void handle_data_frame(can_frame& frame);
    void handle_error_frame(can_frame& frame);

    static CanFrame to_netdev_frame(const can_frame& frame);
    static can_frame to_socketcan_frame(CanFrame frame);

    int get_fd() const { return fd; }
    const std::string& get_ifname() const { return ifname; }

private:
    // After a read or write failed with `error`: whether the interface is
    // gone, in which case the link is now lost.
    bool lose_link_if_gone(int error);
    // The index the socket is bound to, 0 when unknown.
    int bound_index() const;

    int fd = -1;
    int ifindex = 0;
    bool lost = false;
    std::string ifname;
};

// A NetDeviceCan that owns its memory, all of it inside the object:
// RECEIVERS x BUFFER_BYTES of reassembly, QUEUE_FRAMES x sizeof(CanFrame) of
// transmit queue, and the receiver slots. <16, 2048, 512> is 32 KiB + 8 KiB
// + about 1.3 KiB. No high-priority queue: send_raw_highprio refuses.
template <size_t RECEIVERS, size_t BUFFER_BYTES, size_t QUEUE_FRAMES>
class NetDeviceCanAlloc : private CanDeviceStorage<RECEIVERS, BUFFER_BYTES, QUEUE_FRAMES>, public NetDeviceCan {
    using Storage = CanDeviceStorage<RECEIVERS, BUFFER_BYTES, QUEUE_FRAMES>;

public:
    NetDeviceCanAlloc(std::string ifname, uint8_t address)
        : NetDeviceCan(std::move(ifname), address, Storage::receiver_list, Storage::queue) {}
};

}  // namespace net_device
}  // namespace vostrelka
