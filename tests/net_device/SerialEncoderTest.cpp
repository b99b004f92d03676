#include <gtest/gtest.h>

#include <array>
#include <tuple>

#include "support/frame_recorder.h"
#include "vostrelka/net_device/XCRC32.h"

using namespace vostrelka::net_device;
using test_support::Bytes;
using test_support::make_frame;
using test_support::RecordedFrame;
using Counts = std::array<uint32_t, 5>;  // encode, overflow, crc, short, escape

namespace {

// A codec with a 2048-byte receive buffer that records what it decodes.
struct Codec : SerialEncoderHandlerI {
    explicit Codec(size_t tx_capacity = 8192) : tx{tx_storage, 0, tx_capacity} {}
    void on_frame(const Frame& f) override {
        frames.push_back({f.proto_id, f.src, f.dst, {f.payload.begin(), f.payload.end()}});
    }
    uint64_t decode(const Bytes& bytes) { return codec.decode({bytes.data(), bytes.size()}, stats); }
    Counts counts() const {
        return {stats.encode_errors, stats.rx_overflows, stats.crc_errors, stats.short_messages, stats.escape_errors};
    }
    uint8_t tx_storage[8192] = {}, rx_storage[2048] = {};
    vostrelka::Slice<unsigned char> tx, rx{rx_storage, 0, sizeof(rx_storage)};
    SerialEncoder codec{tx, rx, *this};
    SerialEncoderErrorStats stats;
    std::vector<RecordedFrame> frames;
};

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// proto 8, 1 -> 2, payload 3E 42 55: its CRC (0xB4427D73) holds a 0x42 too.
const Bytes SMALL_WIRE = {0x42, 0x73, 0x7D, 0x55, 0xBD, 0xB4, 0x08, 0x01, 0x02, 0x3E, 0x55, 0xBD, 0x55, 0xAA, 0x42};
const RecordedFrame SMALL = {8, 1, 2, {0x3E, 0x42, 0x55}};
const Bytes EMPTY_WIRE = {0x42, 0x51, 0x69, 0x0D, 0x1B, 0x01, 0x02, 0x03, 0x42};  // proto 1, 2 -> 3

uint32_t crc_byte_at_a_time(uint32_t crc, const Bytes& bytes) {
    for (uint8_t byte : bytes) crc = (crc << 8) ^ crc32_table[(crc >> 24) ^ byte];
    return crc;
}

// The framing as written down, one byte at a time.
Bytes wire_of(const RecordedFrame& frame) {
    Bytes body = concat({{frame.proto_id, frame.src, frame.dst}, frame.payload});
    const uint32_t crc = crc_byte_at_a_time(0xFFFFFFFF, body);
    body = concat({{uint8_t(crc), uint8_t(crc >> 8), uint8_t(crc >> 16), uint8_t(crc >> 24)}, body});
    Bytes wire = {0x42};
    for (uint8_t byte : body) {
        if (byte == 0x42 || byte == 0x55) wire.push_back(0x55);
        wire.push_back(byte == 0x42 || byte == 0x55 ? uint8_t(~byte) : byte);
    }
    wire.push_back(0x42);
    return wire;
}

}  // namespace

TEST(SerialEncoder, CrcIsTheByteAtATimeCrcForEveryLength) {
    const char* digits = "123456789";
    EXPECT_EQ(xcrc32(reinterpret_cast<const unsigned char*>(digits), 9, 0xFFFFFFFF), 0x0376E6E7u);
    Bytes data;
    for (size_t length = 0; length <= 40; ++length) {
        EXPECT_EQ(xcrc32(data.data(), data.size(), 0x1234ABCD), crc_byte_at_a_time(0x1234ABCD, data)) << length;
        data.push_back(uint8_t(length * 37 + 11));
    }
}

// Special bytes at every place in a word of the payload, alone and in pairs,
// around runs of plain bytes of every length; and the same frames encoded into
// a buffer of exactly their size, which leaves no room for the worst case.
TEST(SerialEncoder, EncodesAsTheDefinitionSaysWhereverEscapesFall) {
    for (size_t length : {1, 7, 8, 9, 16, 17, 33}) {
        for (size_t at = 0; at < length; ++at) {
            for (uint8_t special : {0x42, 0x55}) {
                RecordedFrame frame{0x55, 2, 0x42, Bytes(length)};
                for (size_t i = 0; i < length; ++i) frame.payload[i] = uint8_t(i + 1);
                frame.payload[at] = special;
                frame.payload[(at * 5 + 3) % length] = uint8_t(special ^ 0x17);  // the other special byte
                const Bytes wire = wire_of(frame);
                for (size_t tx_capacity : {size_t{8192}, wire.size()}) {
                    Codec codec(tx_capacity);
                    EXPECT_EQ(codec.codec.encode(make_frame(frame.proto_id, frame.src, frame.dst, frame.payload),
                                                 codec.stats),
                              wire.size());
                    EXPECT_EQ(Bytes(codec.tx.begin(), codec.tx.end()), wire) << length << " " << at;
                    EXPECT_EQ(codec.decode(wire), 1u);
                    EXPECT_EQ(codec.frames, std::vector<RecordedFrame>{frame}) << length << " " << at;
                }
            }
        }
    }
}

