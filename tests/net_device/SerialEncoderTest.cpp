#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "vostrelka/net_device/SerialEncoder.h"
#include "vostrelka/net_device/XCRC32.h"

using vostrelka::ConstSlice;
using vostrelka::Slice;
using vostrelka::net_device::Frame;
using vostrelka::net_device::SerialEncoder;
using vostrelka::net_device::SerialEncoderErrorStats;
using vostrelka::net_device::SerialEncoderHandlerI;
using vostrelka::net_device::xcrc32;
using Bytes = std::vector<uint8_t>;

// Found by argument lookup, so that EXPECT_EQ can compare and print counters.
namespace vostrelka {
namespace net_device {
bool operator==(const SerialEncoderErrorStats& a, const SerialEncoderErrorStats& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

std::ostream& operator<<(std::ostream& os, const SerialEncoderErrorStats& s) {
    return os << "{encode " << s.encode_errors << ", overflow " << s.rx_overflows << ", crc " << s.crc_errors
              << ", short " << s.short_messages << ", escape " << s.escape_errors << "}";
}
}  // namespace net_device
}  // namespace vostrelka

namespace {

struct ReceivedFrame {
    uint8_t proto_id, src, dst;
    Bytes payload;
    bool operator==(const ReceivedFrame& o) const {
        return proto_id == o.proto_id && src == o.src && dst == o.dst && payload == o.payload;
    }
};

class FrameRecorder : public SerialEncoderHandlerI {
public:
    void on_frame(const Frame& frame) override {
        frames.push_back({frame.proto_id, frame.src, frame.dst, Bytes(frame.payload.begin(), frame.payload.end())});
    }
    std::vector<ReceivedFrame> frames;
};

Frame make_frame(uint8_t proto_id, uint8_t src, uint8_t dst, const Bytes& payload) {
    Frame frame;
    frame.proto_id = proto_id;
    frame.src = src;
    frame.dst = dst;
    frame.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
    return frame;
}

// A codec over buffers sized like a serial device's (2048 each by default).
struct Codec {
    explicit Codec(size_t tx_capacity = 2048, size_t rx_capacity = 2048)
        : tx_storage(tx_capacity), rx_storage(rx_capacity) {}

    Bytes encode(const Frame& frame) {
        tx.clear();
        EXPECT_GT(encoder.encode(frame, stats), 0u);
        return Bytes(tx.begin(), tx.end());
    }
    uint64_t decode(const Bytes& bytes) {
        return encoder.decode(ConstSlice<unsigned char>(bytes.data(), bytes.size()), stats);
    }

    Bytes tx_storage, rx_storage;
    Slice<unsigned char> tx{tx_storage.data(), 0, tx_storage.size()};
    Slice<unsigned char> rx{rx_storage.data(), 0, rx_storage.size()};
    FrameRecorder received;
    SerialEncoder encoder{tx, rx, received};
    SerialEncoderErrorStats stats;
};

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

// proto 8, 1 -> 2, payload 3E 42 55: its CRC (0xB4427D73) holds a 0x42 too.
const Bytes SMALL_PAYLOAD = {0x3E, 0x42, 0x55};
const Bytes SMALL_WIRE = {0x42, 0x73, 0x7D, 0x55, 0xBD, 0xB4, 0x08, 0x01, 0x02, 0x3E, 0x55, 0xBD, 0x55, 0xAA, 0x42};

}  // namespace

TEST(XCRC32, MatchesCheckValueAndChains) {
    const unsigned char digits[] = "123456789";
    EXPECT_EQ(xcrc32(digits, 9, 0xFFFFFFFF), 0x0376E6E7u);
    EXPECT_EQ(xcrc32(digits + 4, 5, xcrc32(digits, 4, 0xFFFFFFFF)), 0x0376E6E7u);
    EXPECT_EQ(xcrc32(digits, 0, 0x12345678), 0x12345678u);
    EXPECT_EQ(vostrelka::net_device::crc32_table[1], 0x04C11DB7u);
    EXPECT_EQ(vostrelka::net_device::crc32_table[255], 0xB1F740B4u);
}

TEST(XCRC32, AgreesWithTheBitwiseDefinitionAtEveryLengthAndAlignment) {
    auto bitwise = [](const uint8_t* data, size_t len, uint32_t crc) {
        for (size_t i = 0; i < len; ++i) {
            crc ^= static_cast<uint32_t>(data[i]) << 24;
            for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
        }
        return crc;
    };
    Bytes data(80);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 151 + 17);
    for (size_t offset = 0; offset < 4; ++offset) {
        for (size_t len = 0; len + offset <= data.size(); ++len) {
            for (uint32_t init : {0xFFFFFFFFu, 0x0u, 0x89ABCDEFu}) {
                ASSERT_EQ(xcrc32(data.data() + offset, len, init), bitwise(data.data() + offset, len, init))
                    << "offset " << offset << ", length " << len;
            }
        }
    }
}

