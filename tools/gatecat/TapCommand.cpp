#include "gatecat/TapCommand.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "gatecat/FrameLine.h"
#include "gatecat/FrameSyntax.h"
#include "gatecat/PcapWriter.h"
#include "gatecat/StopSignals.h"
#include "vostrelka/Time.h"
#include "vostrelka/control/ControlClient.h"

namespace vostrelka {
namespace gatecat {

namespace {

using nlohmann::json;

constexpr int64_t IDLE_WAIT_US = 1000000;
constexpr int64_t KINDS_WAIT_US = 5000000;

// The transport kind of each interface, for the capture's pseudo-header, from one
// "stats" request. Empty when it cannot be had: the capture then says
// "unknown" and holds every frame in its datagram form.
std::map<uint32_t, const net_device::TransportKind*> interface_media(const std::string& socket_path) {
    std::map<uint32_t, const net_device::TransportKind*> media;
    control::ControlClient client;
    std::string line, error;
    if (!client.request(socket_path, "stats", error) ||
        client.read_line(line, KINDS_WAIT_US) != control::ControlClient::Read::LINE)
        return media;
    const json answer = json::parse(line, nullptr, false);
    const auto interfaces = answer.is_object() ? answer.find("interfaces") : answer.end();
    if (!answer.is_object() || interfaces == answer.end() || !interfaces->is_array()) return media;
    for (const json& iface : *interfaces) {
        const auto id = iface.find("id"), kind = iface.find("kind");
        if (!iface.is_object() || id == iface.end() || kind == iface.end() || !id->is_number_unsigned() ||
            !kind->is_string())
            continue;
        media[id->get<uint32_t>()] = net_device::NetDeviceFactory::find_kind(kind->get<std::string>());
    }
    return media;
}

struct TappedFrame {
    int64_t time_us = 0;
    uint32_t iface = 0;
    bool out = false;
    TextFrame frame;
};

bool unsigned_field(const json& line, const char* key, uint64_t max, uint64_t& out) {
    const auto found = line.find(key);
    if (found == line.end() || !found->is_number_unsigned() || found->get<uint64_t>() > max) return false;
    out = found->get<uint64_t>();
    return true;
}

// One frame line of the tap stream; false when a field is missing or wrong.
bool read_tapped_frame(const json& line, TappedFrame& out) {
    uint64_t iface = 0, proto_id = 0, src = 0, dst = 0;
    const auto t = line.find("t"), dir = line.find("dir"), payload = line.find("payload");
    if (t == line.end() || !t->is_number() || dir == line.end() || !dir->is_string() || payload == line.end() ||
        !payload->is_string() || !unsigned_field(line, "iface", UINT32_MAX, iface) ||
        !unsigned_field(line, "proto_id", 0xFF, proto_id) || !unsigned_field(line, "src", 0xFF, src) ||
        !unsigned_field(line, "dst", 0xFF, dst))
        return false;
    const std::string direction = dir->get<std::string>();
    if (direction != "in" && direction != "out") return false;
    out.time_us = std::llround(t->get<double>() * static_cast<double>(US_PER_S));
    out.iface = static_cast<uint32_t>(iface);
    out.out = direction == "out";
    // The payload's hex text is read by the frame syntax's own rules.
    char header[16];
    std::snprintf(header, sizeof header, "%02X:%02X>%02X#", static_cast<unsigned>(proto_id), static_cast<unsigned>(src),
                  static_cast<unsigned>(dst));
    std::string error;
    return parse_frame(header + payload->get<std::string>(), out.frame, error);
}

}  // namespace

int run_tap(const CommandLine& command_line, FILE* out) {
    StopSignals stop;
    if (!stop.install()) {
        std::fprintf(stderr, "gatecat: tap: cannot install signal handlers\n");
        return EXIT_RUNTIME_FAILURE;
    }
    PcapWriter capture;
    std::map<uint32_t, const net_device::TransportKind*> media;
    if (!command_line.capture_path.empty()) {
        if (!capture.open(command_line.capture_path, out)) {
            std::fprintf(stderr, "gatecat: tap: cannot write %s: %s\n", command_line.capture_path.c_str(),
                         std::strerror(errno));
            return EXIT_RUNTIME_FAILURE;
        }
        media = interface_media(command_line.socket_path);
    }
    control::ControlClient client;
    std::string error;
    if (!client.request(command_line.socket_path, "tap", error)) {
        std::fprintf(stderr, "gatecat: tap: %s\n", error.c_str());
        return EXIT_RUNTIME_FAILURE;
    }
    std::fprintf(stderr, "gatecat: tapping %s\n", command_line.socket_path.c_str());

    const int64_t deadline_us = command_line.timeout_us > 0 ? time_us() + command_line.timeout_us : 0;
    uint32_t frames = 0;
    uint64_t lost = 0;
    bool timed_out = false;
    int status = EXIT_OK;
    std::string text;
    TappedFrame tapped;
    while ((command_line.count == 0 || frames < command_line.count) && !stop.requested()) {
        int64_t wait_us = IDLE_WAIT_US;
        if (deadline_us != 0) {
            wait_us = std::min(wait_us, deadline_us - time_us());
            if (wait_us <= 0) {
                timed_out = true;
                break;
            }
        }
        const control::ControlClient::Read read = client.read_line(text, wait_us, stop.wait_mask());
        if (read == control::ControlClient::Read::WAITING) continue;
        if (read == control::ControlClient::Read::CLOSED) {
            std::fprintf(stderr, "gatecat: tap: the gateway closed %s\n", command_line.socket_path.c_str());
            status = EXIT_RUNTIME_FAILURE;
            break;
        }
        const json line = json::parse(text, nullptr, false);
        uint64_t lost_now = 0;
        if (line.is_object() && unsigned_field(line, "lost", UINT64_MAX, lost_now)) {
            lost += lost_now;
            std::fprintf(stderr, "gatecat: tap: the gateway dropped %llu frame%s for this client\n",
                         static_cast<unsigned long long>(lost_now), lost_now == 1 ? "" : "s");
            continue;
        }
        if (!line.is_object() || !read_tapped_frame(line, tapped)) {
            std::fprintf(stderr, "gatecat: tap: not a frame of the tap stream: %.80s\n", text.c_str());
            status = EXIT_RUNTIME_FAILURE;
            break;
        }
        const net_device::Frame frame = tapped.frame.view();
        // A capture on standard output has it to itself: no frame lines.
        if (!PcapWriter::is_stdout(command_line.capture_path)) {
            const std::string origin = "iface " + std::to_string(tapped.iface) + (tapped.out ? " out " : " in ");
            std::fprintf(out, "%s\n", frame_line(tapped.time_us, origin, frame, command_line.decode).c_str());
            std::fflush(out);
        }
        frames++;
        if (command_line.capture_path.empty()) continue;
        const auto medium = media.find(tapped.iface);
        if (!capture.write(tapped.time_us, tapped.iface, tapped.out ? CaptureDirection::OUT : CaptureDirection::IN,
                           medium == media.end() ? nullptr : medium->second, frame)) {
            std::fprintf(stderr, "gatecat: tap: cannot write %s\n", command_line.capture_path.c_str());
            status = EXIT_RUNTIME_FAILURE;
            break;
        }
    }
    std::fprintf(stderr, "gatecat: %u frame%s, %llu lost\n", frames, frames == 1 ? "" : "s",
                 static_cast<unsigned long long>(lost));
    if (timed_out && command_line.count != 0) {
        std::fprintf(stderr, "gatecat: tap: %u of %u frames before the timeout\n", frames, command_line.count);
        status = EXIT_RUNTIME_FAILURE;
    }
    return status;
}

}  // namespace gatecat
}  // namespace vostrelka
