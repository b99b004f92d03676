#pragma once
// "udp" interfaces: one frame per IPv4 datagram, a raw header before the payload.
//
//   offset  size  field
//   0       1     proto_id
//   1       1     src
//   2       1     dst
//   3       n     payload
//
// Memory, allocated once at construction: a (buffer_size + 3)-byte transmit
// array and READ_BATCH receive slots of that size. Every frame goes to one
// fixed destination; the sender of the last datagram is remembered so that
// the gateway can learn where its peers are.
//
// A readable socket is read with one recvmmsg() of up to READ_BATCH
// datagrams, and their frames are delivered one datagram after the other in
// arrival order, each with its own sender, exactly as if read one by one. A
// pass of the loop then goes on to the next device: a flooded socket costs
// the others at most one batch of waiting.
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>

#include "vostrelka/InetAddress.h"
#include "vostrelka/Slice.h"
#include "vostrelka/net_device/NetDevice.h"

namespace vostrelka {
namespace net_device {

class NetDeviceUDP : public NetDevice {
public:
    static constexpr uint64_t HEADER_SIZE = 3;
    // Datagrams taken per readable event, at most.
    static constexpr unsigned READ_BATCH = 32;

    // Allocates the buffers; opens nothing until create_socket().
    NetDeviceUDP(unsigned long buffer_size, unsigned char address);
    ~NetDeviceUDP() override;
    NetDeviceUDP(const NetDeviceUDP&) = delete;
    NetDeviceUDP& operator=(const NetDeviceUDP&) = delete;

    // Opens a non-blocking socket bound to `bind_address`; false after a log line.
    bool create_socket(const InetAddress& bind_address);
    // Sending uses the socket address alone. Pointed again at the socket
    // address it has, the device keeps the text it has too ('127.1:80'
    // after '127.0.0.1:80' still reads '127.0.0.1:80').
    void set_destination_address(const InetAddress& address);
    InetAddress& get_sender_inet_addr() { return *sender_address; }
    // The same address as the router takes it, an optional that is always
    // present: lending it spares the router a copy of it for every frame.
    const std::optional<InetAddress>& sender_inet_addr() const { return sender_address; }
    int get_socket() const { return socket_fd; }

    bool is_fd_set(fd_set* set) override;
    void register_fd(fd_set* read_set, fd_set* write_set, fd_set* except_set) override;
    // Reads what is waiting, up to READ_BATCH datagrams, when readable.
    // Sending never waits for the socket.
    void on_event(uint8_t events) override;
    int send_raw(const Frame& frame) override;
    // Reads up to READ_BATCH datagrams and delivers the frames they carry.
    virtual void do_read();

    // At most one warning about datagrams too long to take per this period.
    static constexpr int64_t TRUNCATION_WARNING_PERIOD_US = 10000000;

protected:
    // One recvmmsg() into the receive slots: the number of datagrams taken,
    // or -1 with errno set. Lengths are as MSG_TRUNC reports them, so one
    // longer than a slot shows up as such.
    int receive_batch();
    // Datagram `index` of the last batch: rx_buffer is pointed at its slot
    // (its length set when it fit) and its sender is returned.
    ssize_t take_datagram(int index, const sockaddr_in*& sender);

    // The sender of the datagram just read becomes the sender address; its
    // text is made only for a sender other than the last one.
    void take_sender(const sockaddr_in& sender);
    // The one place a datagram longer than the receive buffer (`length`, as
    // MSG_TRUNC reports it) goes: counted and dropped, never cut and
    // delivered. A remote sender can send one after the other, so the
    // warning is a summary, at most one per TRUNCATION_WARNING_PERIOD_US.
    void drop_truncated(ssize_t length);

    // Counts the datagram of `frame` just given to sendto(), which returned
    // `sent`: true when all of tx_buffer went.
    bool count_datagram_sent(const Frame& frame, ssize_t sent);

    int socket_fd = -1;
    std::unique_ptr<uint8_t[]> tx_storage;
    std::unique_ptr<uint8_t[]> rx_storage;  // READ_BATCH slots
    Slice<unsigned char> tx_buffer;
    // The slot of the datagram being taken in; one slot's capacity.
    Slice<unsigned char> rx_buffer;
    InetAddress destination_address;
    std::optional<InetAddress> sender_address{std::in_place};
    int64_t next_truncation_warning_us = 0;
    uint64_t truncated_since_warning = 0;

private:
    uint64_t slot_size;
    mmsghdr rx_messages[READ_BATCH]{};
    iovec rx_vectors[READ_BATCH]{};
    sockaddr_in rx_senders[READ_BATCH]{};
    int last_batch = 0;  // datagrams the last receive_batch() took
};

}  // namespace net_device
}  // namespace vostrelka
