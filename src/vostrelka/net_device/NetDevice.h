#pragma once
#include <cstdint>

#include "vostrelka/EventLoopEntry.h"
#include "vostrelka/net_device/DeviceCounters.h"
#include "vostrelka/net_device/Frame.h"
#include "vostrelka/net_device/FrameTapI.h"
#include "vostrelka/net_device/NetDeviceMessageHandlerI.h"

namespace vostrelka {
namespace net_device {

// A frame transport polled by the main loop. Frames it decodes go to
// `handler`; frames are dropped while no handler is set.
class NetDevice : public event_system::EventLoopEntry {
public:
    explicit NetDevice(uint8_t address_, DecodeErrorKind decode_kind = DecodeErrorKind::NONE) : address(address_) {
        counts.decode_kind = decode_kind;
    }

    // Encode and send (or queue) one frame: 0 on success, -1 on failure.
    virtual int send_raw(const Frame& frame) = 0;

    // Traffic, decode errors and drops, the same struct for every device.
    virtual DeviceCounters counters() const { return counts; }
    // The router found nowhere to send a frame this device delivered.
    void count_unroutable() { counts.drops.unroutable++; }

    void set_handler(NetDeviceMessageHandlerI* handler_) { handler = handler_; }
    // Null when nobody watches the device's frames.
    void set_tap(FrameTapI* tap_) { tap = tap_; }

    // The device's own local address; 0xFF accepts every destination.
    uint8_t address;
    NetDeviceMessageHandlerI* handler = nullptr;

protected:
    // Destination filter, then the handler if one is set.
    void deliver(const Frame& frame) {
        counts.frames_in++;
        if (tap != nullptr) tap->on_tapped_frame(*this, frame, FrameDirection::IN);
        if (handler != nullptr && accepts_destination(address, frame.dst)) handler->on_frame(*this, frame);
    }
    // A frame accepted for sending (sent, or queued behind others).
    void count_sent(const Frame& frame) {
        counts.frames_out++;
        if (tap != nullptr) tap->on_tapped_frame(*this, frame, FrameDirection::OUT);
    }

    DeviceCounters counts;

private:
    FrameTapI* tap = nullptr;
};

}  // namespace net_device
}  // namespace vostrelka
