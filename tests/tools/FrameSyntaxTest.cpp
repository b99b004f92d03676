// The text form of frames that gatecat reads and writes.
#include <gtest/gtest.h>

#include <string>

#include "gatecat/FrameSyntax.h"

using namespace vostrelka::gatecat;

namespace {

TEST(FrameSyntax, AcceptedSpellingsFormatCanonicallyAndMalformedOnesSayWhy) {
    constexpr char HEX[] = "0123456789ABCDEF";
    std::string largest = "AB:FE>00#";  // every byte value, up to the largest payload
    for (size_t i = 0; i < MAX_TEXT_PAYLOAD_SIZE; i++) largest += {HEX[i / 16 % 16], HEX[i % 16]};
    const std::pair<std::string, std::string> cases[] = {
        {"7:1>2#deadbeef", "07:01>02#DEADBEEF"},
        {"7:01>02#DE.AD.BE.EF", "07:01>02#DEADBEEF"},
        {"7:01-02#DEADBEEF", "07:01>02#DEADBEEF"},
        {"0a:0B>fF#", "0A:0B>FF#"},
        {largest, largest},
        {"", "empty frame; expected PROTO:SRC>DST#PAYLOAD"},
        {"0701>02#AA", "missing ':' after the protocol id; expected PROTO:SRC>DST#PAYLOAD"},
        {"07:01",
         "missing '>' between source and destination; expected PROTO:SRC>DST#PAYLOAD "
         "(on a shell command line quote the frame or write SRC-DST)"},
        {"07:01>02DEAD", "missing '#' before the payload (an empty payload is written PROTO:SRC>DST#)"},
        {"107:01>02#", "protocol id '107' is not 1 or 2 hex digits"},
        {"07:x1>02#", "source 'x1' is not 1 or 2 hex digits"},
        {"07:01>#", "destination '' is not 1 or 2 hex digits"},
        {"07:01>02#A.B", "payload byte 1 has one hex digit; a byte takes two"},
        {"07:01>02#AB.", "'.' may only stand between two payload bytes"},
        {"07:01>02#A\tB", "payload character 2 '\\x09' is not a hex digit"},
        {"07:01>02#AB#CD", "payload character 3 '#' is not a hex digit"},
        {largest + "00", "payload longer than 2048 bytes"},
    };
    for (const auto& [text, canonical_or_error] : cases) {
        TextFrame frame;
        std::string error;
        EXPECT_EQ(parse_frame(text, frame, error) ? format_frame(frame.view()) : error, canonical_or_error) << text;
    }
}

TEST(FrameSyntax, TheFrameOfADumpOrTapLineOrOfABareLineIsFound) {
    const std::pair<const char*, const char*> cases[] = {
        {"(1732170000.123456) 07:01>02#DEADBEEF  proto_id 7  0x01 -> 0x02  len 4", "07:01>02#DEADBEEF"},
        {"(1.000001)\t0A:01>02#  proto_id 10  manet cut short", "0A:01>02#"},
        {"(1732170000.123456) iface 12 out 07:01>02#DEADBEEF  proto_id 7", "07:01>02#DEADBEEF"},
        {"  07:01>02#AA trailing words\r", "07:01>02#AA"},
        {" \t\r", ""},
        // A stamp alone is no frame; the parser then says what is missing.
        {"(12.5)", "(12.5)"},
    };
    for (const auto& [line, field] : cases) EXPECT_EQ(frame_field_of_line(line), field) << line;
}

}  // namespace
