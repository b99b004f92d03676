#pragma once
// The service message catalogue: one type per message, fields in schema
// order, with its id, its descriptor and its body codec.
//
// Body encoding: the fields in schema order, packed, little-endian. uint8_t[N]
// is N bytes; string is a 32-bit length and that many bytes, no terminator; a
// nested message is its body inline, without a header. Decoders accept bytes
// after the last field (they are not this system's to judge) and fail on
// anything cut short.
//
// Ids are unique within one namespace, which is one carrier:
//   firmware_configurator (guarantor-framed records, proto_id 8)
//     1 utm_status, 2 ack, 3 set_config, 4 device_config;
//     manet_config travels only nested and has no id.
//   rfmodem (bare message records, proto_id 14)
//     1 base_config, 2 client_config, 3 stats.
// The devices on the other end hold the same numbers: never renumber.
#include <cstdint>
#include <string>

#include "vostrelka/Slice.h"
#include "vostrelka/guarantor/BodyWriter.h"
#include "vostrelka/guarantor/GuarantorHeader.h"
#include "vostrelka/guarantor/MessageInfo.h"

namespace vostrelka {
namespace msgs {

// Describes one message type for tools that print or check messages.
struct MessageMetadata {
    const char* name;
    const char* schema;
    const MessageMetadata* const* nested;  // descriptors of nested messages, ended by nullptr
};

namespace firmware_configurator {

struct utm_status {
    static constexpr uint8_t ID = 1;
    static constexpr uint64_t FIXED_BODY_SIZE = 5;
    static const MessageMetadata METADATA;

    uint32_t manet_addr = 0;
    uint8_t online = 0;
};

struct ack {
    static constexpr uint8_t ID = 2;
    static constexpr uint64_t FIXED_BODY_SIZE = 5;  // plus the text
    static const MessageMetadata METADATA;

    int8_t status = 0;
    std::string status_str;
};

// Body (62 bytes plus the JSON text):
//   offset  size  field
//   0       4     node_manet_addr
//   4       4     utm_manet_addr
//   8       2     utm_inet_port
//   10      16    node_manet_key       opaque to the gateway
//   26      32    utm_inet_host        text ended by the first NUL or the field's end
//   58      4     length of generic_config_json
//   62      ...   generic_config_json
struct manet_config {
    static constexpr uint64_t FIXED_BODY_SIZE = 62;  // plus the JSON text
    static const MessageMetadata METADATA;

    uint32_t node_manet_addr = 0;
    uint32_t utm_manet_addr = 0;
    uint16_t utm_inet_port = 0;
    uint8_t node_manet_key[16] = {};
    uint8_t utm_inet_host[32] = {};
    std::string generic_config_json;
};

struct set_config {
    static constexpr uint8_t ID = 3;
    static constexpr uint64_t FIXED_BODY_SIZE = 17 + firmware_configurator::manet_config::FIXED_BODY_SIZE;
    static const MessageMetadata METADATA;

    uint8_t finalize = 0;
    uint8_t hash[16] = {};
    firmware_configurator::manet_config manet_config;
};

// Body: device_serial 0-31, hash 32-47, cfg_id 48, then manet_config from 49
// (its generic_config_json length at 107-110, the text from 111).
struct device_config {
    static constexpr uint8_t ID = 4;
    static constexpr uint64_t FIXED_BODY_SIZE = 49 + firmware_configurator::manet_config::FIXED_BODY_SIZE;
    static const MessageMetadata METADATA;