TEST(SerialEncoder, EncodesExactBytesEscapingCrcAndPayload) {
    Codec codec;
    EXPECT_EQ(codec.encode(make_frame(0x08, 0x01, 0x02, SMALL_PAYLOAD)), SMALL_WIRE);
    // Empty payload: nothing to escape, the minimum of 9 bytes.
    EXPECT_EQ(codec.encode(make_frame(1, 2, 3, {})), (Bytes{0x42, 0x51, 0x69, 0x0D, 0x1B, 0x01, 0x02, 0x03, 0x42}));
}

TEST(SerialEncoder, RoundTripsPayloadsAndHeaders) {
    Bytes ordinary(200);
    for (size_t i = 0; i < ordinary.size(); ++i) ordinary[i] = static_cast<uint8_t>(i * 7);
    Bytes specials;
    for (int i = 0; i < 64; ++i) specials.push_back(i % 3 ? 0x42 : 0x55);
    const std::vector<ReceivedFrame> cases = {
        {8, 1, 2, {}},
        {10, 0x20, 0xFF, ordinary},
        {14, 3, 4, specials},
        {0x42, 0x55, 0x42, {0x42}},
        {0, 0, 0, Bytes(1500, 0x00)},
    };
    for (const ReceivedFrame& c : cases) {
        Codec codec;
        const Bytes wire = codec.encode(make_frame(c.proto_id, c.src, c.dst, c.payload));
        EXPECT_EQ(codec.decode(wire), 1u);
        ASSERT_EQ(codec.received.frames.size(), 1u);
        EXPECT_EQ(codec.received.frames[0], c) << "payload size " << c.payload.size();
        EXPECT_EQ(codec.stats, SerialEncoderErrorStats{});
        EXPECT_FALSE(codec.encoder.in_frame);
    }
}

TEST(SerialEncoder, SpecialBytesDoubleOnTheWire) {
    Codec codec;
    for (uint8_t special : {uint8_t{0x42}, uint8_t{0x55}}) {
        const Bytes wire = codec.encode(make_frame(1, 2, 3, Bytes(100, special)));
        Bytes tail = {0x01, 0x02, 0x03};
        for (int i = 0; i < 100; ++i) tail.insert(tail.end(), {0x55, static_cast<uint8_t>(~special)});
        tail.push_back(0x42);
        ASSERT_GE(wire.size(), tail.size() + 5);
        EXPECT_EQ(Bytes(wire.end() - tail.size(), wire.end()), tail);

        EXPECT_EQ(codec.decode(wire), 1u);
        EXPECT_EQ(codec.received.frames.back().payload, Bytes(100, special));
    }
}

