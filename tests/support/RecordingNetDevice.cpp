#include "support/RecordingNetDevice.h"

namespace test_support {

int RecordingNetDevice::send_raw(const vostrelka::net_device::Frame& frame) {
    sent.push_back(
        {frame.proto_id, frame.src, frame.dst, std::vector<uint8_t>(frame.payload.begin(), frame.payload.end())});
    return 0;
}

}  // namespace test_support
