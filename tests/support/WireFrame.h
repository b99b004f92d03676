#pragma once
// Frames as they look on the gate's links, for end-to-end tests: the raw
// "udp" datagram (proto_id, src, dst, payload) and the serial framing used
// on serial lines and in "udpserial" datagrams.
#include <cstdint>
#include <ostream>
#include <vector>

#include "vostrelka/net_device/SerialEncoder.h"

namespace test_support {

using Bytes = std::vector<uint8_t>;

struct WireFrame {
    uint8_t proto_id = 0;
    uint8_t src = 0;
    uint8_t dst = 0;
    Bytes payload;

    bool operator==(const WireFrame& other) const {
        return proto_id == other.proto_id && src == other.src && dst == other.dst && payload == other.payload;
    }
};
std::ostream& operator<<(std::ostream& out, const WireFrame& frame);

Bytes to_udp_datagram(const WireFrame& frame);
// Empty when the datagram is too short to hold a header.
std::vector<WireFrame> from_udp_datagram(const Bytes& datagram);
Bytes to_serial_bytes(const WireFrame& frame);

// Collects the frames in a serial byte stream fed in pieces.
class SerialStreamDecoder : public vostrelka::net_device::SerialEncoderHandlerI {
public:
    SerialStreamDecoder();
    // Decodes `bytes`; returns every frame completed so far and not yet taken.
    std::vector<WireFrame> feed(const Bytes& bytes);
    void on_frame(const vostrelka::net_device::Frame& frame) override;

private:
    static constexpr uint64_t BUFFER_SIZE = 4096;
    uint8_t tx_storage[BUFFER_SIZE]{};
    uint8_t rx_storage[BUFFER_SIZE]{};
    vostrelka::Slice<unsigned char> tx;
    vostrelka::Slice<unsigned char> rx;
    vostrelka::net_device::SerialEncoder codec;
    vostrelka::net_device::SerialEncoderErrorStats stats;
    std::vector<WireFrame> frames;
};

}  // namespace test_support
