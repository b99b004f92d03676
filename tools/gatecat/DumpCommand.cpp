#include "gatecat/DumpCommand.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "gatecat/DeviceCounters.h"
#include "gatecat/DeviceLoop.h"
#include "gatecat/FrameLine.h"
#include "gatecat/InterfaceOpener.h"
#include "gatecat/PcapWriter.h"
#include "gatecat/StopSignals.h"
#include "vostrelka/Time.h"
#include "vostrelka/net_device/NetDeviceMessageHandlerI.h"

namespace vostrelka {
namespace gatecat {

namespace {

// Without --timeout the loop still wakes this often, for device timers.
constexpr int64_t IDLE_WAIT_US = 1000000;

class FramePrinter : public net_device::NetDeviceMessageHandlerI {
public:
    FramePrinter(FILE* out, bool decode, uint32_t limit, PcapWriter* capture, const net_device::TransportKind* kind)
        : out(out), decode(decode), limit(limit), capture(capture), kind(kind) {}

    void on_frame(net_device::NetDevice&, const net_device::Frame& frame) override {
        // A read may bring more frames than are still wanted.
        if (done()) return;
        const int64_t now_us = time_utc_us();
        if (out != nullptr) {
            std::fprintf(out, "%s\n", frame_line(now_us, "", frame, decode).c_str());
            std::fflush(out);
        }
        if (capture != nullptr && !capture->write(now_us, 0, CaptureDirection::IN, kind, frame)) capture_failed = true;
        printed++;
    }

    bool done() const { return capture_failed || (limit != 0 && printed >= limit); }
    bool failed() const { return capture_failed; }
    uint32_t frames() const { return printed; }

private:
    FILE* out;
    bool decode;
    uint32_t limit;
    PcapWriter* capture;
    const net_device::TransportKind* kind;
    uint32_t printed = 0;
    bool capture_failed = false;
};

}  // namespace

int run_dump(const CommandLine& command_line, FILE* out) {
    InterfaceOpener opener;
    std::string error;
    if (!opener.check(command_line.iface, false, error)) {
        std::fprintf(stderr, "gatecat: dump: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    StopSignals stop;
    if (!stop.install()) {
        std::fprintf(stderr, "gatecat: dump: cannot install signal handlers\n");
        return EXIT_RUNTIME_FAILURE;
    }
    std::unique_ptr<net_device::NetDevice> device = opener.open(command_line.iface);
    if (!device) {
        std::fprintf(stderr, "gatecat: dump: cannot open %s\n", command_line.iface.c_str());
        return EXIT_RUNTIME_FAILURE;
    }
    PcapWriter capture;
    if (!command_line.capture_path.empty() && !capture.open(command_line.capture_path, out)) {
        std::fprintf(stderr, "gatecat: dump: cannot write %s: %s\n", command_line.capture_path.c_str(),
                     std::strerror(errno));
        return EXIT_RUNTIME_FAILURE;
    }
    // A capture on standard output has it to itself: no frame lines.
    FramePrinter printer(PcapWriter::is_stdout(command_line.capture_path) ? nullptr : out, command_line.decode,
                         command_line.count, command_line.capture_path.empty() ? nullptr : &capture,
                         net_device::NetDeviceFactory::kind_of(command_line.iface));
    device->set_handler(&printer);
    std::fprintf(stderr, "gatecat: listening on %s\n", command_line.iface.c_str());

    DeviceLoop loop(*device, stop.wait_mask());
    const int64_t deadline_us = command_line.timeout_us > 0 ? time_us() + command_line.timeout_us : 0;
    bool timed_out = false;
    int status = EXIT_OK;
    while (!printer.done() && !stop.requested()) {
        int64_t wait_us = IDLE_WAIT_US;
        if (deadline_us != 0) {
            const int64_t left_us = deadline_us - time_us();
            if (left_us <= 0) {
                timed_out = true;
                break;
            }
            if (left_us < wait_us) wait_us = left_us;
        }
        if (!loop.run_once(wait_us)) {
            std::fprintf(stderr, "gatecat: dump: waiting for %s failed\n", command_line.iface.c_str());
            status = EXIT_RUNTIME_FAILURE;
            break;
        }
        if (opener.serial_line_lost()) {
            std::fprintf(stderr, "gatecat: dump: %s disconnected\n", command_line.iface.c_str());
            status = EXIT_RUNTIME_FAILURE;
            break;
        }
    }
    device->set_handler(nullptr);
    if (printer.failed()) {
        std::fprintf(stderr, "gatecat: dump: cannot write %s\n", command_line.capture_path.c_str());
        status = EXIT_RUNTIME_FAILURE;
    }

    const std::string counters = codec_error_counters(*device);
    std::fprintf(stderr, "gatecat: %u frame%s%s%s\n", printer.frames(), printer.frames() == 1 ? "" : "s",
                 counters.empty() ? "" : "; ", counters.c_str());
    if (timed_out && command_line.count != 0) {
        std::fprintf(stderr, "gatecat: dump: %u of %u frames before the timeout\n", printer.frames(),
                     command_line.count);
        status = EXIT_RUNTIME_FAILURE;
    }
    return status;
}

}  // namespace gatecat
}  // namespace vostrelka
