#pragma once
#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace net_device {

// Called by the serial framing codec once per accepted frame.
class SerialEncoderHandlerI {
public:
    virtual ~SerialEncoderHandlerI() = default;
    virtual void on_frame(const Frame& frame) = 0;
};

}  // namespace net_device
}  // namespace vostrelka
