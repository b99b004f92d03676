#pragma once
#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace net_device {

class NetDevice;

// Receiver of decoded frames; `device` is the one the frame arrived on.
class NetDeviceMessageHandlerI {
public:
    virtual ~NetDeviceMessageHandlerI() = default;
    virtual void on_frame(NetDevice& device, const Frame& frame) = 0;
};

}  // namespace net_device
}  // namespace vostrelka
