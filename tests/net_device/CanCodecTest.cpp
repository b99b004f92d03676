#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "vostrelka/net_device/CanAcceptanceFilter.h"
#include "vostrelka/net_device/CanDecoder.h"
#include "vostrelka/net_device/CanEncoder.h"

using namespace vostrelka;
using namespace vostrelka::net_device;

namespace {

std::vector<uint8_t> counting_bytes(size_t n, uint8_t first = 1) {
    std::vector<uint8_t> bytes(n);
    for (size_t i = 0; i < n; i++) bytes[i] = static_cast<uint8_t>(first + i);
    return bytes;
}

Frame make_frame(const std::vector<uint8_t>& payload, uint8_t proto_id = 5, uint8_t src = 0x10, uint8_t dst = 0x20) {
    Frame frame;
    frame.proto_id = proto_id;
    frame.src = src;
    frame.dst = dst;
    frame.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
    return frame;
}

std::vector<CanFrame> encode_all(const Frame& frame, uint8_t counter = 3, uint8_t priority = 1) {
    CanEncoder encoder(frame, counter, priority);
    std::vector<CanFrame> out;
    while (!encoder.finished() && out.size() < 1000) out.push_back(encoder.next());
    EXPECT_EQ(out.size(), encoder.get_frames_number());
    return out;
}

std::vector<uint8_t> payload_of(const Frame& frame) {
    return std::vector<uint8_t>(frame.payload.begin(), frame.payload.end());
}

// A decoder over its own buffer.
struct Reassembler {
    explicit Reassembler(size_t capacity = 2048)
        : storage(capacity), decoder(Slice<uint8_t>(storage.data(), 0, capacity)) {}
    std::vector<uint8_t> storage;
    CanDecoder decoder;
    Frame out;

    CANDecoderStatus feed(const CanFrame& can_frame) { return decoder.decode(can_frame, out); }
    // Feeds all frames; every one but the last must be IN_PROGRESS.
    CANDecoderStatus feed_all(const std::vector<CanFrame>& frames) {
        for (size_t i = 0; i + 1 < frames.size(); i++) {
            EXPECT_EQ(feed(frames[i]), CANDecoderStatus::IN_PROGRESS) << "frame " << i;
        }
        return feed(frames.back());
    }
};

}  // namespace

TEST(CanEncoder, CutsTwentyBytesIntoHeaderAndThreeDataFrames) {
    const std::vector<uint8_t> payload = counting_bytes(20);
    const std::vector<CanFrame> frames = encode_all(make_frame(payload), 3, 1);

    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0].id, 0x10064021u);
    EXPECT_EQ(frames[1].id, 0x10164021u);
    EXPECT_EQ(frames[2].id, 0x10264021u);
    EXPECT_EQ(frames[3].id, 0x10364021u);

    // CRC-32 of {20, 0, 5} and the payload, least significant byte first.
    const std::vector<uint8_t> header = {0xC8, 0x80, 0x98, 0x62, 20, 0, 5};
    ASSERT_EQ(frames[0].len, 7);
    EXPECT_EQ(std::vector<uint8_t>(frames[0].data, frames[0].data + 7), header);

    const std::vector<uint8_t> lens = {frames[1].len, frames[2].len, frames[3].len};
    EXPECT_EQ(lens, (std::vector<uint8_t>{8, 8, 4}));
    EXPECT_EQ(std::vector<uint8_t>(frames[1].data, frames[1].data + 8), counting_bytes(8, 1));
    EXPECT_EQ(std::vector<uint8_t>(frames[3].data, frames[3].data + 4), counting_bytes(4, 17));
}

TEST(CanEncoder, PutsFieldsOfASingleFrameInTheIdentifier) {
    struct Case {
        uint8_t proto_id, src, dst, counter, priority;
        uint32_t id;
    };
    const Case cases[] = {
        {5, 0x10, 0x20, 3, 1, 0x00564021}, {0xFF, 0xFF, 0xFF, 7, 1, 0x0FFFFFFF},
        {0, 0, 0, 0, 0, 0x00000000},       {8, 0x01, 0xFF, 9, 0, 0x0083FE02},  // the counter keeps 3 bits
        {8, 0x01, 0x02, 2, 3, 0x00840403},                                     // the priority keeps 1 bit
    };
    const std::vector<uint8_t> payload = {0xAA};
    for (const Case& c : cases) {
        const std::vector<CanFrame> frames =
            encode_all(make_frame(payload, c.proto_id, c.src, c.dst), c.counter, c.priority);
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_EQ(frames[0].id, c.id) << std::hex << c.id;
    }
}

