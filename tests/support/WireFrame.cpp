#include "support/WireFrame.h"

#include <algorithm>
#include <iomanip>

namespace test_support {

namespace {

constexpr size_t UDP_HEADER_SIZE = 3;

}  // namespace

std::ostream& operator<<(std::ostream& out, const WireFrame& frame) {
    out << "{proto " << int(frame.proto_id) << ", " << int(frame.src) << " -> " << int(frame.dst) << ", payload";
    for (uint8_t byte : frame.payload) out << ' ' << std::hex << std::setw(2) << std::setfill('0') << int(byte);
    return out << std::dec << "}";
}

Bytes to_udp_datagram(const WireFrame& frame) {
    Bytes bytes(UDP_HEADER_SIZE + frame.payload.size());
    bytes[0] = frame.proto_id;
    bytes[1] = frame.src;
    bytes[2] = frame.dst;
    std::copy(frame.payload.begin(), frame.payload.end(), bytes.begin() + UDP_HEADER_SIZE);
    return bytes;
}

std::vector<WireFrame> from_udp_datagram(const Bytes& datagram) {
    if (datagram.size() < UDP_HEADER_SIZE) return {};
    return {
        WireFrame{datagram[0], datagram[1], datagram[2], Bytes(datagram.begin() + UDP_HEADER_SIZE, datagram.end())}};
}

Bytes to_serial_bytes(const WireFrame& frame) {
    SerialStreamDecoder scratch;
    uint8_t storage[8192];
    vostrelka::Slice<unsigned char> tx(storage, 0, sizeof(storage));
    uint8_t rx_storage[1];
    vostrelka::Slice<unsigned char> rx(rx_storage, 0, sizeof(rx_storage));
    vostrelka::net_device::SerialEncoder encoder(tx, rx, scratch);
    vostrelka::net_device::SerialEncoderErrorStats stats;
    vostrelka::net_device::Frame view;
    view.proto_id = frame.proto_id;
    view.src = frame.src;
    view.dst = frame.dst;
    view.payload = vostrelka::ConstSlice<unsigned char>(frame.payload.data(), frame.payload.size());
    encoder.encode(view, stats);
    return Bytes(tx.begin(), tx.end());
}

SerialStreamDecoder::SerialStreamDecoder()
    : tx(tx_storage, 0, BUFFER_SIZE), rx(rx_storage, 0, BUFFER_SIZE), codec(tx, rx, *this) {}

std::vector<WireFrame> SerialStreamDecoder::feed(const Bytes& bytes) {
    codec.decode(vostrelka::ConstSlice<unsigned char>(bytes.data(), bytes.size()), stats);
    std::vector<WireFrame> taken;
    taken.swap(frames);
    return taken;
}

void SerialStreamDecoder::on_frame(const vostrelka::net_device::Frame& frame) {
    frames.push_back({frame.proto_id, frame.src, frame.dst, Bytes(frame.payload.begin(), frame.payload.end())});
}

}  // namespace test_support
