#pragma once
// The control socket: a UNIX stream socket on which local tools ask the
// running gateway for its counters and tables and watch its frames go by.
// It is one more entry of the main loop and never holds the loop up: every
// descriptor is non-blocking, each client's unsent output is bounded, the
// number of clients is capped, and nothing a client sends reaches routing
// or the tables; a malformed request gets an error line.
//
// One JSON object per line in, {"request":"stats"|"peers"|"tap"}; JSON
// lines out. After "tap" the client gets one line per frame received or
// sent on any interface; lines that do not fit its output are lost, and the
// count of them comes as {"lost":N} before the next line that fits.
//
// Memory: per client at most MAX_REQUEST_BYTES of request and
// MAX_PENDING_BYTES of output (one reply that is larger is still queued when
// nothing else waits, so that a big table always gets through).
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "vostrelka/EventLoopEntry.h"
#include "vostrelka/net_device/FrameTapI.h"
#include "vostrelka/net_device/NetDevice.h"

namespace vostrelka {

class ControlServer : public event_system::EventLoopEntry, public net_device::FrameTapI {
public:
    static constexpr size_t MAX_CLIENTS = 8;
    static constexpr size_t MAX_REQUEST_BYTES = 4096;
    static constexpr size_t MAX_PENDING_BYTES = 256 * 1024;

    // The JSON answer to a request other than "tap", or nothing when the
    // request is unknown.
    using Answer = std::function<std::optional<std::string>(const std::string& request)>;
    struct TappedDevice {
        net_device::NetDevice* device;
        uint32_t iface_id;
    };

    ControlServer(Answer answer, std::vector<TappedDevice> devices);
    ~ControlServer() override;
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Listens at `path`, a socket file of `mode`. A socket file nobody
    // listens on any more is replaced; a live one, or any other file, is
    // left alone. False with `error` telling why.
    bool open(const std::string& path, mode_t mode, std::string& error);

    // One entry for all the descriptors: on any event every client is tried,
    // which costs a few refused calls but needs nothing from the loop.
    bool is_fd_set(fd_set* set) override;
    void register_fd(fd_set* read_set, fd_set* write_set, fd_set* except_set) override;
    void on_event(uint8_t events) override;

    void on_tapped_frame(const net_device::NetDevice& device, const net_device::Frame& frame,
                         net_device::FrameDirection direction) override;

private:
    struct Client {
        int fd = -1;
        std::string request;    // the line so far
        bool skipping = false;  // inside a line that was too long
        std::string output;
        size_t output_sent = 0;
        bool tapping = false;
        uint64_t lost = 0;  // tap lines not yet reported as lost
    };

    void accept_clients();
    // False when the client is gone.
    bool read_requests(Client& client);
    bool handle_request(Client& client, const std::string& line);
    bool flush(Client& client);
    // Appends `text` when it fits the client's bound.
    bool queue(Client& client, const std::string& text, bool even_if_large = false);
    void close_client(size_t index);
    // Devices carry a tap only while some client taps.
    void update_taps();
    const std::string& tap_line(const net_device::NetDevice& device, const net_device::Frame& frame,
                                net_device::FrameDirection direction);

    Answer answer;
    std::vector<TappedDevice> devices;
    std::vector<Client> clients;
    std::string path;
    int listen_fd = -1;
    bool tapped = false;
    std::string line;  // one tap line, built once for every tapping client
};

}  // namespace vostrelka
