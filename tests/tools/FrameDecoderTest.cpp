// What `gatecat dump --decode` prints for the payloads the gateway reads.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "gatecat/FrameDecoder.h"
#include "vostrelka/firmware_configurator/metadata.h"

namespace fc = vostrelka::msgs::firmware_configurator;
namespace rf = vostrelka::msgs::rfmodem;
using vostrelka::Slice;
using vostrelka::gatecat::decode_frame;
using vostrelka::guarantor::GuarantorHeader;
using Bytes = std::vector<uint8_t>;

namespace {

std::string decode(uint8_t proto_id, const Bytes& payload) {
    vostrelka::net_device::Frame frame;
    frame.proto_id = proto_id;
    frame.src = 0x01;
    frame.dst = 0x02;
    frame.payload = vostrelka::ConstSlice<unsigned char>(payload.data(), payload.size());
    return decode_frame(frame);
}

template <typename Message>
Bytes service_record(uint32_t seq, uint8_t type, const Message& msg) {
    Bytes storage(4096);
    Slice<uint8_t> out(storage.data(), 0, storage.size());
    GuarantorHeader header;
    header.seq = seq;
    header.type = type;
    EXPECT_NE(vostrelka::msgs::encode_guarantor_record(header, msg, out), 0u);
    storage.resize(out.size);
    return storage;
}

template <typename Message>
Bytes modem_record(const Message& msg) {
    Bytes storage(256);
    Slice<uint8_t> out(storage.data(), 0, storage.size());
    EXPECT_NE(vostrelka::msgs::encode_record(msg, out), 0u);
    storage.resize(out.size);
    return storage;
}

struct Case {
    const char* what;
    uint8_t proto_id;
    Bytes payload;
    const char* text;
};

TEST(FrameDecoder, PrintsEachCarrierByItsFieldNames) {
    const Case cases[] = {
        {"MANet header",
         10,
         {1, 0, 0, 0, 0x02, 0x01, 0, 0x0A, 3, 7, 0xAA, 0xBB},
         "manet 0x00000001 -> 0x0A000102 kind=3 flag=1 data=2"},
        {"MANet header without data",
         10,
         {0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0},
         "manet 0xFFFFFFFF -> 0x00000000 kind=0 flag=0 data=0"},
        {"MANet header cut short", 10, {1, 2, 3, 4, 5, 6, 7, 8, 9}, "manet header cut short (9 of 10 bytes)"},
        {"base_config as the modem handler sends it",
         14,
         {0x01, 0x09, 0, 0, 0, 0x05, 0, 0, 0, 0x00, 0x00, 0x80, 0x3F, 0x03},
         "base_config{addr=5 power=1 channel=3}"},
        {"base_config body one byte short",
         14,
         {0x01, 0x08, 0, 0, 0, 0x05, 0, 0, 0, 0x00, 0x00, 0x80, 0x3F},
         "base_config{addr=5 power=1 channel=<cut short>"},
        {"modem record whose size passes the payload", 14, {0x01, 0x09, 0, 0, 0, 0x05}, "modem record cut short"},
        {"unknown modem message", 14, {0x09, 0, 0, 0, 0}, "unknown message id=9 size=0"},
        {"service payload too short for a record", 8, {1, 2, 3, 4, 5, 6, 7}, "no service record"},
        {"service record whose size passes the payload",
         8,
         {1, 0, 0, 0, 1, 4, 0xFF, 0, 0, 0},
         "service record cut short"},
        {"opaque protocol", 7, {0xDE, 0xAD}, ""},
    };
    for (const Case& c : cases) EXPECT_EQ(decode(c.proto_id, c.payload), c.text) << c.what;
}

TEST(FrameDecoder, ServiceRecordShowsItsHeaderAndMessage) {
    fc::utm_status status;
    status.manet_addr = 0x0A000001;
    status.online = 1;
    EXPECT_EQ(decode(8, service_record(42, GuarantorHeader::TYPE_RESPONSE, status)),
              "seq=42 type=response utm_status{manet_addr=167772161 online=1}");

    fc::ack ack;
    ack.status = -3;
    ack.status_str = "bad \"key\"\n";
    EXPECT_EQ(decode(8, service_record(7, 9, ack)), "seq=7 type=9 ack{status=-3 status_str=\"bad \\\"key\\\"\\x0A\"}");
}

TEST(FrameDecoder, DeviceConfigPrintsNestedFieldsTextAndBytes) {
    fc::device_config config;
    std::memcpy(config.device_serial, "SN-0042", 7);
    config.hash[0] = 0xAB;
    config.hash[15] = 0x01;
    config.cfg_id = 3;
    config.manet_config.node_manet_addr = 5;
    config.manet_config.utm_manet_addr = 9;
    config.manet_config.utm_inet_port = 5000;
    std::memcpy(config.manet_config.utm_inet_host, "127.0.0.1", 9);
    config.manet_config.generic_config_json = "{}";

    EXPECT_EQ(decode(8, service_record(1, GuarantorHeader::TYPE_REQUEST, config)),
              "seq=1 type=request device_config{device_serial=\"SN-0042\" "
              "hash=AB000000000000000000000000000001 cfg_id=3 manet_config={node_manet_addr=5 utm_manet_addr=9 "
              "utm_inet_port=5000 node_manet_key=00000000000000000000000000000000 utm_inet_host=\"127.0.0.1\" "
              "generic_config_json=\"{}\"}}");
}

TEST(FrameDecoder, FloatsPrintInTheirShortestExactForm) {
    rf::client_config config;
    for (const auto& [power, text] :
         std::vector<std::pair<float, const char*>>{{20.0f, "client_config{power=20}"},
                                                    {0.1f, "client_config{power=0.1}"},
                                                    {-7.25f, "client_config{power=-7.25}"},
                                                    {1e-7f, "client_config{power=1e-07}"}}) {
        config.power = power;
        EXPECT_EQ(decode(14, modem_record(config)), text);
    }
}

TEST(FrameDecoder, BackToBackModemRecordsAreAllShownAndTrailingBytesAnnounced) {
    rf::client_config first;
    first.power = 2;
    Bytes payload = modem_record(first);
    const Bytes second = {0x01, 0x0A, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0x80, 0x3F, 3, 0xEE};  // one extra body byte
    payload.insert(payload.end(), second.begin(), second.end());
    payload.push_back(0x01);  // a record header cut short

    EXPECT_EQ(decode(14, payload),
              "client_config{power=2} | base_config{addr=5 power=1 channel=3} +1 bytes | record cut short");
}

}  // namespace
