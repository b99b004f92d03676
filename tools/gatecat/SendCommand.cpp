#include "gatecat/SendCommand.h"

#include <memory>
#include <string>
#include <vector>

#include "gatecat/DeviceLoop.h"
#include "gatecat/FrameSyntax.h"
#include "gatecat/InterfaceOpener.h"
#include "vostrelka/Time.h"

namespace vostrelka {
namespace gatecat {

namespace {

// How long a stream device (serial, CAN) may take to put its queue on the line.
constexpr int64_t DRAIN_TIMEOUT_US = 5000000;

class FrameSender {
public:
    FrameSender(net_device::NetDevice& device, const std::string& iface) : device(device), loop(device), iface(iface) {}

    // Sends one frame and waits until the device has written it. A device
    // whose queue is full gets one drain and one more try.
    bool send(const TextFrame& frame, size_t number) {
        const net_device::Frame view = frame.view();
        if (device.send_raw(view) != 0 && !(drain() && device.send_raw(view) == 0)) {
            std::fprintf(stderr, "gatecat: send: %s refused frame %zu (%s)\n", iface.c_str(), number,
                         format_frame(view).c_str());
            return false;
        }
        if (!drain()) {
            std::fprintf(stderr, "gatecat: send: %s did not write frame %zu within %d s\n", iface.c_str(), number,
                         static_cast<int>(DRAIN_TIMEOUT_US / 1000000));
            return false;
        }
        return true;
    }

private:
    bool drain() {
        const int64_t deadline_us = time_us() + DRAIN_TIMEOUT_US;
        while (loop.wants_to_write()) {
            const int64_t left_us = deadline_us - time_us();
            if (left_us <= 0 || !loop.run_once(left_us)) return false;
        }
        return true;
    }

    net_device::NetDevice& device;
    DeviceLoop loop;
    const std::string& iface;
};

int send_from_arguments(FrameSender& sender, const std::vector<TextFrame>& frames) {
    for (size_t i = 0; i < frames.size(); i++) {
        if (!sender.send(frames[i], i + 1)) return EXIT_RUNTIME_FAILURE;
    }
    return EXIT_OK;
}

int send_from_stream(FrameSender& sender, FILE* in) {
    std::string line;
    size_t line_number = 0;
    size_t sent = 0;
    TextFrame frame;
    std::string error;
    for (;;) {
        line.clear();
        int c;
        while ((c = std::fgetc(in)) != EOF && c != '\n') line += static_cast<char>(c);
        if (c == EOF && line.empty()) break;
        line_number++;
        const std::string_view field = frame_field_of_line(line);
        if (field.empty()) continue;
        if (!parse_frame(field, frame, error)) {
            std::fprintf(stderr, "gatecat: send: line %zu: %s\n", line_number, error.c_str());
            return EXIT_USAGE;
        }
        if (!sender.send(frame, ++sent)) return EXIT_RUNTIME_FAILURE;
    }
    return EXIT_OK;
}

}  // namespace

int run_send(const CommandLine& command_line, FILE* in) {
    InterfaceOpener opener;
    std::string error;
    if (!opener.check(command_line.iface, true, error)) {
        std::fprintf(stderr, "gatecat: send: %s\n", error.c_str());
        return EXIT_USAGE;
    }
    std::vector<TextFrame> frames(command_line.frames.size());
    for (size_t i = 0; i < frames.size(); i++) {
        if (!parse_frame(command_line.frames[i], frames[i], error)) {
            std::fprintf(stderr, "gatecat: send: bad frame '%s': %s\n", command_line.frames[i].c_str(), error.c_str());
            return EXIT_USAGE;
        }
    }
    std::unique_ptr<net_device::NetDevice> device = opener.open(command_line.iface);
    if (!device) {
        std::fprintf(stderr, "gatecat: send: cannot open %s\n", command_line.iface.c_str());
        return EXIT_RUNTIME_FAILURE;
    }
    FrameSender sender(*device, command_line.iface);
    return frames.empty() ? send_from_stream(sender, in) : send_from_arguments(sender, frames);
}

}  // namespace gatecat
}  // namespace vostrelka
