#pragma once
#include <cstdint>

#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace net_device {

class NetDevice;

enum class FrameDirection : uint8_t { IN, OUT };

// Watcher of every frame a device decodes (IN) or accepts for sending
// (OUT), called synchronously on the loop's thread. Devices hold a null
// pointer unless someone watches, so an idle tap costs one test per frame.
class FrameTapI {
public:
    virtual ~FrameTapI() = default;
    virtual void on_tapped_frame(const NetDevice& device, const Frame& frame, FrameDirection direction) = 0;
};

}  // namespace net_device
}  // namespace vostrelka
