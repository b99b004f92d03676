#include <gtest/gtest.h>

#include "support/frame_recorder.h"
#include "vostrelka/net_device/CanAcceptanceFilter.h"
#include "vostrelka/net_device/CanDecoder.h"
#include "vostrelka/net_device/CanEncoder.h"

using namespace vostrelka::net_device;
using test_support::RecordedFrame;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes counting_bytes(size_t n) {
    Bytes bytes(n);
    for (size_t i = 0; i < n; i++) bytes[i] = static_cast<uint8_t>(1 + i);
    return bytes;
}

// proto_id 5, 0x10 -> 0x20, transfer counter 3, normal priority unless told otherwise.
std::vector<CanFrame> encode(const Bytes& payload, uint8_t proto_id = 5, uint8_t counter = 3, uint8_t priority = 1) {
    const Frame frame = test_support::make_frame(proto_id, 0x10, 0x20, payload);
    CanEncoder encoder(frame, counter, priority);
    std::vector<CanFrame> out;
    while (!encoder.finished() && out.size() < 300) out.push_back(encoder.next());
    EXPECT_EQ(out.size(), encoder.get_frames_number());
    return out;
}

// Feeds frames in `order` (all in turn when empty) to a fresh decoder and returns the
// last status; no earlier one may be an error. `out` gets the last frame completed.
CANDecoderStatus decode(const std::vector<CanFrame>& frames, std::vector<size_t> order, RecordedFrame* out = nullptr) {
    const bool all = order.empty();
    for (size_t i = 0; all && i < frames.size(); i++) order.push_back(i);
    static uint8_t buffer[2048];
    CanDecoder decoder(vostrelka::Slice<uint8_t>(buffer, 0, sizeof(buffer)));
    Frame frame;
    CANDecoderStatus status = CANDecoderStatus::IN_PROGRESS;
    for (size_t i : order) {
        EXPECT_TRUE(status == CANDecoderStatus::IN_PROGRESS || status == CANDecoderStatus::COMPLETE) << "before " << i;
        status = decoder.decode(frames[i], frame);
        if (status == CANDecoderStatus::COMPLETE && out != nullptr)
            *out = {frame.proto_id, frame.src, frame.dst, {frame.payload.begin(), frame.payload.end()}};
    }
    return status;
}

}  // namespace

TEST(CanEncoder, PutsEveryFieldInTheIdentifier) {
    const std::vector<CanFrame> frames = encode(counting_bytes(20));
    const std::vector<uint32_t> ids = {frames.at(0).id, frames.at(1).id, frames.at(2).id, frames.at(3).id};
    EXPECT_EQ(ids, (std::vector<uint32_t>{0x10064021, 0x10164021, 0x10264021, 0x10364021}));
    // CRC-32 of {20, 0, 5} and the payload, least significant byte first.
    EXPECT_EQ(Bytes(frames[0].data, frames[0].data + frames[0].len), (Bytes{0xC8, 0x80, 0x98, 0x62, 20, 0, 5}));
    EXPECT_EQ(Bytes(frames[3].data, frames[3].data + frames[3].len), (Bytes{17, 18, 19, 20}));
    // Single frames carry proto_id; the counter keeps 3 bits and the priority 1.
    EXPECT_EQ(encode({0xAA}, 0xFF, 7, 1)[0].id, 0x0FFE4021u);
    EXPECT_EQ(encode({0xAA}, 8, 9, 2)[0].id, 0x00824020u);
}

TEST(CanDecoder, RoundTripsEverySizeInAnyOrder) {
    const struct {
        size_t size, frames;
        std::vector<size_t> order;
    } cases[] = {{0, 1, {}},     {8, 1, {}}, {9, 3, {2, 0, 1}}, {20, 4, {3, 2, 1, 0}}, {20, 4, {1, 2, 3, 0}},
                 {2040, 256, {}}};
    for (const auto& c : cases) {
        const std::vector<CanFrame> frames = encode(counting_bytes(c.size), 14);
        ASSERT_EQ(frames.size(), c.frames) << c.size;
        RecordedFrame out;
        ASSERT_EQ(decode(frames, c.order, &out), CANDecoderStatus::COMPLETE) << c.size;
        EXPECT_EQ(out, (RecordedFrame{14, 0x10, 0x20, counting_bytes(c.size)})) << c.size;
    }
}

// A single frame abandons a reassembly in progress. With 9 data frames the
// bitmap byte before the last one's (frames 1..7) is not looked at: header, 8
// and 9 complete the message, which the CRC rejects; a gap in an examined byte keeps waiting.
TEST(CanDecoder, SingleFramesAndTheUnexaminedBitmapByte) {
    std::vector<CanFrame> frames = encode(counting_bytes(20));
    frames.push_back(encode({9, 8, 7}, 7)[0]);
    RecordedFrame out;
    EXPECT_EQ(decode(frames, {0, 1, 4, 0, 2, 3}, &out), CANDecoderStatus::IN_PROGRESS) << "the header went too";
    EXPECT_EQ(out, (RecordedFrame{7, 0x10, 0x20, {9, 8, 7}}));

    EXPECT_EQ(decode(encode(counting_bytes(72)), {0, 8, 9}), CANDecoderStatus::CRC_ERROR);
    EXPECT_EQ(decode(encode(counting_bytes(136)), {0, 1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 3}),
              CANDecoderStatus::COMPLETE);
}

TEST(CanAcceptanceFilter, ComparesOnlyAddressBits) {
    const CanAcceptanceFilter any = make_acceptance_filter(0x20, 0xFF), one = make_acceptance_filter(0x20, 0x10);
    EXPECT_EQ((std::vector<uint32_t>{any.id, any.mask, one.id, one.mask}),
              (std::vector<uint32_t>{0x4000, 0x1FE00, 0x4020, 0x1FFFE}));
}
