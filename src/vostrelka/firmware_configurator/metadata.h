#pragma once
// The service message catalogue: one type per message, fields in schema
// order, with its id, its descriptor and its body codec.
//
// Each message's fields are listed once, in wire order, as schema type and
// name (the ..._FIELDS lists below). The struct's members, its schema text
// (METADATA.schema), its fixed body size, its encoder, decoder and == all
// follow from that list (MessageLayout.h); gatecat's printer and the capture
// dissector read the schema text.
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
#include <array>
#include <cstdint>

#include "vostrelka/Slice.h"
#include "vostrelka/firmware_configurator/MessageLayout.h"
#include "vostrelka/guarantor/BodyWriter.h"
#include "vostrelka/guarantor/GuarantorHeader.h"
#include "vostrelka/guarantor/MessageInfo.h"

namespace vostrelka {
namespace msgs {

// A message's id within its carrier, and its descriptor.
struct CatalogueEntry {
    uint8_t id;
    const MessageMetadata* message;
};

template <typename... Messages>
constexpr std::array<CatalogueEntry, sizeof...(Messages)> catalogue() {
    return {{{Messages::ID, &Messages::METADATA}...}};
}

namespace firmware_configurator {

#define VOSTRELKA_UTM_STATUS_FIELDS(X) X(uint32_t, manet_addr) X(uint8_t, online)
VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_UTM_STATUS_FIELDS)
struct utm_status {
    static constexpr uint8_t ID = 1;
    VOSTRELKA_MESSAGE(utm_status, VOSTRELKA_UTM_STATUS_FIELDS)
};

#define VOSTRELKA_ACK_FIELDS(X) X(int8_t, status) X(string, status_str)
VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_ACK_FIELDS)
struct ack {
    static constexpr uint8_t ID = 2;
    VOSTRELKA_MESSAGE(ack, VOSTRELKA_ACK_FIELDS)
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
#define VOSTRELKA_MANET_CONFIG_FIELDS(X) \
    X(uint32_t, node_manet_addr)         \
    X(uint32_t, utm_manet_addr)          \
    X(uint16_t, utm_inet_port)           \
    X(uint8_t[16], node_manet_key) X(uint8_t[32], utm_inet_host) X(string, generic_config_json)
VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_MANET_CONFIG_FIELDS)
struct manet_config {
    VOSTRELKA_MESSAGE(manet_config, VOSTRELKA_MANET_CONFIG_FIELDS)
};

#define VOSTRELKA_SET_CONFIG_FIELDS(X) X(uint8_t, finalize) X(uint8_t[16], hash) X(manet_config, manet_config)
VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_SET_CONFIG_FIELDS)
struct set_config {
    static constexpr uint8_t ID = 3;
    VOSTRELKA_MESSAGE(set_config, VOSTRELKA_SET_CONFIG_FIELDS)
};

// Body: device_serial 0-31, hash 32-47, cfg_id 48, then manet_config from 49
// (its generic_config_json length at 107-110, the text from 111).
#define VOSTRELKA_DEVICE_CONFIG_FIELDS(X) \
    X(uint8_t[32], device_serial) X(uint8_t[16], hash) X(uint8_t, cfg_id) X(manet_config, manet_config)
VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_DEVICE_CONFIG_FIELDS)
struct device_config {
    static constexpr uint8_t ID = 4;
    VOSTRELKA_MESSAGE(device_config, VOSTRELKA_DEVICE_CONFIG_FIELDS)
};

// What travels in service records (proto_id 8), by id.
inline constexpr auto CATALOGUE = catalogue<utm_status, ack, set_config, device_config>();

using msgs::decode, msgs::encode, msgs::encoded_size, msgs::operator==;

}  // namespace firmware_configurator

namespace rfmodem {

#define VOSTRELKA_BASE_CONFIG_FIELDS(X) X(uint32_t, addr) X(float, power) X(uint8_t, channel)
VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_BASE_CONFIG_FIELDS)
struct base_config {
    static constexpr uint8_t ID = 1;
    VOSTRELKA_MESSAGE(base_config, VOSTRELKA_BASE_CONFIG_FIELDS)
};

#define VOSTRELKA_CLIENT_CONFIG_FIELDS(X) X(float, power)
VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_CLIENT_CONFIG_FIELDS)
struct client_config {
    static constexpr uint8_t ID = 2;
    VOSTRELKA_MESSAGE(client_config, VOSTRELKA_CLIENT_CONFIG_FIELDS)
};

#define VOSTRELKA_STATS_FIELDS(X)                                                                              \
    X(uint32_t, freq)                                                                                          \
    X(float, local_signal)                                                                                     \
    X(float, local_noise)                                                                                      \
    X(float, remote_signal) X(float, remote_noise) X(uint8_t, channel) X(uint8_t, state) X(uint8_t, local_per) \
        X(uint8_t, remote_per) X(uint8_t, util_rx) X(uint8_t, util_tx)
VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_STATS_FIELDS)
struct stats {
    static constexpr uint8_t ID = 3;
    VOSTRELKA_MESSAGE(stats, VOSTRELKA_STATS_FIELDS)
};

// What travels in RF modem records (proto_id 14), by id.
inline constexpr auto CATALOGUE = catalogue<base_config, client_config, stats>();

using msgs::decode, msgs::encode, msgs::encoded_size, msgs::operator==;

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