TEST(SerialEncoder, StreamFedOneByteAtATimeDeliversEachFrameOnce) {
    Codec codec;
    const Bytes first = codec.encode(make_frame(0x08, 0x01, 0x02, SMALL_PAYLOAD));
    const Bytes second = codec.encode(make_frame(9, 9, 9, {}));
    const Bytes stream = concat({{0x00, 0x13, 0x55, 0xAA}, first, second, first});

    uint64_t delivered = 0;
    for (uint8_t byte : stream) delivered += codec.decode(Bytes{byte});

    EXPECT_EQ(delivered, 3u);
    ASSERT_EQ(codec.received.frames.size(), 3u);
    EXPECT_EQ(codec.received.frames[0].payload, SMALL_PAYLOAD);
    EXPECT_EQ(codec.received.frames[1], (ReceivedFrame{9, 9, 9, {}}));
    EXPECT_EQ(codec.received.frames[2], codec.received.frames[0]);
    EXPECT_EQ(codec.stats, SerialEncoderErrorStats{});
}

TEST(SerialEncoder, BadInputCountsItsErrorAndRecovers) {
    Bytes bad_crc = SMALL_WIRE;
    bad_crc[1] ^= 0x01;
    Bytes bad_body = SMALL_WIRE;
    bad_body[9] ^= 0x80;
    const Bytes body_only(SMALL_WIRE.begin() + 1, SMALL_WIRE.end());  // no start delimiter

    struct Case {
        const char* name;
        Bytes input;
        SerialEncoderErrorStats expected;
        uint64_t frames;
        bool in_frame_after;
    };
    const std::vector<Case> cases = {
        {"garbage before the first delimiter is ignored", concat({{0x00, 0x55, 0x13, 0xBD}, SMALL_WIRE}), {}, 1, false},
        {"empty message", {0x42, 0x42}, {0, 0, 0, 1, 0}, 0, true},
        {"six bytes", {0x42, 1, 2, 3, 4, 5, 6, 0x42}, {0, 0, 0, 1, 0}, 0, true},
        {"stored CRC wrong", bad_crc, {0, 0, 1, 0, 0}, 0, true},
        {"payload corrupted", bad_body, {0, 0, 1, 0, 0}, 0, true},
        {"bad delimiter starts the next frame", concat({bad_crc, body_only}), {0, 0, 1, 0, 0}, 1, false},
        {"bad escape drops the message", {0x42, 1, 2, 0x55, 0x00}, {0, 0, 0, 0, 1}, 0, false},
        {"bad escape then data is ignored", concat({{0x42, 1, 0x55, 0x13}, body_only}), {0, 0, 0, 0, 1}, 0, true},
        {"escaped delimiter opens a frame at once",
         concat({{0x42, 1, 0x55, 0x42}, body_only}),
         {0, 0, 0, 0, 1},
         1,
         false},
    };
    for (const Case& c : cases) {
        Codec codec;
        EXPECT_EQ(codec.decode(c.input), c.frames) << c.name;
        EXPECT_EQ(codec.stats, c.expected) << c.name;
        EXPECT_EQ(codec.encoder.in_frame, c.in_frame_after) << c.name;
        EXPECT_FALSE(codec.encoder.escaped) << c.name;
        if (c.frames == 1) {
            EXPECT_EQ(codec.received.frames[0].payload, SMALL_PAYLOAD) << c.name;
        }
    }
}

TEST(SerialEncoder, FailedEncodeLeavesQueuedBytesUntouched) {
    const Frame frame = make_frame(0x08, 0x01, 0x02, SMALL_PAYLOAD);
    const Bytes queued = {0xA0, 0xA1, 0xA2};
    // Room for everything but the end delimiter, then for all but half an
    // escaped pair, then for the whole frame.
    for (size_t room : {SMALL_WIRE.size() - 1, SMALL_WIRE.size() - 2, size_t{0}, SMALL_WIRE.size()}) {
        Codec codec(queued.size() + room);
        std::copy(queued.begin(), queued.end(), codec.tx_storage.begin());
        codec.tx.size = queued.size();

        const uint64_t appended = codec.encoder.encode(frame, codec.stats);

        if (room < SMALL_WIRE.size()) {
            EXPECT_EQ(appended, 0u) << room;
            EXPECT_EQ(codec.stats.encode_errors, 1u) << room;
            EXPECT_EQ(codec.tx.size, queued.size()) << room;
        } else {
            EXPECT_EQ(appended, SMALL_WIRE.size());
            EXPECT_EQ(Bytes(codec.tx.begin() + queued.size(), codec.tx.end()), SMALL_WIRE);
        }
        EXPECT_TRUE(std::equal(queued.begin(), queued.end(), codec.tx_storage.begin())) << room;
    }
}

