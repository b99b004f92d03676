#pragma once
// The one-line text form of a frame, shared by `gatecat send` (which reads
// it) and `gatecat dump` (which writes it, so that its output replays):
//
//   PROTO:SRC>DST#PAYLOAD          e.g.  07:01>02#DEADBEEF
//
//   field    form                               example
//   PROTO    1 or 2 hex digits, the proto_id    7, 0A
//   SRC      1 or 2 hex digits, the source      01
//   DST      1 or 2 hex digits, the destination FF (broadcast)
//   PAYLOAD  hex digit pairs, may be empty;     DEADBEEF, DE.AD.BE.EF, (nothing)
//            a '.' may stand between two bytes
//
// SRC-DST may stand for SRC>DST: a shell takes an unquoted '>' as a
// redirection, and frames are typed on command lines.
//
// Hex digits are read in either case and written in upper case; written
// frames always use two digits per field and no dots.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace gatecat {

// The largest payload any interface carries (a "udp" datagram's).
constexpr size_t MAX_TEXT_PAYLOAD_SIZE = 2048;

// A frame read from text; unlike net_device::Frame it owns its payload.
struct TextFrame {
    uint8_t proto_id = 0;
    uint8_t src = 0;
    uint8_t dst = 0;
    std::vector<uint8_t> payload;

    // A view for send_raw, valid while this object is unchanged.
    net_device::Frame view() const;
};

// True and `out` filled when `text` is exactly one frame. Otherwise false,
// `out` unspecified and `error` says what is wrong, in one line.
bool parse_frame(std::string_view text, TextFrame& out, std::string& error);

// The canonical text of a frame.
std::string format_frame(const net_device::Frame& frame);

// The frame field of one line of `gatecat send` input. A line is either a
// frame alone or a line as `gatecat dump` or `gatecat tap` prints it, that
// is an optional "(time stamp)" field (after it, on a tap line, the
// interface and direction), the frame, and anything after it:
//   (1732170000.123456) 07:01>02#DEADBEEF  proto_id 7  0x01 -> 0x02  len 4
//   (1732170000.123456) iface 1 in 07:01>02#DEADBEEF  proto_id 7  0x01 -> 0x02  len 4
// Surrounding blanks are ignored. Empty for a line with no field (blank),
// which is skipped, not an error.
std::string_view frame_field_of_line(std::string_view line);

}  // namespace gatecat
}  // namespace vostrelka
