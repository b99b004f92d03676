#pragma once
// The sending half of the forwarding benchmark's programs: probe datagrams
// (ProbeFrame.h) built in place and sent in batches with sendmmsg.
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "ProbeFrame.h"
#include "vostrelka/net_device/SerialEncoder.h"

namespace probe {

constexpr size_t MAX_SENT_DATAGRAM_SIZE = 2 * MAX_PAYLOAD_SIZE + 16;
constexpr size_t SEND_BATCH_FRAMES = 64;

// What every probe frame carries around its payload.
struct FrameHeader {
    Format format = Format::UDP;
    uint8_t proto_id = 7;
    uint8_t src = 0x01;
    uint8_t dst = 0x02;
};

// Builds datagrams in place; the payload template is filled once and only
// the sequence number and the send time change per frame.
class DatagramWriter {
public:
    DatagramWriter(const FrameHeader& header_, size_t payload_size) : header(header_), payload(payload_size) {
        for (size_t i = MIN_PAYLOAD_SIZE; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
    }

    // Writes frame `sequence` into `out` (MAX_SENT_DATAGRAM_SIZE bytes); returns its length.
    size_t write(uint8_t* out, uint64_t sequence, int64_t send_time_ns) {
        put_u64(payload.data() + SEQUENCE_OFFSET, sequence);
        put_u64(payload.data() + SEND_TIME_OFFSET, static_cast<uint64_t>(send_time_ns));
        if (header.format == Format::UDP) {
            out[0] = header.proto_id;
            out[1] = header.src;
            out[2] = header.dst;
            std::memcpy(out + UDP_HEADER_SIZE, payload.data(), payload.size());
            return UDP_HEADER_SIZE + payload.size();
        }
        vostrelka::net_device::Frame frame;
        frame.proto_id = header.proto_id;
        frame.src = header.src;
        frame.dst = header.dst;
        frame.payload = vostrelka::ConstSlice<unsigned char>(payload.data(), payload.size());
        vostrelka::Slice<unsigned char> tx(out, 0, MAX_SENT_DATAGRAM_SIZE);
        vostrelka::Slice<unsigned char> unused_rx;
        vostrelka::net_device::SerialEncoder encoder(tx, unused_rx, no_frames);
        return encoder.encode(frame, stats);
    }

private:
    struct NoFrames : vostrelka::net_device::SerialEncoderHandlerI {
        void on_frame(const vostrelka::net_device::Frame&) override {}
    };
    FrameHeader header;
    std::vector<uint8_t> payload;
    NoFrames no_frames;
    vostrelka::net_device::SerialEncoderErrorStats stats;
};

// Numbers frames from 0 and sends them to one address; every frame of a
// batch is stamped with the time just before the batch goes out. Large:
// give it static storage.
class Sender {
public:
    Sender(int fd_, const sockaddr_in& to_, const FrameHeader& header, size_t payload_size)
        : fd(fd_), to(to_), writer(header, payload_size) {
        for (size_t i = 0; i < SEND_BATCH_FRAMES; ++i) {
            messages[i].msg_hdr.msg_name = &to;
            messages[i].msg_hdr.msg_namelen = sizeof(to);
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            vectors[i].iov_base = datagrams[i];
        }
    }

    // Sends the next `count` (at most SEND_BATCH_FRAMES) frames; false on a send error.
    bool send_batch(size_t count) {
        count = std::min(count, SEND_BATCH_FRAMES);
        const int64_t now = now_ns();
        for (size_t i = 0; i < count; ++i) vectors[i].iov_len = writer.write(datagrams[i], next_sequence + i, now);
        size_t done = 0;
        while (done < count) {
            const int sent = sendmmsg(fd, messages + done, static_cast<unsigned>(count - done), 0);
            if (sent < 0) {
                if (errno == EINTR || errno == ENOBUFS || errno == EAGAIN) continue;
                std::perror("sendmmsg");
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        next_sequence += count;
        return true;
    }

    uint64_t sent() const { return next_sequence; }

private:
    int fd;
    sockaddr_in to;
    DatagramWriter writer;
    uint64_t next_sequence = 0;
    mmsghdr messages[SEND_BATCH_FRAMES]{};
    iovec vectors[SEND_BATCH_FRAMES]{};
    uint8_t datagrams[SEND_BATCH_FRAMES][MAX_SENT_DATAGRAM_SIZE]{};
};

// Frames due by `elapsed_ns` after the start when `total` are spread evenly at `rate` frames/s.
inline uint64_t frames_due(int64_t elapsed_ns, double rate, uint64_t total) {
    const uint64_t due = static_cast<uint64_t>(static_cast<double>(elapsed_ns) * rate / NS_PER_S) + 1;
    return std::min(due, total);
}

}  // namespace probe
