// Datagrams from anyone, into a running gateway: a "udp" and a "udpserial"
// interface with real sockets on 127.0.0.1 receive the input, so that the
// devices' receive paths, learning, routing, MANet header parsing and
// service frames all run on it.
//
// Two gateways: one with a MANet interface, and one without, which alone
// gets service frames. A device configuration naming a UTM server would
// start name lookups on a MANet interface, which must not leave this
// machine, and would give every run a lookup thread.
//
// Input: byte 0 picks the gateway (bit 0), the receiving interface (bits
// 1-2: "udp", "udpserial", the MANet interface) and the sending socket
// (bits 3-4); the rest is the datagram.
#include <cstdio>
#include <memory>

#include "Gate.h"
#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"
#include "vostrelka/ProtoIds.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"
#include "vostrelka/net_device_udp/NetDeviceUDPSerial.h"

using namespace vostrelka;
using namespace vostrelka::net_device;
using test_support::RecordingNetDevice;
using test_support::UdpEndpoint;

namespace {

constexpr int SENDERS = 4;
constexpr uint32_t CONFIGURED_MANET = 0x0A000001;

struct Harness {
    std::unique_ptr<Gate> gate;
    std::shared_ptr<NetDeviceUDP> udp = std::make_shared<NetDeviceUDP>(2048, 0xFF);
    std::shared_ptr<NetDeviceUDPSerial> udpserial = std::make_shared<NetDeviceUDPSerial>(2048, 0xFF);
    // Link-level devices without a descriptor; copying what they are sent reads it as an encoder would.
    std::shared_ptr<RecordingNetDevice> serial = std::make_shared<RecordingNetDevice>();
    std::shared_ptr<NetDeviceUDP> manet = std::make_shared<NetDeviceUDP>(2048, 0xFF);
    std::shared_ptr<RecordingNetDevice> inert = std::make_shared<RecordingNetDevice>();
    UdpEndpoint sink;  // where forwarded frames for configured UDP peers go
    bool with_manet;

    explicit Harness(bool with_manet_iface) : with_manet(with_manet_iface) {
        for (NetDeviceUDP* device : {udp.get(), static_cast<NetDeviceUDP*>(udpserial.get()), manet.get()})
            if (!device->create_socket(*InetAddress::from("127.0.0.1", 0))) __builtin_trap();
        reset_tables();
    }

    // A new gateway with only the configured peers, so that learning from
    // one input does not carry into the next and the tables stay bounded.
    void reset_tables() {
        gate = std::make_unique<Gate>();
        Gate::Interface* ifaces[] = {
            gate->add_interface(1, Gate::LOCAL, udp), gate->add_interface(2, Gate::LOCAL, udpserial),
            gate->add_interface(3, Gate::LOCAL, serial),
            with_manet ? gate->add_interface(4, Gate::MANET, manet) : nullptr, gate->add_interface(5, 7, inert)};
        const std::optional<InetAddress> sink_address = InetAddress::from("127.0.0.1", sink.port());
        gate->add_local_peer(*ifaces[0], 0x10, sink_address);
        gate->add_local_peer(*ifaces[1], 0x11, sink_address);
        gate->add_local_peer(*ifaces[2], 0x12, std::nullopt);
        if (with_manet)
            gate->add_manet_peer(*ifaces[3], CONFIGURED_MANET, 0x20, nullptr, sink_address, Gate::Origin::CONFIGURED);
        gate->add_manet_peer(*ifaces[2], CONFIGURED_MANET + 1, 0x21, nullptr, std::nullopt, Gate::Origin::CONFIGURED);
        // What was forwarded is not looked at; keep the sink and the records from filling.
        while (sink.receive(0)) {
        }
        serial->sent.clear();
        inert->sent.clear();
    }
};

}  // namespace

// Peer-table changes are always logged; the fuzzer only wants crashes.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return freopen("/dev/null", "w", stdout) ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Harness* with_manet = new Harness(true);
    static Harness* without_manet = new Harness(false);
    static UdpEndpoint senders[SENDERS];
    if (size < 1) return 0;

    const bool service_gateway = (data[0] & 1) != 0;
    Harness& h = service_gateway ? *without_manet : *with_manet;
    h.gate->set_debug_level(3);  // every log line is built
    const int pick = (data[0] >> 1) & 3;
    NetDeviceUDP* device = pick == 1 ? static_cast<NetDeviceUDP*>(h.udpserial.get()) : h.udp.get();
    if (pick == 2 && !service_gateway) device = h.manet.get();
    const uint8_t* datagram = data + 1;
    const size_t length = size - 1;
    if (!service_gateway) {
        // Service frames only where they cannot start name lookups (see
        // above). In the serial framing the proto_id has no fixed place, so
        // that gateway takes no "udpserial" datagrams at all.
        if (pick == 1) return 0;
        if (device == h.udp.get() && length >= 1 && datagram[0] == vostrelka::SERVICE_PROTO_ID) return 0;
    }

    UdpEndpoint& sender = senders[(data[0] >> 3) & (SENDERS - 1)];
    if (!sender.send_to(test_support::bound_port_of(device->get_socket()), {datagram, datagram + length})) return 0;
    device->on_event(event_system::EVENT_READABLE);

    h.reset_tables();
    return 0;
}
