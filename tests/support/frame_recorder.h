#pragma once
// A NetDeviceMessageHandlerI that keeps a copy of every frame it is given.
#include <cstdint>
#include <vector>

#include "vostrelka/net_device/NetDevice.h"

namespace test_support {

struct RecordedFrame {
    uint8_t proto_id;
    uint8_t src;
    uint8_t dst;
    std::vector<uint8_t> payload;

    bool operator==(const RecordedFrame& o) const {
        return proto_id == o.proto_id && src == o.src && dst == o.dst && payload == o.payload;
    }
};

class FrameRecorder : public vostrelka::net_device::NetDeviceMessageHandlerI {
public:
    void on_frame(vostrelka::net_device::NetDevice& device, const vostrelka::net_device::Frame& frame) override {
        last_device = &device;
        frames.push_back(
            {frame.proto_id, frame.src, frame.dst, std::vector<uint8_t>(frame.payload.begin(), frame.payload.end())});
    }

    std::vector<RecordedFrame> frames;
    vostrelka::net_device::NetDevice* last_device = nullptr;
};

// A frame to send, viewing `payload`, which must outlive it.
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
