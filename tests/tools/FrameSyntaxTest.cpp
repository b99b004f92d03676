// The text form of frames that gatecat reads and writes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "gatecat/FrameSyntax.h"

using vostrelka::gatecat::format_frame;
using vostrelka::gatecat::frame_field_of_line;
using vostrelka::gatecat::MAX_TEXT_PAYLOAD_SIZE;
using vostrelka::gatecat::parse_frame;
using vostrelka::gatecat::TextFrame;

namespace {

struct Canonical {
    const char* text;
    const char* canonical;
};

TEST(FrameSyntax, EveryAcceptedSpellingFormatsToItsCanonicalText) {
    const Canonical cases[] = {
        {"07:01>02#DEADBEEF", "07:01>02#DEADBEEF"},
        {"7:1>2#deadbeef", "07:01>02#DEADBEEF"},
        {"7:01>02#DE.AD.BE.EF", "07:01>02#DEADBEEF"},
        {"7:01-02#DEADBEEF", "07:01>02#DEADBEEF"},
        {"7:01>FF#", "07:01>FF#"},
        {"0a:0B>0c#00", "0A:0B>0C#00"},
        {"ff:ff>ff#4255", "FF:FF>FF#4255"},
        {"0:0>0#", "00:00>00#"},
    };
    for (const Canonical& c : cases) {
        TextFrame frame;
        std::string error;
        ASSERT_TRUE(parse_frame(c.text, frame, error)) << c.text << ": " << error;
        EXPECT_EQ(format_frame(frame.view()), c.canonical) << c.text;
    }
}

TEST(FrameSyntax, FieldsLandInTheirPlaces) {
    TextFrame frame;
    std::string error;
    ASSERT_TRUE(parse_frame("0E:12>9#01.09", frame, error)) << error;
    EXPECT_EQ(frame.proto_id, 14);
    EXPECT_EQ(frame.src, 0x12);
    EXPECT_EQ(frame.dst, 0x09);
    EXPECT_EQ(frame.payload, (std::vector<uint8_t>{0x01, 0x09}));
}

TEST(FrameSyntax, EveryByteValueRoundTripsUpToTheLargestPayload) {
    std::vector<uint8_t> payload(MAX_TEXT_PAYLOAD_SIZE);
    for (size_t i = 0; i < payload.size(); i++) payload[i] = static_cast<uint8_t>(i * 7);
    TextFrame original;
    original.proto_id = 0xAB;
    original.src = 0xFE;
    original.dst = 0x00;
    original.payload = payload;

    TextFrame parsed;
    std::string error;
    ASSERT_TRUE(parse_frame(format_frame(original.view()), parsed, error)) << error;
    EXPECT_EQ(parsed.proto_id, original.proto_id);
    EXPECT_EQ(parsed.src, original.src);
    EXPECT_EQ(parsed.dst, original.dst);
    EXPECT_EQ(parsed.payload, original.payload);
}

struct Malformed {
    std::string text;
    const char* error;
};

TEST(FrameSyntax, EveryMalformedFrameIsRejectedWithItsReason) {
    const std::string too_long = "07:01>02#" + std::string(2 * (MAX_TEXT_PAYLOAD_SIZE + 1), 'A');
    const Malformed cases[] = {
        {"", "empty frame; expected PROTO:SRC>DST#PAYLOAD"},
        {"0701>02#AA", "missing ':' after the protocol id; expected PROTO:SRC>DST#PAYLOAD"},
        {"07:01",
         "missing '>' between source and destination; expected PROTO:SRC>DST#PAYLOAD "
         "(on a shell command line quote the frame or write SRC-DST)"},
        {"07:01>02", "missing '#' before the payload (an empty payload is written PROTO:SRC>DST#)"},
        {"07:01>02DEAD", "missing '#' before the payload (an empty payload is written PROTO:SRC>DST#)"},
        {":01>02#", "protocol id '' is not 1 or 2 hex digits"},
        {"107:01>02#", "protocol id '107' is not 1 or 2 hex digits"},
        {"0G:01>02#", "protocol id '0G' is not 1 or 2 hex digits"},
        {" 7:01>02#", "protocol id ' 7' is not 1 or 2 hex digits"},
        {"07:>02#", "source '' is not 1 or 2 hex digits"},
        {"07:x1>02#", "source 'x1' is not 1 or 2 hex digits"},
        {"07:01>#", "destination '' is not 1 or 2 hex digits"},
        {"07:01>0102#", "destination '0102' is not 1 or 2 hex digits"},
        {"07:01>02#ABC", "payload byte 2 has one hex digit; a byte takes two"},
        {"07:01>02#A.B", "payload byte 1 has one hex digit; a byte takes two"},
        {"07:01>02#.AB", "'.' may only stand between two payload bytes"},
        {"07:01>02#AB.", "'.' may only stand between two payload bytes"},
        {"07:01>02#AB..CD", "'.' may only stand between two payload bytes"},
        {"07:01>02#ABXY", "payload character 3 'X' is not a hex digit"},
        {"07:01>02#AB CD", "payload character 3 ' ' is not a hex digit"},
        {std::string("07:01>02#A\tB"), "payload character 2 '\\x09' is not a hex digit"},
        {"07:01>02#AB#CD", "payload character 3 '#' is not a hex digit"},
        {too_long, "payload longer than 2048 bytes"},
    };
    for (const Malformed& c : cases) {
        TextFrame frame;
        std::string error;
        EXPECT_FALSE(parse_frame(c.text, frame, error)) << c.text;
        EXPECT_EQ(error, c.error) << c.text;
    }
}

struct LineCase {
    const char* line;
    const char* field;
};

TEST(FrameSyntax, TheFrameOfADumpLineOrOfABareLineIsFound) {
    const LineCase cases[] = {
        {"(1732170000.123456) 07:01>02#DEADBEEF  proto_id 7  0x01 -> 0x02  len 4", "07:01>02#DEADBEEF"},
        {"(1.000001)\t0A:01>02#  proto_id 10  manet cut short", "0A:01>02#"},
        {"07:01>02#AA", "07:01>02#AA"},
        {"  07:01>02#AA  \r", "07:01>02#AA"},
        {"07:01>02#AA trailing words", "07:01>02#AA"},
        {"", ""},
        {" \t\r", ""},
        // A stamp alone is no frame; the parser then says what is missing.
        {"(12.5)", "(12.5)"},
    };
    for (const LineCase& c : cases) EXPECT_EQ(frame_field_of_line(c.line), c.field) << c.line;
}

}  // namespace
