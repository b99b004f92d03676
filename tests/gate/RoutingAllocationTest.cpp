// Routing a frame must cost no heap at the quiet debug level: the sender's
// address is copied per frame, but numeric IPv4 text fits the strings' own
// storage. This binary counts allocations made inside a measured region.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "support/InProcessGate.h"
#include "support/UdpEndpoint.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"

namespace {

std::atomic<bool> counting{false};
std::atomic<uint64_t> allocations{0};

void* counted_alloc(std::size_t size) {
    if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

template <typename Action>
uint64_t allocations_of(Action&& action) {
    allocations = 0;
    counting = true;
    action();
    counting = false;
    return allocations;
}

}  // namespace

void* operator new(std::size_t size) {
    return counted_alloc(size);
}
void* operator new[](std::size_t size) {
    return counted_alloc(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

using test_support::log_lines_of;
using test_support::UdpEndpoint;
using vostrelka::Gate;
using vostrelka::InetAddress;
using vostrelka::net_device::NetDeviceUDP;
using Bytes = std::vector<uint8_t>;

class RoutingAllocationTest : public ::testing::Test {
protected:
    test_support::InProcessGate bench;
    Gate& gate = bench.gate;
    std::shared_ptr<NetDeviceUDP> local = open_udp_iface(1, Gate::LOCAL);
    std::shared_ptr<NetDeviceUDP> gateways = open_udp_iface(3, Gate::MANET);
    UdpEndpoint node_a;
    UdpEndpoint node_b;
    UdpEndpoint gateway;

    std::shared_ptr<NetDeviceUDP> open_udp_iface(uint32_t id, uint8_t type) {
        auto device = std::make_shared<NetDeviceUDP>(2048, 0xFF);
        EXPECT_TRUE(device->create_socket(*InetAddress::from(std::string("127.0.0.1:0"))));
        bench.add_iface(id, type, device);
        return device;
    }

    // Lets `local` read one datagram from `from`, so that its sender address
    // is `from` and the gate learns what it carries.
    void hear(UdpEndpoint& from, const Bytes& bytes) {
        ASSERT_TRUE(from.send_to(test_support::bound_port_of(local->get_socket()), bytes));
        ASSERT_TRUE(test_support::wait_readable(local->get_socket()));
        log_lines_of([&] { local->do_read(); });
    }

    void SetUp() override {
        log_lines_of([&] {
            gate.add_manet_peer(bench.iface(3), 0x0A000001, 0x42, nullptr, InetAddress::from(gateway.address()));
        });
        hear(node_b, {7, 0x02, 0x01, 0});
        hear(node_a, {7, 0x01, 0x02, 0});
    }
};

TEST_F(RoutingAllocationTest, ForwardingAFrameAllocatesNothing) {
    const Bytes payload{1, 2, 3};
    const Bytes packet = test_support::manet_payload(0x0B000001, 0x0A000001, {1, 2, 3});
    struct Case {
        const char* what;
        vostrelka::net_device::Frame frame;
    };
    // The first MANet packet learns its node; the measured one only refreshes.
    gate.on_frame(*local, test_support::make_frame(Gate::MANET_PROTO_ID, 0x01, 0xFF, packet));
    const Case cases[] = {
        {"unicast", test_support::make_frame(7, 0x01, 0x02, payload)},
        {"broadcast", test_support::make_frame(7, 0x01, 0xFF, payload)},
        {"MANet packet", test_support::make_frame(Gate::MANET_PROTO_ID, 0x01, 0xFF, packet)},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(allocations_of([&] { gate.on_frame(*local, c.frame); }), 0u) << c.what;
    }
    EXPECT_TRUE(node_b.receive().has_value());
    EXPECT_TRUE(gateway.receive().has_value());
}

}  // namespace
