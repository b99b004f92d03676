#pragma once
// The fixed memory of a CAN device: RECEIVERS reassembly slots of
// BUFFER_BYTES each and a transmit queue of QUEUE_FRAMES CAN frames.
// Devices inherit it ahead of their device base, so it is built first.
#include <cstddef>
#include <cstdint>

#include "vostrelka/ArrayList.h"
#include "vostrelka/RingBuffer.h"
#include "vostrelka/net_device/NetDeviceCanBase.h"

namespace vostrelka {
namespace net_device {

template <size_t RECEIVERS, size_t BUFFER_BYTES, size_t QUEUE_FRAMES>
struct CanDeviceStorage {
    CanDeviceStorage() {
        for (size_t i = 0; i < RECEIVERS; i++) {
            CanDeviceReceiver receiver;
            receiver.decoder = CanDecoder(Slice<uint8_t>(receive_buffers[i], 0, BUFFER_BYTES));
            receiver_list.push_back(receiver);
        }
    }
    CanDeviceStorage(const CanDeviceStorage&) = delete;
    CanDeviceStorage& operator=(const CanDeviceStorage&) = delete;

    uint8_t receive_buffers[RECEIVERS][BUFFER_BYTES];
    ArrayListAlloc<CanDeviceReceiver, RECEIVERS> receiver_list;
    CanFrame queue_frames[QUEUE_FRAMES];
    RingBuffer<CanFrame> queue{queue_frames, QUEUE_FRAMES};
};

}  // namespace net_device
}  // namespace vostrelka
