#include "vostrelka/net_device/SerialEncoder.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "vostrelka/net_device/XCRC32.h"

namespace vostrelka {
namespace net_device {

namespace {

constexpr uint32_t CRC_INIT = 0xFFFFFFFF;
constexpr uint64_t CRC_SIZE = 4;
constexpr uint64_t HEADER_SIZE = 3;
// CRC, proto_id, src, dst: anything shorter cannot be a message.
constexpr uint64_t MIN_MESSAGE_SIZE = CRC_SIZE + HEADER_SIZE;
constexpr uint8_t ESCAPED_DELIMITER = 0xBD;  // ~0x42
constexpr uint8_t ESCAPED_ESCAPE = 0xAA;     // ~0x55

bool needs_escape(uint8_t byte) {
    return byte == SerialEncoder::DELIMITER || byte == SerialEncoder::ESCAPE;
}

// The CRC runs over the header, then chains on over the payload. The three
// header bytes are folded in here, a table step each, which is cheaper than
// a call for them.
uint32_t frame_crc(const uint8_t* header, const uint8_t* payload, uint64_t payload_size) {
    uint32_t crc = CRC_INIT;
    for (uint64_t i = 0; i < HEADER_SIZE; ++i) crc = (crc << 8) ^ crc32_table[(crc >> 24) ^ header[i]];
    return xcrc32(payload, payload_size, crc);
}

// Plain bytes are most of any message, so they are scanned a word at a
// time. The word is read little-endian on every machine: stream byte k is
// bits 8k to 8k + 7, and the lowest marked byte is the first in the stream.
constexpr uint64_t WORD_BYTES = 8;
constexpr uint64_t EVERY_BYTE = 0x0101010101010101;
constexpr uint64_t HIGH_BITS = 0x8080808080808080;

uint64_t load_le64(const uint8_t* in) {
    return static_cast<uint64_t>(in[0]) | static_cast<uint64_t>(in[1]) << 8 | static_cast<uint64_t>(in[2]) << 16 |
           static_cast<uint64_t>(in[3]) << 24 | static_cast<uint64_t>(in[4]) << 32 |
           static_cast<uint64_t>(in[5]) << 40 | static_cast<uint64_t>(in[6]) << 48 | static_cast<uint64_t>(in[7]) << 56;
}

// The high bit of every zero byte of `word` is set. Bytes above the first
// zero byte may be marked wrongly; the lowest mark is always right.
uint64_t zero_bytes(uint64_t word) {
    return (word - EVERY_BYTE) & ~word & HIGH_BITS;
}

// Marks the bytes that need escaping, the lowest mark exactly.
uint64_t special_bytes(uint64_t word) {
    return zero_bytes(word ^ (EVERY_BYTE * SerialEncoder::DELIMITER)) |
           zero_bytes(word ^ (EVERY_BYTE * SerialEncoder::ESCAPE));
}

// Copies the bytes of `in` up to the first one that needs escaping, at most
// `max`, and returns how many it copied. Whole words are copied while `max`
// allows, so `out` may get up to seven more bytes past the run: the caller
// has room for `max` bytes there and writes over them or ignores them.
uint64_t copy_plain_run(uint8_t* out, const uint8_t* in, uint64_t max) {
    uint64_t n = 0;
    for (; n + WORD_BYTES <= max; n += WORD_BYTES) {
        std::memcpy(out + n, in + n, WORD_BYTES);
        const uint64_t special = special_bytes(load_le64(in + n));
        if (special != 0) return n + static_cast<uint64_t>(__builtin_ctzll(special)) / 8;
    }
    for (; n < max && !needs_escape(in[n]); ++n) out[n] = in[n];
    return n;
}

// Writes one byte, escaped if it must be, at `out` and returns the end of
// what it wrote. No check: the caller has room for two bytes.
uint8_t* put_escaped_unchecked(uint8_t* out, uint8_t byte) {
    if (needs_escape(byte)) {
        *out++ = SerialEncoder::ESCAPE;
        byte = static_cast<uint8_t>(~byte);
    }
    *out++ = byte;
    return out;
}

// Writes `len` bytes escaped at `out` and returns the end of what it wrote.
// No checks: the caller has room for every byte escaped.
uint8_t* put_escaped_unchecked(uint8_t* out, const uint8_t* in, uint64_t len) {
    for (uint64_t i = 0; i < len;) {
        const uint64_t run = copy_plain_run(out, in + i, len - i);
        out += run;
        i += run;
        if (i < len) out = put_escaped_unchecked(out, in[i++]);
    }
    return out;
}

// Appends one byte, escaped if it must be. An escaped pair is never split:
// false, with nothing appended, when the room is short.
bool put_escaped(Slice<unsigned char>& buffer, uint8_t byte) {
    if (!needs_escape(byte)) return buffer.push_back(byte);
    if (buffer.room() < 2) return false;
    buffer.data[buffer.size++] = SerialEncoder::ESCAPE;
    buffer.data[buffer.size++] = static_cast<uint8_t>(~byte);
    return true;
}

}  // namespace

SerialEncoder::SerialEncoder(Slice<unsigned char>& tx_buffer_, Slice<unsigned char>& rx_buffer_,
                             SerialEncoderHandlerI& handler_)
    : tx_buffer(tx_buffer_), rx_buffer(rx_buffer_), handler(handler_) {}

// Appends one whole frame to the transmit buffer and returns its encoded
// length, or 0 when it does not fit: then the buffer is left exactly as it
// was (earlier queued frames included) and encode_errors counts the loss.
uint64_t SerialEncoder::encode(const Frame& frame, SerialEncoderErrorStats& stats) {
    const uint64_t start_size = tx_buffer.size;
    const uint8_t header[HEADER_SIZE] = {frame.proto_id, frame.src, frame.dst};
    const uint32_t crc = frame_crc(header, frame.payload.data, frame.payload.size);
    const uint8_t crc_le[CRC_SIZE] = {static_cast<uint8_t>(crc), static_cast<uint8_t>(crc >> 8),
                                      static_cast<uint8_t>(crc >> 16), static_cast<uint8_t>(crc >> 24)};

    // With room for the worst case, both delimiters and every other byte
    // escaped, nothing can fail on the way: no check per byte.
    if (frame.payload.size <= UINT32_MAX && tx_buffer.room() / 2 >= 1 + MIN_MESSAGE_SIZE + frame.payload.size) {
        uint8_t* out = tx_buffer.data + tx_buffer.size;
        *out++ = DELIMITER;
        for (uint8_t byte : crc_le) out = put_escaped_unchecked(out, byte);
        for (uint8_t byte : header) out = put_escaped_unchecked(out, byte);
        out = put_escaped_unchecked(out, frame.payload.data, frame.payload.size);
        *out++ = DELIMITER;
        tx_buffer.size = static_cast<uint64_t>(out - tx_buffer.data);
        return tx_buffer.size - start_size;
    }

    // Short of room: byte by byte, stopping where the room runs out.
    bool ok = tx_buffer.push_back(DELIMITER);
    for (uint64_t i = 0; ok && i < CRC_SIZE; ++i) ok = put_escaped(tx_buffer, crc_le[i]);
    for (uint64_t i = 0; ok && i < HEADER_SIZE; ++i) ok = put_escaped(tx_buffer, header[i]);
    // The payload length is 32-bit on this path; anything longer cannot fit any real buffer.
    ok = ok && frame.payload.size <= UINT32_MAX &&
         encode_buffer(frame.payload.data, static_cast<unsigned int>(frame.payload.size)) == frame.payload.size;
    ok = ok && tx_buffer.push_back(DELIMITER);

    if (!ok) {
        tx_buffer.size = start_size;
        ++stats.encode_errors;
        return 0;
    }
    return tx_buffer.size - start_size;
}

// Appends `len` bytes with escaping and returns how many input bytes went in
// whole; it stops at the first byte (or escaped pair) that does not fit.
uint64_t SerialEncoder::encode_buffer(const unsigned char* data, unsigned int len) {
    if (tx_buffer.room() / 2 >= len) {
        // Room even if every byte is escaped: no checks per byte.
        const uint8_t* end = put_escaped_unchecked(tx_buffer.data + tx_buffer.size, data, len);
        tx_buffer.size = static_cast<uint64_t>(end - tx_buffer.data);
        return len;
    }
    for (unsigned int i = 0; i < len; ++i) {
        if (!put_escaped(tx_buffer, data[i])) return i;
    }
    return len;
}

// Consumes every byte of `data` and returns the number of frames handed to
// the handler during this call. States, kept across calls:
//   idle          (!in_frame)           0x42 -> collecting; anything else ignored
//   collecting    (in_frame, !escaped)  0x55 -> after-escape; 0x42 closes the
//                                       message: idle if it was good, collecting
//                                       afresh if it was bad; other bytes collected
//   after-escape  (in_frame, escaped)   0xBD/0xAA -> collecting with 0x42/0x55;
//                                       else escape error, buffer emptied, and
//                                       collecting if the byte was 0x42, else idle
// A byte that finds the receive buffer full drops the message (rx_overflows)
// whatever the state, and leaves `escaped` as it is; a 0x42 there opens a new one.
uint64_t SerialEncoder::decode(const ConstSlice<unsigned char>& data, SerialEncoderErrorStats& stats) {
    decoded = 0;
    for (uint64_t i = 0; i < data.size; ++i) {
        const uint8_t byte = data.data[i];
        if (rx_buffer.full()) {
            rx_buffer.clear();
            ++stats.rx_overflows;
            in_frame = byte == DELIMITER;
        } else if (!in_frame) {
            in_frame = byte == DELIMITER;
        } else if (escaped) {
            escaped = false;
            if (byte == ESCAPED_DELIMITER || byte == ESCAPED_ESCAPE) {
                rx_buffer.push_back(static_cast<uint8_t>(~byte));
            } else {
                rx_buffer.clear();
                in_frame = byte == DELIMITER;
                ++stats.escape_errors;
            }
        } else if (byte == ESCAPE) {
            escaped = true;
        } else if (byte == DELIMITER) {
            in_frame = !handle_message(stats);
            rx_buffer.clear();
        } else {
            // Collecting a plain byte: take the whole run of plain bytes that
            // starts here, as far as the room goes, in one go. Byte by byte
            // this is most of the work of decoding; the byte that ends the
            // run goes through the states above as usual.
            const uint64_t run = copy_plain_run(rx_buffer.data + rx_buffer.size, data.data + i,
                                                std::min(data.size - i, rx_buffer.room()));
            rx_buffer.size += run;
            i += run - 1;
        }
    }
    return decoded;
}

// Checks the collected message and, when its length and CRC are right, hands
// it over with the payload viewing the receive buffer. True when delivered.
bool SerialEncoder::handle_message(SerialEncoderErrorStats& stats) {
    const uint64_t size = rx_buffer.size;
    if (size < MIN_MESSAGE_SIZE) {
        ++stats.short_messages;
        return false;
    }
    const uint8_t* bytes = rx_buffer.data;
    const uint32_t stored_crc = static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
                                static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
    const uint8_t* header = bytes + CRC_SIZE;
    const uint8_t* payload = header + HEADER_SIZE;
    const uint64_t payload_size = size - MIN_MESSAGE_SIZE;
    // Header and payload lie together here: one pass gives the chained CRC.
    if (xcrc32(header, HEADER_SIZE + payload_size, CRC_INIT) != stored_crc) {
        ++stats.crc_errors;
        return false;
    }

    Frame frame;
    frame.proto_id = header[0];
    frame.src = header[1];
    frame.dst = header[2];
    frame.payload = ConstSlice<unsigned char>(payload, payload_size);
    handler.on_frame(frame);
    ++decoded;
    return true;
}

}  // namespace net_device
}  // namespace vostrelka
