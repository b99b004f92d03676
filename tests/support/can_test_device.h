#pragma once
// The portable half of the CAN device with its storage and an in-memory
// bus: written frames are collected instead of reaching a socket.
#include <vector>

#include "vostrelka/net_device/CanDeviceStorage.h"
#include "vostrelka/net_device/NetDeviceCanBase.h"

namespace test_support {

template <size_t FRAMES>
struct CanHighPriorityQueue {
    vostrelka::net_device::CanFrame highprio_frames[FRAMES > 0 ? FRAMES : 1];
    vostrelka::RingBuffer<vostrelka::net_device::CanFrame> highprio{highprio_frames, FRAMES};
};

template <size_t RECEIVERS, size_t BUFFER_BYTES, size_t QUEUE_FRAMES, size_t HIGHPRIO_FRAMES = 0>
class CanTestDevice : private vostrelka::net_device::CanDeviceStorage<RECEIVERS, BUFFER_BYTES, QUEUE_FRAMES>,
                      private CanHighPriorityQueue<HIGHPRIO_FRAMES>,
                      public vostrelka::net_device::NetDeviceCanBase {
    using Storage = vostrelka::net_device::CanDeviceStorage<RECEIVERS, BUFFER_BYTES, QUEUE_FRAMES>;
    using HighPrio = CanHighPriorityQueue<HIGHPRIO_FRAMES>;

public:
    explicit CanTestDevice(uint8_t address)
        : NetDeviceCanBase(address, Storage::receiver_list, Storage::queue,
                           HIGHPRIO_FRAMES > 0 ? &(HighPrio::highprio) : nullptr) {}

    // The bus: frames written so far, and how many more it takes.
    std::vector<vostrelka::net_device::CanFrame> written;
    size_t bus_room = static_cast<size_t>(-1);
    std::vector<const void*> write_calls;  // which queue each write was for

    bool do_write_from_buffer(vostrelka::RingBuffer<vostrelka::net_device::CanFrame>& queue) override {
        write_calls.push_back(&queue);
        while (!queue.empty()) {
            if (bus_room == 0) return false;
            if (bus_room != static_cast<size_t>(-1)) bus_room--;
            written.push_back(queue.front());
            queue.pop();
        }
        return true;
    }
    int apply_filters(const vostrelka::Slice<vostrelka::net_device::CanAcceptanceFilter>&) override { return 0; }
    bool is_fd_set(fd_set*) override { return false; }
    void register_fd(fd_set*, fd_set*, fd_set*) override {}
    void on_event(uint8_t) override {}

    vostrelka::RingBuffer<vostrelka::net_device::CanFrame>& normal_queue() { return Storage::queue; }
    vostrelka::RingBuffer<vostrelka::net_device::CanFrame>& highprio_queue() { return HighPrio::highprio; }
};

}  // namespace test_support
