#pragma once
// One device on a link of a gate under test, played by the test: behind a
// UDP socket or at the far end of a serial line.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "support/PtyPair.h"
#include "support/UdpEndpoint.h"
#include "support/frame_recorder.h"

namespace test_support {

// A "udp" datagram: proto_id | src | dst | payload.
inline Bytes datagram(const RecordedFrame& frame) {
    // Sized first: g++ 12 sees an insert into a 3-byte vector as overflowing it.
    Bytes bytes(3 + frame.payload.size());
    bytes[0] = frame.proto_id, bytes[1] = frame.src, bytes[2] = frame.dst;
    std::copy(frame.payload.begin(), frame.payload.end(), bytes.begin() + 3);
    return bytes;
}

// Behind a UDP socket, or at the far end of a serial line (`pty`); serial
// framing except on "udp".
struct Link {
    Link(uint16_t port, bool framed_, PtyPair* pty_ = nullptr) : gate_port(port), framed(framed_), pty(pty_) {}
    uint16_t gate_port;
    bool framed;
    PtyPair* pty;
    UdpEndpoint udp;
    SerialFraming framing;
    std::vector<RecordedFrame> pending;

    void send(const RecordedFrame& frame) {
        const Bytes bytes = framed ? to_serial_bytes(frame) : datagram(frame);
        ASSERT_TRUE(pty ? pty->write_master(bytes) : udp.send_to(gate_port, bytes));
    }
    // The next frame the gate sent here; empty after the timeout.
    std::optional<RecordedFrame> receive(int timeout_ms = 3000) {
        for (int waited = 0; pending.empty() && waited < timeout_ms; waited += 20) {
            const Bytes bytes =
                pty ? pty->read_master(4096, std::chrono::milliseconds(20)) : udp.receive(20).value_or(Bytes{});
            if (framed) pending = framing.feed(bytes);
            if (!framed && bytes.size() >= 3)
                pending = {{bytes[0], bytes[1], bytes[2], Bytes(bytes.begin() + 3, bytes.end())}};
        }
        if (pending.empty()) return std::nullopt;
        const RecordedFrame frame = pending.front();
        pending.erase(pending.begin());
        return frame;
    }
};

}  // namespace test_support