TEST(CanEncoder, CountsFramesBySize) {
    struct Case {
        size_t payload;
        std::vector<uint8_t> lens;
    };
    const Case cases[] = {
        {0, {0}}, {1, {1}}, {8, {8}}, {9, {7, 8, 1}}, {16, {7, 8, 8}}, {17, {7, 8, 8, 1}},
    };
    for (const Case& c : cases) {
        const std::vector<uint8_t> payload = counting_bytes(c.payload);
        std::vector<uint8_t> lens;
        for (const CanFrame& f : encode_all(make_frame(payload))) lens.push_back(f.len);
        EXPECT_EQ(lens, c.lens) << c.payload << " bytes";
    }
}

TEST(CanEncoder, LargestPayloadTakes255DataFrames) {
    const std::vector<uint8_t> payload = counting_bytes(CAN_MAX_PAYLOAD_BYTES);
    const std::vector<CanFrame> frames = encode_all(make_frame(payload), 0, 1);
    ASSERT_EQ(frames.size(), 256u);
    EXPECT_EQ(frames.back().id, 0x1FF04021u);
    EXPECT_EQ(frames.back().len, 8);

    Reassembler r;
    ASSERT_EQ(r.feed_all(frames), CANDecoderStatus::COMPLETE);
    EXPECT_EQ(payload_of(r.out), payload);
}

TEST(CanDecoder, RoundTripsEverySize) {
    for (size_t size : {0, 1, 7, 8, 9, 15, 16, 17, 20, 63, 64, 65, 100, 1000, 2039}) {
        const std::vector<uint8_t> payload = counting_bytes(size, static_cast<uint8_t>(size));
        const std::vector<CanFrame> frames = encode_all(make_frame(payload, 14, 0x33, 0x44));
        Reassembler r;
        ASSERT_EQ(r.feed_all(frames), CANDecoderStatus::COMPLETE) << size;
        EXPECT_EQ(r.out.proto_id, 14);
        EXPECT_EQ(r.out.src, 0x33);
        EXPECT_EQ(r.out.dst, 0x44);
        EXPECT_EQ(payload_of(r.out), payload) << size;
        EXPECT_FALSE(r.decoder.is_used());
    }
}

TEST(CanDecoder, CompletesOnWhicheverFrameFillsTheLastGap) {
    const std::vector<uint8_t> payload = counting_bytes(20);
    const std::vector<CanFrame> frames = encode_all(make_frame(payload));
    const std::vector<std::vector<int>> orders = {
        {3, 2, 1, 0},
        {1, 2, 3, 0},
        {0, 3, 1, 2},
        {2, 0, 3, 1},
    };
    for (const std::vector<int>& order : orders) {
        std::vector<CanFrame> shuffled;
        for (int i : order) shuffled.push_back(frames[i]);
        Reassembler r;
        ASSERT_EQ(r.feed_all(shuffled), CANDecoderStatus::COMPLETE) << order[0] << order[1] << order[2] << order[3];
        EXPECT_EQ(payload_of(r.out), payload);
    }
}

TEST(CanDecoder, DuplicateSequenceDropsThePartialMessage) {
    const std::vector<uint8_t> payload = counting_bytes(20);
    const std::vector<CanFrame> frames = encode_all(make_frame(payload));
    Reassembler r;
    EXPECT_EQ(r.feed(frames[0]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[1]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[1]), CANDecoderStatus::DUPLICATE_SEQ);
    EXPECT_FALSE(r.decoder.is_used());
    // The header went with the partial message: the rest cannot complete it.
    EXPECT_EQ(r.feed(frames[2]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[3]), CANDecoderStatus::IN_PROGRESS);
    // A fresh copy of the whole message still gets through after a reset.
    r.decoder.reset();
    EXPECT_EQ(r.feed_all(frames), CANDecoderStatus::COMPLETE);
}

