#pragma once
// A serial-line device in the select() loop: always watched for reading,
// watched for writing only while encoded bytes wait in its queue, and silent
// while its port is closed.
#include <cstddef>
#include <cstdint>

#include "vostrelka/net_device/NetDeviceSerialBase.h"

namespace vostrelka {
namespace net_device {

class NetDeviceSerial : public NetDeviceSerialBase {
public:
    using NetDeviceSerialBase::NetDeviceSerialBase;

    bool is_fd_set(fd_set* set) override;
    void register_fd(fd_set* read_set, fd_set* write_set, fd_set* except_set) override;
    void on_event(uint8_t events) override;
};

// Memory bound: READ_BUFFER_SIZE + 2 * FRAME_SIZE + FRAME_SIZE bytes, all
// inside the object (8 KiB for <2048, 2048>), nothing allocated afterwards.
// The transmit queue holds twice a frame so that one fully escaped frame
// (every byte doubled) always fits an empty queue; the receive buffer holds
// one unescaped message.
template <size_t READ_BUFFER_SIZE, size_t FRAME_SIZE>
class NetDeviceSerialAlloc : public NetDeviceSerial {
public:
    static constexpr size_t TX_BUFFER_SIZE = 2 * FRAME_SIZE;
    static constexpr size_t RX_BUFFER_SIZE = FRAME_SIZE;

    // The base keeps references to the Slices below, which are built after
    // it; it does not touch them during construction.
    NetDeviceSerialAlloc(drivers::DataPort& port, unsigned char address)
        : NetDeviceSerial(port, read_slice, tx_slice, rx_slice, address) {}

    NetDeviceSerialAlloc(const NetDeviceSerialAlloc&) = delete;
    NetDeviceSerialAlloc& operator=(const NetDeviceSerialAlloc&) = delete;

private:
    unsigned char read_storage[READ_BUFFER_SIZE];
    unsigned char tx_storage[TX_BUFFER_SIZE];
    unsigned char rx_storage[RX_BUFFER_SIZE];
    Slice<unsigned char> read_slice{read_storage, 0, READ_BUFFER_SIZE};
    Slice<unsigned char> tx_slice{tx_storage, 0, TX_BUFFER_SIZE};
    Slice<unsigned char> rx_slice{rx_storage, 0, RX_BUFFER_SIZE};
};

}  // namespace net_device
}  // namespace vostrelka
