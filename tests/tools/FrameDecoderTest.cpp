// What `gatecat dump --decode` prints for the payloads the gateway reads.
#include <gtest/gtest.h>

#include <string>

#include "gatecat/FrameDecoder.h"
#include "gatecat/FrameSyntax.h"

using namespace vostrelka::gatecat;

namespace {

TEST(FrameDecoder, PrintsEachCarrierByItsFieldNames) {
    const auto zeros = [](size_t bytes) { return std::string(2 * bytes, '0'); };
    // Fields apart by dots. Service records: seq (4), type (1), message id
    // (1), body size (4), body. Modem records: message id, body size, body.
    const std::string device_config = "08:01>02#01000000.01.04.71000000.534E2D30303432" + zeros(25) + ".AB" +
                                      zeros(14) + "01.03.05000000.09000000.8813" + zeros(16) + ".3132372E302E302E31" +
                                      zeros(23) + ".02000000.7B7D";
    const std::pair<std::string, const char*> cases[] = {
        {"0A:01>02#01000000.0201000A.03.07.AABB", "manet 0x00000001 -> 0x0A000102 kind=3 flag=1 data=2"},
        {"0A:01>02#010203040506070809", "manet header cut short (9 of 10 bytes)"},
        {"08:01>02#2A000000.02.01.05000000.0100000A01",
         "seq=42 type=response utm_status{manet_addr=167772161 online=1}"},
        {"08:01>02#07000000.09.02.0F000000.FD.0A000000.62616420226B6579220A",
         "seq=7 type=9 ack{status=-3 status_str=\"bad \\\"key\\\"\\x0A\"}"},
        {device_config,
         "seq=1 type=request device_config{device_serial=\"SN-0042\" hash=AB000000000000000000000000000001 cfg_id=3 "
         "manet_config={node_manet_addr=5 utm_manet_addr=9 utm_inet_port=5000 "
         "node_manet_key=00000000000000000000000000000000 utm_inet_host=\"127.0.0.1\" generic_config_json=\"{}\"}}"},
        {"08:01>02#01020304050607", "no service record"},
        {"08:01>02#01000000.01.04.FF000000", "service record cut short"},
        {"0E:01>02#01.09000000.05000000.0000803F.03", "base_config{addr=5 power=1 channel=3}"},
        {"0E:01>02#01.08000000.05000000.0000803F", "base_config{addr=5 power=1 channel=<cut short>"},
        {"0E:01>02#01.09000000.05", "modem record cut short"},
        {"0E:01>02#09.00000000", "unknown message id=9 size=0"},
        // Floats in their shortest exact form.
        {"0E:01>02#02.04000000.CDCCCC3D.02.04000000.95BFD633.02.04000000.0000E8C0.02.04000000.0000A041",
         "client_config{power=0.1} | client_config{power=1e-07} | client_config{power=-7.25} | "
         "client_config{power=20}"},
        // A record one byte longer than its message, then a header cut short.
        {"0E:01>02#02.04000000.00000040.01.0A000000.05000000.0000803F.03.EE.01",
         "client_config{power=2} | base_config{addr=5 power=1 channel=3} +1 bytes | record cut short"},
        {"07:01>02#DEAD", ""},
    };
    for (const auto& [text, decoded] : cases) {
        TextFrame frame;
        std::string error;
        ASSERT_TRUE(parse_frame(text, frame, error)) << text << ": " << error;
        EXPECT_EQ(decode_frame(frame.view()), decoded) << text;
    }
}

}  // namespace
