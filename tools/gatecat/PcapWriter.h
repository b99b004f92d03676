#pragma once
// Writes frames to a pcap capture file that Wireshark reads with the Lua
// dissector the build writes (wireshark/gate.lua in the build folder).
//
// The file is classic pcap (microsecond time stamps, written little-endian)
// with link type 147, the first of the link types kept for private use. Each
// packet is a pseudo-header and then the frame:
//
//   offset  size  field
//   0       4     iface id, little-endian (0 for `gatecat dump`, which
//                 watches one interface and knows no id)
//   4       1     direction: 0 received, 1 sent
//   5       1     medium: 0 unknown, else the transport kind's
//                 capture_medium (1 udp, 2 udpserial, 3 serial, 4 can)
//   6       rest  the frame: on serial-framed kinds in the serial framing
//                 the link carries (0x42, CRC-32, proto_id, src, dst,
//                 payload, 0x42, escaped); otherwise as a "udp" datagram
//                 carries it (proto_id, src, dst, payload)
//
// A serial-framed frame is encoded again from the decoded frame, so it is
// the framing the link carries for it, without noise or broken frames.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "vostrelka/net_device/Frame.h"
#include "vostrelka/net_device/NetDeviceFactory.h"

namespace vostrelka {
namespace gatecat {

enum class CaptureDirection : uint8_t { IN = 0, OUT = 1 };

class PcapWriter {
public:
    static constexpr uint32_t LINK_TYPE_USER0 = 147;
    static constexpr size_t PSEUDO_HEADER_SIZE = 6;

    PcapWriter();
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    PcapWriter& operator=(const PcapWriter&) = delete;

    // Creates (or empties) the file and writes the file header; "-" is
    // standard output, given as `stdout_stream` and left open. False when the
    // file cannot be written; errno then says why.
    bool open(const std::string& path, FILE* stdout_stream);

    // Appends one packet and flushes it, so that the file is complete
    // whenever gatecat stops and a reader on a pipe sees each frame as it
    // comes. `kind` is the interface's, null when unknown. False on a write
    // error.
    bool write(int64_t time_us, uint32_t iface, CaptureDirection direction, const net_device::TransportKind* kind,
               const net_device::Frame& frame);

    // Whether `path` names standard output rather than a file.
    static bool is_stdout(const std::string& path) { return path == "-"; }

private:
    FILE* file = nullptr;
    bool owned = false;           // closed here: a file, not standard output
    std::vector<uint8_t> packet;  // the packet being written, sized once
};

}  // namespace gatecat
}  // namespace vostrelka
