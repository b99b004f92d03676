#pragma once
// Portable half of the CAN net device: transmit queues, one reassembly
// receiver per sending peer and message, delivery by address, statistics.
// The platform half moves CAN frames to and from the bus.
#include <cstdint>

#include "vostrelka/ArrayList.h"
#include "vostrelka/RingBuffer.h"
#include "vostrelka/Slice.h"
#include "vostrelka/net_device/CanAcceptanceFilter.h"
#include "vostrelka/net_device/CanDecoder.h"
#include "vostrelka/net_device/CanFrame.h"
#include "vostrelka/net_device/NetDevice.h"

namespace vostrelka {
namespace net_device {

// One reassembly slot, serving one sender's message with one transfer counter.
struct CanDeviceReceiver {
    CanDecoder decoder;
    uint32_t last_used = 0;  // activity tick when it last stored a frame
    uint8_t src = 0;
    uint8_t transfer_counter = 0;
};

class NetDeviceCanBase : public NetDevice {
public:
    NetDeviceCanBase(uint8_t address, ArrayList<CanDeviceReceiver>& receivers, RingBuffer<CanFrame>& tx_queue,
                     RingBuffer<CanFrame>* tx_queue_highprio);

    // Queue with priority bit 1 (normal); 0, or -1 when the queue has no room.
    int send_raw(const Frame& frame) override;
    // Queue with priority bit 0 on the high-priority queue; -1 without one.
    int send_raw_highprio(const Frame& frame);
    // Queues all CAN frames of `frame` or none, then writes what it can.
    int send_raw_with_buffer(const Frame& frame, RingBuffer<CanFrame>& queue, uint8_t priority_bit);

    // Kernel receive filters; 0, or -1 when they cannot be installed.
    virtual int apply_filters(const Slice<CanAcceptanceFilter>& filters) = 0;
    // Writes queued frames, oldest first, popping each one once written.
    // True when the queue was emptied; a frame that could not go stays queued.
    virtual bool do_write_from_buffer(RingBuffer<CanFrame>& queue) = 0;

    // High-priority queue first; the normal one only once that is empty.
    bool do_write();
    // One received frame: reassemble, then deliver by destination.
    void handle_can_frame(CanFrame can_frame);
    CanDeviceReceiver* get_receiver(uint8_t src, uint8_t transfer_counter);
    void count_decoder_errors(CANDecoderStatus status);

protected:
    bool has_queued_frames() const;

    RingBuffer<CanFrame>& tx_queue;
    RingBuffer<CanFrame>* tx_queue_highprio;
    ArrayList<CanDeviceReceiver>& receivers;
    uint32_t activity_tick = 0;  // grows with every frame stored for a message in progress
    uint8_t transfer_counter = 0;
};

}  // namespace net_device
}  // namespace vostrelka
