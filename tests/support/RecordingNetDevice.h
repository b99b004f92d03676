#pragma once
// A NetDevice without a descriptor that keeps every frame handed to
// send_raw, payload copied, for tests to inspect.
#include <cstdint>
#include <vector>

#include "support/frame_recorder.h"
#include "vostrelka/net_device/NetDevice.h"

namespace test_support {

class RecordingNetDevice : public vostrelka::net_device::NetDevice {
public:
    explicit RecordingNetDevice(uint8_t address = 0xFF) : NetDevice(address) {}

    bool is_fd_set(fd_set*) override { return false; }
    void register_fd(fd_set*, fd_set*, fd_set*) override {}
    void on_event(uint8_t) override {}
    int send_raw(const vostrelka::net_device::Frame& frame) override;

    // Hands `frame` to the handler through the destination filter, as a
    // real device does after decoding it.
    void receive(const vostrelka::net_device::Frame& frame) { deliver(frame); }

    std::vector<RecordedFrame> sent;
};

}  // namespace test_support
