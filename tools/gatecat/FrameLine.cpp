#include "gatecat/FrameLine.h"

#include <cinttypes>
#include <cstdio>

#include "gatecat/FrameDecoder.h"
#include "gatecat/FrameSyntax.h"
#include "vostrelka/Time.h"

namespace vostrelka {
namespace gatecat {

namespace {}  // namespace

std::string frame_line(int64_t time_us, const std::string& origin, const net_device::Frame& frame, bool decode) {
    char fields[96];
    std::snprintf(fields, sizeof fields, "(%" PRId64 ".%06" PRId64 ") ", time_us / US_PER_S, time_us % US_PER_S);
    std::string line = fields;
    line += origin;
    line += format_frame(frame);
    std::snprintf(fields, sizeof fields, "  proto_id %u  0x%02X -> 0x%02X  len %" PRIu64, frame.proto_id, frame.src,
                  frame.dst, static_cast<uint64_t>(frame.payload.size));
    line += fields;
    if (decode) {
        const std::string decoded = decode_frame(frame);
        if (!decoded.empty()) line += "  " + decoded;
    }
    return line;
}

}  // namespace gatecat
}  // namespace vostrelka
