#include "gatecat/PcapWriter.h"

#include "gatecat/FrameSyntax.h"
#include "vostrelka/Time.h"
#include "vostrelka/net_device/SerialEncoder.h"

namespace vostrelka {
namespace gatecat {

namespace {

constexpr uint32_t PCAP_MAGIC_US = 0xA1B2C3D4;
constexpr uint16_t PCAP_VERSION_MAJOR = 2;
constexpr uint16_t PCAP_VERSION_MINOR = 4;
constexpr uint32_t PCAP_SNAPLEN = 65535;
constexpr size_t RECORD_HEADER_SIZE = 16;  // seconds, microseconds, captured and original length
constexpr size_t FRAME_HEADER_SIZE = 3;    // proto_id, src, dst
// Serial framing at worst: two delimiters, every other byte escaped.
constexpr size_t MAX_SERIAL_FRAME_SIZE = 2 + 2 * (4 + FRAME_HEADER_SIZE + MAX_TEXT_PAYLOAD_SIZE);

// Frames are re-encoded only; nothing is decoded here.
class NoFrames : public net_device::SerialEncoderHandlerI {
public:
    void on_frame(const net_device::Frame&) override {}
};

void put_u16(std::vector<uint8_t>& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void put_u32(std::vector<uint8_t>& out, uint32_t value) {
    put_u16(out, static_cast<uint16_t>(value));
    put_u16(out, static_cast<uint16_t>(value >> 16));
}

void set_u32(std::vector<uint8_t>& out, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; i++) out[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

// Appends the frame in its serial framing; false when it does not fit.
bool append_serial_framed(const net_device::Frame& frame, std::vector<uint8_t>& out) {
    const size_t start = out.size();
    out.resize(start + MAX_SERIAL_FRAME_SIZE);
    Slice<unsigned char> tx(out.data() + start, 0, MAX_SERIAL_FRAME_SIZE);
    Slice<unsigned char> rx(nullptr, 0, 0);
    NoFrames no_frames;
    net_device::SerialEncoder encoder(tx, rx, no_frames);
    net_device::SerialEncoderErrorStats stats;
    const uint64_t written = encoder.encode(frame, stats);
    out.resize(start + tx.size);
    return written != 0;
}

}  // namespace

PcapWriter::PcapWriter() {
    packet.reserve(RECORD_HEADER_SIZE + PSEUDO_HEADER_SIZE + MAX_SERIAL_FRAME_SIZE);
}

PcapWriter::~PcapWriter() {
    if (owned && file != nullptr) std::fclose(file);
}

bool PcapWriter::open(const std::string& path, FILE* stdout_stream) {
    owned = !is_stdout(path);
    file = owned ? std::fopen(path.c_str(), "wb") : stdout_stream;
    if (file == nullptr) return false;
    std::vector<uint8_t> header;
    put_u32(header, PCAP_MAGIC_US);
    put_u16(header, PCAP_VERSION_MAJOR);
    put_u16(header, PCAP_VERSION_MINOR);
    put_u32(header, 0);  // time zone: stamps are UTC
    put_u32(header, 0);  // accuracy of the stamps, unused by readers
    put_u32(header, PCAP_SNAPLEN);
    put_u32(header, LINK_TYPE_USER0);
    return std::fwrite(header.data(), 1, header.size(), file) == header.size() && std::fflush(file) == 0;
}

bool PcapWriter::write(int64_t time_us, uint32_t iface, CaptureDirection direction,
                       const net_device::TransportKind* kind, const net_device::Frame& frame) {
    if (file == nullptr) return false;
    packet.assign(RECORD_HEADER_SIZE, 0);
    put_u32(packet, iface);
    packet.push_back(static_cast<uint8_t>(direction));
    packet.push_back(kind ? kind->capture_medium : 0);
    if (kind && kind->serial_framed) {
        if (!append_serial_framed(frame, packet)) return false;
    } else {
        packet.push_back(frame.proto_id);
        packet.push_back(frame.src);
        packet.push_back(frame.dst);
        packet.insert(packet.end(), frame.payload.data, frame.payload.data + frame.payload.size);
    }
    const uint32_t captured = static_cast<uint32_t>(packet.size() - RECORD_HEADER_SIZE);
    set_u32(packet, 0, static_cast<uint32_t>(time_us / US_PER_S));
    set_u32(packet, 4, static_cast<uint32_t>(time_us % US_PER_S));
    set_u32(packet, 8, captured);
    set_u32(packet, 12, captured);
    return std::fwrite(packet.data(), 1, packet.size(), file) == packet.size() && std::fflush(file) == 0;
}

}  // namespace gatecat
}  // namespace vostrelka
