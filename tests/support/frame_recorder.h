#pragma once
// Frames kept by value for tests to compare: what a handler was given, what
// a device was asked to send, what a serial byte stream carried.
#include <cstdint>
#include <iomanip>
#include <ostream>
#include <vector>

#include "vostrelka/net_device/NetDevice.h"
#include "vostrelka/net_device/SerialEncoder.h"

namespace test_support {

using Bytes = std::vector<uint8_t>;

struct RecordedFrame {
    uint8_t proto_id;
    uint8_t src;
    uint8_t dst;
    std::vector<uint8_t> payload;

    bool operator==(const RecordedFrame& o) const {
        return proto_id == o.proto_id && src == o.src && dst == o.dst && payload == o.payload;
    }
};

inline std::ostream& operator<<(std::ostream& out, const RecordedFrame& frame) {
    out << "{proto " << int(frame.proto_id) << ", " << int(frame.src) << " -> " << int(frame.dst) << ",";
    for (uint8_t byte : frame.payload) out << ' ' << std::hex << std::setw(2) << std::setfill('0') << int(byte);
    return out << std::dec << "}";
}

inline RecordedFrame record(const vostrelka::net_device::Frame& frame) {
    return {frame.proto_id, frame.src, frame.dst, std::vector<uint8_t>(frame.payload.begin(), frame.payload.end())};
}

// A frame to send, viewing `payload`, which must outlive it.
inline vostrelka::net_device::Frame make_frame(uint8_t proto_id, uint8_t src, uint8_t dst,
                                               const std::vector<uint8_t>& payload) {
    vostrelka::net_device::Frame frame;
    frame.proto_id = proto_id;
    frame.src = src;
    frame.dst = dst;
    frame.payload = vostrelka::ConstSlice<unsigned char>(payload.data(), payload.size());
    return frame;
}

// A NetDeviceMessageHandlerI that keeps a copy of every frame it is given.
class FrameRecorder : public vostrelka::net_device::NetDeviceMessageHandlerI {
public:
    void on_frame(vostrelka::net_device::NetDevice& device, const vostrelka::net_device::Frame& frame) override {
        last_device = &device;
        frames.push_back(record(frame));
    }

    std::vector<RecordedFrame> frames;
    vostrelka::net_device::NetDevice* last_device = nullptr;
};

// A NetDevice without a descriptor that keeps every frame handed to send_raw.
class RecordingNetDevice : public vostrelka::net_device::NetDevice {
public:
    explicit RecordingNetDevice(uint8_t address = 0xFF) : NetDevice(address) {}

    bool is_fd_set(fd_set*) override { return false; }
    void register_fd(fd_set*, fd_set*, fd_set*) override {}
    void on_event(uint8_t) override {}
    int send_raw(const vostrelka::net_device::Frame& frame) override {
        sent.push_back(record(frame));
        return 0;
    }
    // Hands `frame` to the handler through the destination filter, as a
    // real device does after decoding it.
    void receive(const vostrelka::net_device::Frame& frame) { deliver(frame); }

    std::vector<RecordedFrame> sent;
};

// Collects the frames of a byte stream fed in pieces; also encodes.
class SerialFraming : public vostrelka::net_device::SerialEncoderHandlerI {
public:
    // Every frame completed by `bytes` (and the bytes before them).
    std::vector<RecordedFrame> feed(const std::vector<uint8_t>& bytes) {
        frames.clear();
        codec.decode(vostrelka::ConstSlice<unsigned char>(bytes.data(), bytes.size()), stats);
        return frames;
    }
    std::vector<uint8_t> encode(const RecordedFrame& frame) {
        tx.size = 0;
        const uint64_t size = codec.encode(make_frame(frame.proto_id, frame.src, frame.dst, frame.payload), stats);
        return std::vector<uint8_t>(tx_storage, tx_storage + size);
    }
    void on_frame(const vostrelka::net_device::Frame& frame) override { frames.push_back(record(frame)); }

private:
    static constexpr uint64_t BUFFER_SIZE = 8192;
    uint8_t tx_storage[BUFFER_SIZE]{};
    uint8_t rx_storage[BUFFER_SIZE]{};
    vostrelka::Slice<unsigned char> tx{tx_storage, 0, BUFFER_SIZE};
    vostrelka::Slice<unsigned char> rx{rx_storage, 0, BUFFER_SIZE};
    vostrelka::net_device::SerialEncoder codec{tx, rx, *this};
    vostrelka::net_device::SerialEncoderErrorStats stats;
    std::vector<RecordedFrame> frames;
};

// The serial framing of one frame.
inline std::vector<uint8_t> to_serial_bytes(const RecordedFrame& frame) {
    return SerialFraming().encode(frame);
}

}  // namespace test_support
