#pragma once
// The receiving half of the forwarding benchmark's programs: probe frames
// (ProbeFrame.h) taken from a socket in batches, counted for loss, duplicates
// and reordering, and their one-way latencies kept for percentiles.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "ProbeFrame.h"
#include "vostrelka/net_device/SerialEncoder.h"

namespace probe {

constexpr size_t RECEIVE_BATCH_DATAGRAMS = 64;
constexpr size_t MAX_RECEIVED_DATAGRAM_SIZE = 4096;
constexpr uint64_t MAX_TRACKED_SEQUENCE = 200000000;
constexpr int RECEIVE_BUFFER_BYTES = 4 * 1024 * 1024;

class Tally {
public:
    explicit Tally(uint64_t expect) {
        seen.reserve(expect);
        latencies_ns.reserve(expect);
    }

    void on_probe(const uint8_t* payload, uint64_t size, int64_t receive_ns) {
        if (size < MIN_PAYLOAD_SIZE) return;
        const uint64_t sequence = get_u64(payload + SEQUENCE_OFFSET);
        const int64_t send_ns = static_cast<int64_t>(get_u64(payload + SEND_TIME_OFFSET));
        if (sequence >= MAX_TRACKED_SEQUENCE) return;
        ++received;
        if (slice_received++ == 0) slice_first_ns = receive_ns;
        last_ns = receive_ns;
        if (sequence >= seen.size()) seen.resize(sequence + 1, false);
        if (seen[sequence]) {
            ++duplicates;
            return;
        }
        seen[sequence] = true;
        ++unique;
        if (unique > 1 && sequence < highest) ++reordered;
        highest = std::max(highest, sequence);
        latencies_ns.push_back(receive_ns - send_ns);
    }

    // Traffic may come in slices with pauses between them; the delivered
    // rate counts only the time from each slice's first frame to its last.
    void end_slice() {
        if (slice_received > 1) {
            busy_ns += last_ns - slice_first_ns;
            busy_frames += slice_received - 1;
        }
        slice_received = 0;
    }

    // Frames/s over the slices' busy time (end_slice() first).
    double delivered_rate() const {
        return busy_ns > 0 ? static_cast<double>(busy_frames) * NS_PER_S / static_cast<double>(busy_ns) : 0;
    }

    // One line of key=value; loss is what was offered and never arrived.
    void print(uint64_t offered) {
        end_slice();
        const double rate = delivered_rate();
        std::sort(latencies_ns.begin(), latencies_ns.end());
        std::printf(
            "received=%llu unique=%llu lost=%llu reordered=%llu duplicates=%llu rate=%.1f p50_us=%.1f p99_us=%.1f "
            "p999_us=%.1f max_us=%.1f\n",
            static_cast<unsigned long long>(received), static_cast<unsigned long long>(unique),
            static_cast<unsigned long long>(offered - std::min(offered, unique)),
            static_cast<unsigned long long>(reordered), static_cast<unsigned long long>(duplicates), rate,
            percentile_us(0.5), percentile_us(0.99), percentile_us(0.999),
            latencies_ns.empty() ? 0.0 : static_cast<double>(latencies_ns.back()) / 1000.0);
    }

    uint64_t received = 0;
    uint64_t unique = 0;
    int64_t last_ns = 0;

private:
    // Nearest rank: the smallest sample with at least `fraction` of all samples at or below it.
    double percentile_us(double fraction) const {
        if (latencies_ns.empty()) return 0;
        size_t rank = static_cast<size_t>(fraction * static_cast<double>(latencies_ns.size()) + 0.999999);
        rank = std::clamp<size_t>(rank, 1, latencies_ns.size());
        return static_cast<double>(latencies_ns[rank - 1]) / 1000.0;
    }

    std::vector<bool> seen;
    std::vector<int64_t> latencies_ns;
    uint64_t duplicates = 0;
    uint64_t reordered = 0;
    uint64_t highest = 0;
    uint64_t slice_received = 0;
    int64_t slice_first_ns = 0;
    uint64_t busy_frames = 0;
    int64_t busy_ns = 0;
};

// Serial-framed datagrams go through the library's own decoder, state kept
// between datagrams as a device keeps it.
class SerialProbeDecoder : public vostrelka::net_device::SerialEncoderHandlerI {
public:
    explicit SerialProbeDecoder(Tally& tally_) : tally(tally_) {}

    void decode(const uint8_t* data, size_t size, int64_t receive_ns) {
        current_receive_ns = receive_ns;
        encoder.decode(vostrelka::ConstSlice<unsigned char>(data, size), stats);
    }
    void on_frame(const vostrelka::net_device::Frame& frame) override {
        tally.on_probe(frame.payload.data, frame.payload.size, current_receive_ns);
    }

private:
    Tally& tally;
    int64_t current_receive_ns = 0;
    uint8_t tx_storage[1]{};
    uint8_t rx_storage[MAX_RECEIVED_DATAGRAM_SIZE]{};
    vostrelka::Slice<unsigned char> tx{tx_storage, 0, sizeof(tx_storage)};
    vostrelka::Slice<unsigned char> rx{rx_storage, 0, sizeof(rx_storage)};
    vostrelka::net_device::SerialEncoder encoder{tx, rx, *this};
    vostrelka::net_device::SerialEncoderErrorStats stats;
};

// Takes probe datagrams of one format from a socket into a tally. Large:
// give it static storage.
class Receiver {
public:
    Receiver(int fd_, Format format_, Tally& tally_) : fd(fd_), format(format_), tally(tally_), serial(tally_) {
        for (size_t i = 0; i < RECEIVE_BATCH_DATAGRAMS; ++i) {
            vectors[i] = iovec{datagrams[i], MAX_RECEIVED_DATAGRAM_SIZE};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
    }

    // One recvmmsg with `flags`; every datagram it returns is stamped with the
    // time it returned. Returns what recvmmsg returned.
    int receive_batch(int flags) {
        const int count = recvmmsg(fd, messages, RECEIVE_BATCH_DATAGRAMS, flags, nullptr);
        const int64_t now = now_ns();
        for (int i = 0; i < count; ++i) {
            const uint8_t* data = datagrams[i];
            const size_t size = messages[i].msg_len;
            if (format == Format::UDPSERIAL) {
                serial.decode(data, size, now);
            } else if (size > UDP_HEADER_SIZE) {
                tally.on_probe(data + UDP_HEADER_SIZE, size - UDP_HEADER_SIZE, now);
            }
        }
        return count;
    }

private:
    int fd;
    Format format;
    Tally& tally;
    SerialProbeDecoder serial;
    mmsghdr messages[RECEIVE_BATCH_DATAGRAMS]{};
    iovec vectors[RECEIVE_BATCH_DATAGRAMS]{};
    uint8_t datagrams[RECEIVE_BATCH_DATAGRAMS][MAX_RECEIVED_DATAGRAM_SIZE]{};
};

// A UDP socket bound to `address` with a deep receive queue, so that the
// receiving end is not where frames are lost; -1 on failure.
inline int open_receive_socket(const sockaddr_in& address) {
    const int fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (fd < 0) return -1;
    const int size = RECEIVE_BUFFER_BYTES;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) < 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
    }
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace probe
