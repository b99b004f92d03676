#pragma once
// Frames kept by value for tests to compare: what a handler was given, what
// a device was asked to send, what a serial byte stream carried.
#include <ostream>
#include <tuple>
#include <vector>

#include "vostrelka/net_device/NetDevice.h"
#include "vostrelka/net_device/SerialEncoder.h"

namespace test_support {

using Bytes = std::vector<uint8_t>;
using NetFrame = vostrelka::net_device::Frame;

struct RecordedFrame {
    uint8_t proto_id;
    uint8_t src;
    uint8_t dst;
    Bytes payload;

    auto fields() const { return std::tie(proto_id, src, dst, payload); }
    bool operator==(const RecordedFrame& o) const { return fields() == o.fields(); }
};

inline std::ostream& operator<<(std::ostream& out, const RecordedFrame& frame) {
    out << int(frame.proto_id) << ":" << int(frame.src) << ">" << int(frame.dst) << "#";
    for (uint8_t byte : frame.payload) out << int(byte) << ",";
    return out;
}

inline RecordedFrame record(const NetFrame& frame) {
    return {frame.proto_id, frame.src, frame.dst, Bytes(frame.payload.begin(), frame.payload.end())};
}

// A frame to send, viewing `payload`, which must outlive it.
inline NetFrame make_frame(uint8_t proto_id, uint8_t src, uint8_t dst, const Bytes& payload) {
    return {proto_id, src, dst, vostrelka::ConstSlice<unsigned char>(payload.data(), payload.size())};
}

// A handler that keeps a copy of every frame it is given.
struct FrameRecorder : vostrelka::net_device::NetDeviceMessageHandlerI {
    void on_frame(vostrelka::net_device::NetDevice& device, const NetFrame& frame) override {
        last_device = &device;
        frames.push_back(record(frame));
    }
    std::vector<RecordedFrame> frames;
    vostrelka::net_device::NetDevice* last_device = nullptr;
};

// A device without a descriptor that keeps every frame handed to send_raw,
// and hands frames to its handler through the destination filter, as a real
// device does after decoding them.
struct RecordingNetDevice : vostrelka::net_device::NetDevice {
    explicit RecordingNetDevice(uint8_t address = 0xFF) : NetDevice(address) {}
    bool is_fd_set(fd_set*) override { return false; }
    void register_fd(fd_set*, fd_set*, fd_set*) override {}
    void on_event(uint8_t) override {}
    int send_raw(const NetFrame& frame) override {
        sent.push_back(record(frame));
        return 0;
    }
    void receive(const NetFrame& frame) { deliver(frame); }
    std::vector<RecordedFrame> sent;
};

// The serial framing of a byte stream: feed() returns the frames completed
// by each piece, encode() the bytes of one frame.
class SerialFraming : public vostrelka::net_device::SerialEncoderHandlerI {
public:
    std::vector<RecordedFrame> feed(const Bytes& bytes) {
        frames.clear();
        codec.decode(vostrelka::ConstSlice<unsigned char>(bytes.data(), bytes.size()), stats);
        return frames;
    }
    Bytes encode(const RecordedFrame& frame) {
        tx.size = 0;
        codec.encode(make_frame(frame.proto_id, frame.src, frame.dst, frame.payload), stats);
        return Bytes(tx.begin(), tx.end());
    }
    void on_frame(const NetFrame& frame) override { frames.push_back(record(frame)); }

private:
    Bytes tx_storage = Bytes(8192), rx_storage = Bytes(8192);
    vostrelka::Slice<unsigned char> tx{tx_storage.data(), 0, tx_storage.size()};
    vostrelka::Slice<unsigned char> rx{rx_storage.data(), 0, rx_storage.size()};
    vostrelka::net_device::SerialEncoder codec{tx, rx, *this};
    vostrelka::net_device::SerialEncoderErrorStats stats;
    std::vector<RecordedFrame> frames;
};

inline Bytes to_serial_bytes(const RecordedFrame& frame) {
    return SerialFraming().encode(frame);
}

}  // namespace test_support
