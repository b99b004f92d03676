#pragma once
// The portable half of the CAN device with its storage and an in-memory
// bus: written frames are collected instead of reaching a socket.
#include <vector>

#include "vostrelka/net_device/CanDeviceStorage.h"
#include "vostrelka/net_device/NetDeviceCanBase.h"

namespace test_support {

template <size_t RECEIVERS, size_t BUFFER_BYTES, size_t QUEUE_FRAMES>
class CanTestDevice : private vostrelka::net_device::CanDeviceStorage<RECEIVERS, BUFFER_BYTES, QUEUE_FRAMES>,
                      public vostrelka::net_device::NetDeviceCanBase {
    using Storage = vostrelka::net_device::CanDeviceStorage<RECEIVERS, BUFFER_BYTES, QUEUE_FRAMES>;

public:
    using CanFrame = vostrelka::net_device::CanFrame;
    explicit CanTestDevice(uint8_t address)
        : NetDeviceCanBase(address, Storage::receiver_list, Storage::queue, nullptr) {}

    // The bus: frames written so far, and how many more it takes.
    std::vector<CanFrame> written;
    size_t bus_room = static_cast<size_t>(-1);

    bool do_write_from_buffer(vostrelka::RingBuffer<CanFrame>& queue) override {
        for (; !queue.empty(); queue.pop()) {
            if (bus_room == 0) return false;
            if (bus_room != static_cast<size_t>(-1)) bus_room--;
            written.push_back(queue.front());
        }
        return true;
    }
    int apply_filters(const vostrelka::Slice<vostrelka::net_device::CanAcceptanceFilter>&) override { return 0; }
    bool is_fd_set(fd_set*) override { return false; }
    void register_fd(fd_set*, fd_set*, fd_set*) override {}
    void on_event(uint8_t) override {}
};

}  // namespace test_support
