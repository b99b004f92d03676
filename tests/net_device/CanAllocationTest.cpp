// Sending and receiving through the CAN device allocate nothing once it is
// built. Global operator new is replaced here to count, so this file is a
// binary of its own.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

#include "support/can_test_device.h"
#include "support/frame_recorder.h"
#include "vostrelka/net_device/CanEncoder.h"

namespace {
std::atomic<uint64_t> allocations{0};
}

void* operator new(std::size_t size) {
    allocations++;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

using namespace vostrelka;
using namespace vostrelka::net_device;

namespace {

// Counts instead of copying, so that delivery itself allocates nothing.
class CountingHandler : public NetDeviceMessageHandlerI {
public:
    void on_frame(NetDevice&, const Frame& frame) override {
        frames++;
        bytes += frame.payload.size;
    }
    uint64_t frames = 0;
    uint64_t bytes = 0;
};

}  // namespace

TEST(CanAllocation, SendAndReceivePathsAllocateNothing) {
    test_support::CanTestDevice<16, 2048, 512> sender(0x10);
    test_support::CanTestDevice<16, 2048, 512> receiver(0x20);
    CountingHandler handler;
    receiver.set_handler(&handler);
    sender.written.reserve(4096);
    sender.write_calls.reserve(4096);

    static uint8_t payload[CAN_MAX_PAYLOAD_BYTES];
    for (size_t i = 0; i < sizeof(payload); i++) payload[i] = static_cast<uint8_t>(i * 7);
    const size_t sizes[] = {0, 8, 9, 20, 100, CAN_MAX_PAYLOAD_BYTES};

    const uint64_t before = allocations.load();
    for (size_t size : sizes) {
        Frame frame;
        frame.proto_id = 10;
        frame.src = 0x10;
        frame.dst = 0x20;
        frame.payload = ConstSlice<unsigned char>(payload, size);
        ASSERT_EQ(sender.send_raw(frame), 0);
    }
    for (const CanFrame& f : sender.written) receiver.handle_can_frame(f);
    const uint64_t during = allocations.load() - before;

    EXPECT_EQ(during, 0u);
    EXPECT_EQ(handler.frames, std::size(sizes));
    EXPECT_EQ(handler.bytes, 0u + 8 + 9 + 20 + 100 + CAN_MAX_PAYLOAD_BYTES);
}
