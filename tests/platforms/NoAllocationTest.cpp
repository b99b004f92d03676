// The CAN data path must not touch the heap once a device is built (the
// forwarding test in tests/gate covers the UDP devices). This binary replaces
// the global allocation functions with counting ones.
#include <gtest/gtest.h>

#include <vector>

#include "support/AllocationCounter.h"
#include "support/can_test_device.h"
#include "vostrelka/net_device/CanEncoder.h"

using namespace vostrelka::net_device;

// Sums payload sizes instead of copying, so that delivery allocates nothing.
struct Counting : NetDeviceMessageHandlerI {
    void on_frame(NetDevice&, const Frame& frame) override { bytes += frame.payload.size; }
    uint64_t bytes = 0;
};

TEST(NoAllocation, CanDeviceSendsAndReceivesInPlace) {
    const std::vector<uint8_t> payload(CAN_MAX_PAYLOAD_BYTES, 0x42);
    test_support::CanTestDevice<16, 2048, 512> sender(0x10), receiver(0x20);
    Counting handler;
    receiver.set_handler(&handler);
    sender.written.reserve(4096);
    int refused = 0;
    test_support::AllocationCounter counter;
    for (size_t size : {size_t{0}, size_t{8}, size_t{9}, size_t{20}, payload.size()})
        refused += sender.send_raw(Frame{10, 0x10, 0xFF, vostrelka::ConstSlice<unsigned char>(payload.data(), size)});
    for (const CanFrame& f : sender.written) receiver.handle_can_frame(f);
    EXPECT_EQ(counter.stop(), 0u);
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(handler.bytes, 37u + payload.size());
}
