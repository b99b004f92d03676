#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "vostrelka/firmware_configurator/metadata.h"

using namespace vostrelka;
using namespace vostrelka::msgs;
namespace fc = vostrelka::msgs::firmware_configurator;
namespace rf = vostrelka::msgs::rfmodem;

namespace {

template <typename Message>
std::vector<uint8_t> encode_body(const Message& msg) {
    std::vector<uint8_t> storage(encoded_size(msg) + 16, 0xEE);
    Slice<uint8_t> out(storage.data(), 0, storage.size());
    const uint64_t written = encode(msg, out);
    EXPECT_EQ(written, encoded_size(msg));
    EXPECT_EQ(out.size, written);
    storage.resize(out.size);
    return storage;
}

fc::manet_config sample_manet_config(const std::string& json) {
    fc::manet_config m;
    m.node_manet_addr = 0x11223344;
    m.utm_manet_addr = 0xA1B2C3D4;
    m.utm_inet_port = 0x1F90;
    for (int i = 0; i < 16; i++) m.node_manet_key[i] = static_cast<uint8_t>(0x60 + i);
    std::memcpy(m.utm_inet_host, "utm.example.net", 15);
    m.generic_config_json = json;
    return m;
}

fc::device_config sample_device_config(const std::string& json) {
    fc::device_config d;
    std::memcpy(d.device_serial, "SN-0042", 7);
    for (int i = 0; i < 16; i++) d.hash[i] = static_cast<uint8_t>(0x80 + i);
    d.cfg_id = 7;
    d.manet_config = sample_manet_config(json);
    return d;
}

// One valid, non-trivial value of every message, strings non-empty.
struct Samples {
    fc::utm_status utm_status{};
    fc::ack ack{};
    fc::manet_config manet_config = sample_manet_config("{\"a\":1}");
    fc::set_config set_config{};
    fc::device_config device_config = sample_device_config("{\"mode\":\"x\"}");
    rf::base_config base_config{};
    rf::client_config client_config{};
    rf::stats stats{};

    Samples() {
        utm_status.manet_addr = 0xDEADBEEF;
        utm_status.online = 1;
        ack.status = -3;
        ack.status_str = "bad hash";
        set_config.finalize = 1;
        for (int i = 0; i < 16; i++) set_config.hash[i] = static_cast<uint8_t>(i * 3);
        set_config.manet_config = sample_manet_config("{}");
        base_config = {0x01020304, -12.5f, 200};
        client_config.power = 0.25f;
        stats = {868000000, -71.5f, -100.25f, -68.0f, -99.5f, 3, 2, 10, 11, 50, 60};
    }
};

template <typename Message>
void expect_round_trip(const Message& msg) {
    SCOPED_TRACE(Message::METADATA.name);
    const std::vector<uint8_t> body = encode_body(msg);
    Message decoded;
    ASSERT_TRUE(decode(ConstSlice<uint8_t>(body.data(), body.size()), decoded));
    EXPECT_TRUE(decoded == msg);
}

// Each cut is copied into a buffer of exactly its length, so that a read past
// the end is caught by the address sanitizer.
template <typename Message>
void expect_every_truncation_fails(const Message& msg) {
    SCOPED_TRACE(Message::METADATA.name);
    const std::vector<uint8_t> body = encode_body(msg);
    for (size_t len = 0; len < body.size(); len++) {
        std::unique_ptr<uint8_t[]> cut(new uint8_t[len == 0 ? 1 : len]);
        std::memcpy(cut.get(), body.data(), len);
        Message decoded = msg;
        EXPECT_FALSE(decode(ConstSlice<uint8_t>(len == 0 ? nullptr : cut.get(), len), decoded)) << "length " << len;
        EXPECT_TRUE(decoded == msg) << "a failed decode changed its output, length " << len;
    }
}

// Body size by the schema text alone, nested messages resolved through the
// descriptor's nested list; strings count their length field only.
uint64_t schema_size(const MessageMetadata& meta) {
    static const std::map<std::string, uint64_t> scalar = {{"uint8_t", 1},  {"int8_t", 1}, {"uint16_t", 2},
                                                           {"uint32_t", 4}, {"float", 4},  {"string", 4}};
    uint64_t total = 0;
    std::string schema = meta.schema;
    size_t start = 0;
    while (start < schema.size()) {
        const size_t end = schema.find(';', start);
        EXPECT_NE(end, std::string::npos) << meta.name;
        const std::string field = schema.substr(start, end - start);
        const std::string type = field.substr(0, field.find(' '));
        start = end + 1;
        const size_t bracket = type.find('[');
        if (bracket != std::string::npos) {
            EXPECT_EQ(type.substr(0, bracket), "uint8_t");
            total += std::stoul(type.substr(bracket + 1));
        } else if (scalar.count(type)) {
            total += scalar.at(type);
        } else {
            const MessageMetadata* nested = nullptr;
            for (const MessageMetadata* const* n = meta.nested; *n != nullptr; n++)
                if (type == (*n)->name) nested = *n;
            EXPECT_NE(nested, nullptr) << meta.name << " does not list " << type;
            if (nested) total += schema_size(*nested);
        }
    }
    return total;
}

template <typename Message>
void expect_encoder_follows_schema(Message msg) {
    SCOPED_TRACE(Message::METADATA.name);
    EXPECT_EQ(encode_body(msg).size(), schema_size(Message::METADATA));
    EXPECT_EQ(Message::FIXED_BODY_SIZE, schema_size(Message::METADATA));
}

std::vector<uint8_t> bytes_of(const Slice<uint8_t>& s) {
    return std::vector<uint8_t>(s.begin(), s.end());
}

}  // namespace