TEST(SerialEncoder, LargestMessageIsOneByteUnderReceiveCapacity) {
    Codec sender(8192);
    const Bytes fits = sender.encode(make_frame(1, 2, 3, Bytes(2040, 0x42)));
    const Bytes too_big = sender.encode(make_frame(1, 2, 3, Bytes(2041, 0x42)));
    const Bytes next = sender.encode(make_frame(4, 5, 6, {0x07}));

    Codec receiver;
    EXPECT_EQ(receiver.decode(fits), 1u);
    EXPECT_EQ(receiver.received.frames.at(0).payload, Bytes(2040, 0x42));
    EXPECT_EQ(receiver.stats, SerialEncoderErrorStats{});

    // The closing delimiter of the oversized message finds the buffer full and
    // is taken as a start; the next frame's own start then closes an empty message.
    EXPECT_EQ(receiver.decode(concat({too_big, next})), 1u);
    EXPECT_EQ(receiver.received.frames.size(), 2u);
    EXPECT_EQ(receiver.received.frames.at(1), (ReceivedFrame{4, 5, 6, {0x07}}));
    EXPECT_EQ(receiver.stats, (SerialEncoderErrorStats{0, 1, 0, 1, 0}));
}

TEST(SerialEncoder, ChunkingNeverChangesWhatIsDecoded) {
    // Good frames mixed with noise, stray delimiters and escapes, into a
    // receive buffer small enough to overflow: fed whole, in odd chunks or a
    // byte at a time, the same frames and the same counters come out.
    uint32_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return static_cast<uint8_t>(seed >> 16);
    };
    const uint8_t specials[] = {0x42, 0x55, 0xBD, 0xAA};
    for (int round = 0; round < 200; ++round) {
        Codec encoder_side;
        Bytes stream;
        for (int part = 0; part < 6; ++part) {
            Bytes payload(next() % 40);
            for (uint8_t& byte : payload) byte = next() % 4 == 0 ? specials[next() % 4] : next();
            const Bytes wire = encoder_side.encode(make_frame(next(), next(), next(), payload));
            stream.insert(stream.end(), wire.begin(), wire.end());
            for (int noise = next() % 4; noise > 0; --noise)
                stream.push_back(next() % 2 ? specials[next() % 4] : next());
        }

        Codec whole(2048, 24), chunked(2048, 24), bytewise(2048, 24);
        whole.decode(stream);
        for (size_t at = 0; at < stream.size();) {
            const size_t size = std::min<size_t>(1 + next() % 9, stream.size() - at);
            chunked.decode(Bytes(stream.begin() + at, stream.begin() + at + size));
            at += size;
        }
        for (uint8_t byte : stream) bytewise.decode(Bytes{byte});

        SCOPED_TRACE(round);
        EXPECT_EQ(whole.received.frames, bytewise.received.frames);
        EXPECT_EQ(chunked.received.frames, bytewise.received.frames);
        EXPECT_EQ(whole.stats, bytewise.stats);
        EXPECT_EQ(chunked.stats, bytewise.stats);
        EXPECT_EQ(whole.encoder.in_frame, bytewise.encoder.in_frame);
        EXPECT_EQ(whole.encoder.escaped, bytewise.encoder.escaped);
    }
}