TEST(CanDecoder, DataFrameEndingPastTheBufferOverflows) {
    const std::vector<uint8_t> payload = counting_bytes(20);
    const std::vector<CanFrame> frames = encode_all(make_frame(payload));
    Reassembler r(19);
    EXPECT_EQ(r.feed(frames[0]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[1]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[2]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[3]), CANDecoderStatus::OVERFLOW);
    EXPECT_FALSE(r.decoder.is_used());

    Reassembler exact(20);
    EXPECT_EQ(exact.feed_all(frames), CANDecoderStatus::COMPLETE);
}

TEST(CanDecoder, SingleFrameAbandonsReassemblyInProgress) {
    const std::vector<uint8_t> long_payload = counting_bytes(20);
    const std::vector<CanFrame> frames = encode_all(make_frame(long_payload));
    const std::vector<uint8_t> short_payload = {9, 8, 7};
    const CanFrame single = encode_all(make_frame(short_payload, 7, 0x10, 0x20))[0];

    Reassembler r;
    EXPECT_EQ(r.feed(frames[0]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[1]), CANDecoderStatus::IN_PROGRESS);
    ASSERT_EQ(r.feed(single), CANDecoderStatus::COMPLETE);
    EXPECT_EQ(r.out.proto_id, 7);
    EXPECT_EQ(payload_of(r.out), short_payload);
    EXPECT_EQ(r.out.payload.data, single.data);
    EXPECT_FALSE(r.decoder.is_used());

    EXPECT_EQ(r.feed(frames[2]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[3]), CANDecoderStatus::IN_PROGRESS);
}

TEST(CanDecoder, CorruptedByteFailsTheCrc) {
    const std::vector<uint8_t> payload = counting_bytes(20);
    std::vector<CanFrame> frames = encode_all(make_frame(payload));
    frames[2].data[5] ^= 0x01;
    Reassembler r;
    EXPECT_EQ(r.feed_all(frames), CANDecoderStatus::CRC_ERROR);
    EXPECT_FALSE(r.decoder.is_used());

    frames = encode_all(make_frame(payload));
    frames[0].data[6] = 6;  // proto_id of the header
    Reassembler other;
    EXPECT_EQ(other.feed_all(frames), CANDecoderStatus::CRC_ERROR);
}

// With 9 data frames the bitmap byte before the last one's (frames 1..7) is
// not looked at: header, 8 and 9 complete the message, which the CRC rejects.
TEST(CanDecoder, GapInTheUnexaminedBitmapByteEndsInCrcError) {
    const std::vector<uint8_t> payload = counting_bytes(72);
    const std::vector<CanFrame> frames = encode_all(make_frame(payload));
    ASSERT_EQ(frames.size(), 10u);
    Reassembler r;
    EXPECT_EQ(r.feed(frames[0]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[8]), CANDecoderStatus::IN_PROGRESS);
    EXPECT_EQ(r.feed(frames[9]), CANDecoderStatus::CRC_ERROR);

    // A gap in an examined byte keeps waiting: 17 data frames, frame 3 missing.
    const std::vector<uint8_t> longer = counting_bytes(136);
    const std::vector<CanFrame> more = encode_all(make_frame(longer));
    ASSERT_EQ(more.size(), 18u);
    Reassembler waiting;
    for (size_t i = 0; i < more.size(); i++) {
        if (i == 3) continue;
        EXPECT_EQ(waiting.feed(more[i]), CANDecoderStatus::IN_PROGRESS) << i;
    }
    EXPECT_EQ(waiting.feed(more[3]), CANDecoderStatus::COMPLETE);
    EXPECT_EQ(payload_of(waiting.out), longer);
}

TEST(CanAcceptanceFilter, ComparesOnlyAddressBits) {
    const CanAcceptanceFilter any_sender = make_acceptance_filter(0x20, 0xFF);
    EXPECT_EQ(any_sender.id, 0x4000u);
    EXPECT_EQ(any_sender.mask, 0x1FE00u);
    const CanAcceptanceFilter one_sender = make_acceptance_filter(0x20, 0x10);
    EXPECT_EQ(one_sender.id, 0x4020u);
    EXPECT_EQ(one_sender.mask, 0x1FFFEu);

    // Every frame of the example message passes the filter for its addresses.
    const std::vector<uint8_t> payload = counting_bytes(20);
    for (const CanFrame& f : encode_all(make_frame(payload))) {
        EXPECT_EQ(f.id & one_sender.mask, one_sender.id);
        EXPECT_EQ(f.id & any_sender.mask, any_sender.id);
    }
}