TEST(Metadata, BaseConfigRecordHasTheModemLayout) {
    uint8_t storage[32];
    Slice<uint8_t> out(storage, 0, sizeof storage);
    rf::base_config config;
    config.addr = 5;
    config.power = 1.0f;
    config.channel = 3;
    ASSERT_EQ(encode_record(config, out), 14u);
    const std::vector<uint8_t> expected = {0x01, 0x09, 0x00, 0x00, 0x00, 0x05, 0x00,
                                           0x00, 0x00, 0x00, 0x00, 0x80, 0x3F, 0x03};
    EXPECT_EQ(bytes_of(out), expected);

    tessera::MessageInfo info;
    ASSERT_TRUE(tessera::read_message_record(ConstSlice<uint8_t>(out), info));
    EXPECT_EQ(info.id, rf::base_config::ID);
    rf::base_config back;
    ASSERT_TRUE(decode(info.body(), back));
    EXPECT_TRUE(back == config);
}

TEST(Metadata, EveryMessageRoundTrips) {
    Samples s;
    expect_round_trip(s.utm_status);
    expect_round_trip(s.ack);
    expect_round_trip(s.manet_config);
    expect_round_trip(s.set_config);
    expect_round_trip(s.device_config);
    expect_round_trip(s.base_config);
    expect_round_trip(s.client_config);
    expect_round_trip(s.stats);
    fc::ack empty_text;
    expect_round_trip(empty_text);
}

TEST(Metadata, EveryTruncationOfEveryBodyFails) {
    Samples s;
    expect_every_truncation_fails(s.utm_status);
    expect_every_truncation_fails(s.ack);
    expect_every_truncation_fails(s.manet_config);
    expect_every_truncation_fails(s.set_config);
    expect_every_truncation_fails(s.device_config);
    expect_every_truncation_fails(s.base_config);
    expect_every_truncation_fails(s.client_config);
    expect_every_truncation_fails(s.stats);
}

TEST(Metadata, EncodersWriteExactlyTheSchemaSize) {
    expect_encoder_follows_schema(fc::utm_status{});
    expect_encoder_follows_schema(fc::ack{});
    expect_encoder_follows_schema(fc::manet_config{});
    expect_encoder_follows_schema(fc::set_config{});
    expect_encoder_follows_schema(fc::device_config{});
    expect_encoder_follows_schema(rf::base_config{});
    expect_encoder_follows_schema(rf::client_config{});
    expect_encoder_follows_schema(rf::stats{});
}

TEST(Metadata, OnlyConfigMessagesNestManetConfig) {
    const MessageMetadata* all[] = {&fc::utm_status::METADATA,    &fc::ack::METADATA,
                                    &fc::manet_config::METADATA,  &fc::set_config::METADATA,
                                    &fc::device_config::METADATA, &rf::base_config::METADATA,
                                    &rf::client_config::METADATA, &rf::stats::METADATA};
    for (const MessageMetadata* meta : all) {
        const bool nests = meta == &fc::set_config::METADATA || meta == &fc::device_config::METADATA;
        if (nests) {
            EXPECT_EQ(meta->nested[0], &fc::manet_config::METADATA) << meta->name;
            EXPECT_EQ(meta->nested[1], nullptr) << meta->name;
        } else {
            EXPECT_EQ(meta->nested[0], nullptr) << meta->name;
        }
    }
}

TEST(Metadata, DeviceConfigFieldsSitAtTheirOffsets) {
    const std::vector<uint8_t> body = encode_body(sample_device_config("xyz"));
    ASSERT_EQ(body.size(), 114u);
    EXPECT_EQ(std::string(body.begin(), body.begin() + 7), "SN-0042");
    EXPECT_EQ(body[32], 0x80);
    EXPECT_EQ(body[47], 0x8F);
    EXPECT_EQ(body[48], 7);
    EXPECT_EQ(std::vector<uint8_t>(body.begin() + 49, body.begin() + 59),
              (std::vector<uint8_t>{0x44, 0x33, 0x22, 0x11, 0xD4, 0xC3, 0xB2, 0xA1, 0x90, 0x1F}));
    EXPECT_EQ(body[59], 0x60);
    EXPECT_EQ(body[74], 0x6F);
    EXPECT_EQ(std::string(body.begin() + 75, body.begin() + 90), "utm.example.net");
    EXPECT_EQ(body[90], 0);
    EXPECT_EQ(std::vector<uint8_t>(body.begin() + 107, body.end()), (std::vector<uint8_t>{3, 0, 0, 0, 'x', 'y', 'z'}));
}

TEST(Metadata, DecoderIgnoresBytesAfterTheLastField) {
    std::vector<uint8_t> body = encode_body(sample_device_config(""));
    body.push_back(0x55);
    fc::device_config decoded;
    ASSERT_TRUE(decode(ConstSlice<uint8_t>(body.data(), body.size()), decoded));
    EXPECT_TRUE(decoded == sample_device_config(""));
}

TEST(Metadata, EncoderAppendsAndRefusesWhatDoesNotFit) {
    uint8_t storage[20] = {};
    Slice<uint8_t> out(storage, 8, sizeof storage);
    rf::base_config config{0xAABBCCDD, 2.0f, 9};
    EXPECT_EQ(encode(config, out), 9u);
    EXPECT_EQ(out.size, 17u);
    EXPECT_EQ(storage[8], 0xDD);

    EXPECT_EQ(encode(config, out), 0u);
    EXPECT_EQ(encode_record(config, out), 0u);
    EXPECT_EQ(encode_guarantor_record(guarantor::GuarantorHeader{}, config, out), 0u);
    EXPECT_EQ(out.size, 17u);
}