TEST(SerialEncoder, EncodesExactBytesAndDecodesAStreamFedByteByByte) {
    Codec codec;
    EXPECT_EQ(codec.codec.encode(make_frame(8, 1, 2, SMALL.payload), codec.stats), SMALL_WIRE.size());
    EXPECT_EQ(codec.codec.encode(make_frame(1, 2, 3, {}), codec.stats), EMPTY_WIRE.size());
    EXPECT_EQ(Bytes(codec.tx.begin(), codec.tx.end()), concat({SMALL_WIRE, EMPTY_WIRE}));

    uint64_t delivered = 0;
    for (uint8_t byte : concat({{0x00, 0x13, 0x55, 0xAA}, SMALL_WIRE, EMPTY_WIRE, SMALL_WIRE}))
        delivered += codec.decode({byte});
    EXPECT_EQ(delivered, 3u);
    EXPECT_EQ(codec.frames, (std::vector<RecordedFrame>{SMALL, {1, 2, 3, {}}, SMALL}));
    EXPECT_EQ(codec.counts(), Counts{});
}

TEST(SerialEncoder, BadInputCountsItsErrorAndRecovers) {
    Bytes bad_crc = SMALL_WIRE, bad_body = SMALL_WIRE;
    bad_crc[1] ^= 0x01;
    bad_body[9] ^= 0x80;
    const Bytes body_only(SMALL_WIRE.begin() + 1, SMALL_WIRE.end());  // no start delimiter
    // Input, counters after it, frames decoded, whether a frame is open at the end.
    const std::tuple<Bytes, Counts, size_t, bool> cases[] = {
        {{0x42, 0x42}, {0, 0, 0, 1, 0}, 0, true},
        {{0x42, 1, 2, 3, 4, 5, 6, 0x42}, {0, 0, 0, 1, 0}, 0, true},
        {bad_body, {0, 0, 1, 0, 0}, 0, true},
        {concat({bad_crc, body_only}), {0, 0, 1, 0, 0}, 1, false},  // a bad message's end opens the next
        {{0x42, 1, 2, 0x55, 0x00}, {0, 0, 0, 0, 1}, 0, false},
        {concat({{0x42, 1, 0x55, 0x13}, body_only}), {0, 0, 0, 0, 1}, 0, true},
        {concat({{0x42, 1, 0x55, 0x42}, body_only}), {0, 0, 0, 0, 1}, 1, false},  // escaped delimiter starts a frame
    };
    for (const auto& [input, counts, frames, in_frame] : cases) {
        Codec codec;
        codec.decode(input);
        EXPECT_EQ(std::make_tuple(codec.counts(), codec.frames, codec.codec.in_frame),
                  std::make_tuple(counts, std::vector<RecordedFrame>(frames, SMALL), in_frame))
            << testing::PrintToString(input);
    }
}

// Room for all but the end delimiter, or all but half an escaped pair: the
// frame is refused whole and bytes queued before it stay as they were.
TEST(SerialEncoder, FailedEncodeLeavesQueuedBytesUntouched) {
    for (size_t room : {SMALL_WIRE.size() - 1, SMALL_WIRE.size() - 2}) {
        Codec codec(3 + room);
        codec.tx.size = 3;
        codec.tx_storage[0] = 0xA0;
        EXPECT_EQ(codec.codec.encode(make_frame(8, 1, 2, SMALL.payload), codec.stats), 0u);
        EXPECT_EQ(codec.stats.encode_errors, 1u);
        EXPECT_EQ(Bytes(codec.tx.begin(), codec.tx.end()), (Bytes{0xA0, 0, 0})) << room;
    }
}

// A message as long as the receive buffer is lost: its closing delimiter finds the
// buffer full and is taken as a start, so the next frame's start closes an empty message.
TEST(SerialEncoder, LargestMessageIsOneByteUnderReceiveCapacity) {
    Codec receiver;
    const Bytes fits = test_support::to_serial_bytes({1, 2, 3, Bytes(2040, 0x42)});
    EXPECT_EQ(receiver.decode(concat({fits, test_support::to_serial_bytes({1, 2, 3, Bytes(2041, 0x42)}), SMALL_WIRE})),
              2u);
    EXPECT_EQ(receiver.frames, (std::vector<RecordedFrame>{{1, 2, 3, Bytes(2040, 0x42)}, SMALL}));
    EXPECT_EQ(receiver.counts(), (Counts{0, 1, 0, 1, 0}));
}
