#pragma once
// A periodic interface handler: the main loop calls update() once per pass.
#include "vostrelka/net_device/NetDevice.h"

namespace vostrelka {

class RunnerHandler : public net_device::NetDeviceMessageHandlerI {
public:
    explicit RunnerHandler(net_device::NetDevice* device_) : device(device_) {}
    ~RunnerHandler() override = default;

    // Never called by the gateway.
    void on_frame(net_device::NetDevice& /*device*/, const net_device::Frame& /*frame*/) override {}
    virtual void update(const long& now_us) = 0;

protected:
    net_device::NetDevice* device;  // the interface's device, not owned
};

}  // namespace vostrelka
