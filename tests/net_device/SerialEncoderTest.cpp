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

}  // namespace

// The table-driven CRC against the polynomial applied bit by bit.
TEST(SerialEncoder, CrcIsTheBitwiseCrcForEveryLength) {
    EXPECT_EQ(xcrc32(reinterpret_cast<const unsigned char*>("123456789"), 9, 0xFFFFFFFF), 0x0376E6E7u);
    Bytes data;
    for (size_t length = 0; length <= 40; data.push_back(uint8_t(length++ * 37 + 11))) {
        uint32_t crc = 0x1234ABCD;
        for (uint8_t byte : data) {
            crc ^= uint32_t(byte) << 24;
            for (int bit = 0; bit < 8; ++bit) crc = crc & 0x80000000u ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
        }
        EXPECT_EQ(xcrc32(data.data(), data.size(), 0x1234ABCD), crc) << length;
    }
}

// Both special bytes at every place in payloads around a word long, encoded
// again into a buffer of exactly the size they took, then decoded back.
TEST(SerialEncoder, RoundTripsWhereverEscapesFall) {
    for (size_t length : {1, 7, 8, 9, 17}) {
        for (size_t at = 0; at < 2 * length; ++at) {
            RecordedFrame frame{0x55, 2, 0x42, Bytes(length)};
            for (size_t i = 0; i < length; ++i) frame.payload[i] = uint8_t(i + 1);
            frame.payload[at % length] = at < length ? 0x42 : 0x55;
            frame.payload[(at * 5 + 3) % length] = at < length ? 0x55 : 0x42;
            const Bytes wire = test_support::to_serial_bytes(frame);
            Codec codec(wire.size());
            EXPECT_EQ(codec.codec.encode(make_frame(0x55, 2, 0x42, frame.payload), codec.stats), wire.size());
            EXPECT_EQ(Bytes(codec.tx.begin(), codec.tx.end()), wire) << length << " " << at;
            EXPECT_EQ(codec.decode(wire), 1u);
            EXPECT_EQ(codec.frames, std::vector<RecordedFrame>{frame}) << length << " " << at;
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