    uint8_t device_serial[32] = {};
    uint8_t hash[16] = {};
    uint8_t cfg_id = 0;
    firmware_configurator::manet_config manet_config;
};

// For each message: the body size encode writes, the encoder and the decoder.
// encode appends the body to `out` and returns the bytes written, or writes
// nothing and returns 0 when the body does not fit in out's free room.
// decode reads a body from the start of `body`; false when it is cut short,
// and then `out` is left as it was.
uint64_t encoded_size(const utm_status& msg);
uint64_t encode(const utm_status& msg, Slice<uint8_t>& out);
bool decode(ConstSlice<uint8_t> body, utm_status& out);

uint64_t encoded_size(const ack& msg);
uint64_t encode(const ack& msg, Slice<uint8_t>& out);
bool decode(ConstSlice<uint8_t> body, ack& out);

uint64_t encoded_size(const manet_config& msg);
uint64_t encode(const manet_config& msg, Slice<uint8_t>& out);
bool decode(ConstSlice<uint8_t> body, manet_config& out);

uint64_t encoded_size(const set_config& msg);
uint64_t encode(const set_config& msg, Slice<uint8_t>& out);
bool decode(ConstSlice<uint8_t> body, set_config& out);

uint64_t encoded_size(const device_config& msg);
uint64_t encode(const device_config& msg, Slice<uint8_t>& out);
bool decode(ConstSlice<uint8_t> body, device_config& out);

bool operator==(const utm_status& a, const utm_status& b);
bool operator==(const ack& a, const ack& b);
bool operator==(const manet_config& a, const manet_config& b);
bool operator==(const set_config& a, const set_config& b);
bool operator==(const device_config& a, const device_config& b);

}  // namespace firmware_configurator

namespace rfmodem {

struct base_config {
    static constexpr uint8_t ID = 1;
    static constexpr uint64_t FIXED_BODY_SIZE = 9;
    static const MessageMetadata METADATA;

    uint32_t addr = 0;
    float power = 0.0f;
    uint8_t channel = 0;
};

struct client_config {
    static constexpr uint8_t ID = 2;
    static constexpr uint64_t FIXED_BODY_SIZE = 4;
    static const MessageMetadata METADATA;

    float power = 0.0f;
};

struct stats {
    static constexpr uint8_t ID = 3;
    static constexpr uint64_t FIXED_BODY_SIZE = 26;
    static const MessageMetadata METADATA;

    uint32_t freq = 0;
    float local_signal = 0.0f;
    float local_noise = 0.0f;
    float remote_signal = 0.0f;
    float remote_noise = 0.0f;
    uint8_t channel = 0;
    uint8_t state = 0;
    uint8_t local_per = 0;
    uint8_t remote_per = 0;
    uint8_t util_rx = 0;
    uint8_t util_tx = 0;
};

uint64_t encoded_size(const base_config& msg);
uint64_t encode(const base_config& msg, Slice<uint8_t>& out);
bool decode(ConstSlice<uint8_t> body, base_config& out);

uint64_t encoded_size(const client_config& msg);
uint64_t encode(const client_config& msg, Slice<uint8_t>& out);
bool decode(ConstSlice<uint8_t> body, client_config& out);

uint64_t encoded_size(const stats& msg);
uint64_t encode(const stats& msg, Slice<uint8_t>& out);
bool decode(ConstSlice<uint8_t> body, stats& out);

bool operator==(const base_config& a, const base_config& b);
bool operator==(const client_config& a, const client_config& b);
bool operator==(const stats& a, const stats& b);

}  // namespace rfmodem

// A whole message record, as the RF modem records travel: id, 32-bit body
// size, body. Appends to `out`; returns the bytes written, or 0 with nothing
// written when the record does not fit.
template <typename Message>
uint64_t encode_record(const Message& msg, Slice<uint8_t>& out) {
    const uint64_t body_size = encoded_size(msg);
    const uint64_t total = tessera::MESSAGE_HEADER_SIZE + body_size;
    if (body_size > UINT32_MAX || out.size > out.capacity || out.room() < total) return 0;
    tessera::BodyWriter writer(out);
    writer.u8(Message::ID);
    writer.u32(static_cast<uint32_t>(body_size));
    encode(msg, out);
    return total;
}

// A guarantor-framed record, as service frames carry them: the guarantor
// header, then the message record. Same contract as encode_record.
template <typename Message>
uint64_t encode_guarantor_record(const guarantor::GuarantorHeader& header, const Message& msg, Slice<uint8_t>& out) {
    const uint64_t total = guarantor::GUARANTOR_HEADER_SIZE + tessera::MESSAGE_HEADER_SIZE + encoded_size(msg);
    if (out.size > out.capacity || out.room() < total) return 0;
    tessera::BodyWriter writer(out);
    writer.u32(header.seq);
    writer.u8(header.type);
    if (encode_record(msg, out) == 0) {
        out.size -= guarantor::GUARANTOR_HEADER_SIZE;
        return 0;
    }
    return total;
}

}  // namespace msgs
}  // namespace vostrelka
