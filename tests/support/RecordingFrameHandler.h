#pragma once
// A NetDeviceMessageHandlerI that keeps a copy of every frame it is handed,
// with the device it came from, for tests that drive a device directly;
// and make_frame to build the frames they send.
#include <cstdint>
#include <vector>

#include "vostrelka/net_device/NetDevice.h"
#include "vostrelka/net_device/NetDeviceMessageHandlerI.h"

namespace test_support {

struct ReceivedFrame {
    uint8_t proto_id = 0;
    uint8_t src = 0;
    uint8_t dst = 0;
    std::vector<uint8_t> payload;
    const vostrelka::net_device::NetDevice* device = nullptr;

    // Compares the frame only, not the device it came on.
    bool operator==(const ReceivedFrame& other) const {
        return proto_id == other.proto_id && src == other.src && dst == other.dst && payload == other.payload;
    }
};

class RecordingFrameHandler : public vostrelka::net_device::NetDeviceMessageHandlerI {
public:
    void on_frame(vostrelka::net_device::NetDevice& device, const vostrelka::net_device::Frame& frame) override {
        frames.push_back({frame.proto_id, frame.src, frame.dst,
                          std::vector<uint8_t>(frame.payload.begin(), frame.payload.end()), &device});
    }
    std::vector<ReceivedFrame> frames;
};

// A frame viewing `payload`, which must outlive it.
inline vostrelka::net_device::Frame make_frame(uint8_t proto_id, uint8_t src, uint8_t dst,
                                               const std::vector<uint8_t>& payload) {
    vostrelka::net_device::Frame frame;
    frame.proto_id = proto_id;
    frame.src = src;
    frame.dst = dst;
    frame.payload = vostrelka::ConstSlice<unsigned char>(payload.data(), payload.size());
    return frame;
}

}  // namespace test_support
