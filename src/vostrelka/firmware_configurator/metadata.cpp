#include "vostrelka/firmware_configurator/metadata.h"

#include <cstring>

#include "vostrelka/guarantor/BodyReader.h"

namespace vostrelka {
namespace msgs {

using tessera::BodyReader;
using tessera::BodyWriter;

namespace {

const MessageMetadata* const NO_NESTED[] = {nullptr};

// Shared shape of every encoder: check the room, then write without checks.
template <typename Message, typename WriteFields>
uint64_t encode_checked(const Message& msg, Slice<uint8_t>& out, WriteFields write_fields) {
    const uint64_t size = encoded_size(msg);
    if (out.size > out.capacity || out.room() < size) return 0;
    BodyWriter writer(out);
    write_fields(writer);
    return size;
}

// Shared shape of every decoder: read into a scratch value, hand it over
// only when every field was there.
template <typename Message, typename ReadFields>
bool decode_checked(ConstSlice<uint8_t> body, Message& out, ReadFields read_fields) {
    BodyReader reader(body);
    Message scratch;
    if (!read_fields(reader, scratch)) return false;
    out = std::move(scratch);
    return true;
}

bool same_float(float a, float b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

namespace firmware_configurator {

namespace {

const MessageMetadata* const MANET_CONFIG_NESTED[] = {&manet_config::METADATA, nullptr};

bool string_fits(const std::string& text) {
    return text.size() <= UINT32_MAX;
}

void write_fields(BodyWriter& w, const manet_config& m) {
    w.u32(m.node_manet_addr);
    w.u32(m.utm_manet_addr);
    w.u16(m.utm_inet_port);
    w.bytes(m.node_manet_key);
    w.bytes(m.utm_inet_host);
    w.string(m.generic_config_json);
}

bool read_fields(BodyReader& r, manet_config& m) {
    return r.u32(m.node_manet_addr) && r.u32(m.utm_manet_addr) && r.u16(m.utm_inet_port) && r.bytes(m.node_manet_key) &&
           r.bytes(m.utm_inet_host) && r.string(m.generic_config_json);
}

}  // namespace

const MessageMetadata utm_status::METADATA = {"utm_status", "uint32_t manet_addr;uint8_t online;", NO_NESTED};
const MessageMetadata ack::METADATA = {"ack", "int8_t status;string status_str;", NO_NESTED};
const MessageMetadata manet_config::METADATA = {
    "manet_config",
    "uint32_t node_manet_addr;uint32_t utm_manet_addr;uint16_t utm_inet_port;uint8_t[16] node_manet_key;uint8_t[32] "
    "utm_inet_host;string generic_config_json;",
    NO_NESTED};
const MessageMetadata set_config::METADATA = {
    "set_config", "uint8_t finalize;uint8_t[16] hash;manet_config manet_config;", MANET_CONFIG_NESTED};
const MessageMetadata device_config::METADATA = {
    "device_config", "uint8_t[32] device_serial;uint8_t[16] hash;uint8_t cfg_id;manet_config manet_config;",
    MANET_CONFIG_NESTED};

uint64_t encoded_size(const utm_status&) {
    return utm_status::FIXED_BODY_SIZE;
}
uint64_t encode(const utm_status& msg, Slice<uint8_t>& out) {
    return encode_checked(msg, out, [&](BodyWriter& w) {
        w.u32(msg.manet_addr);
        w.u8(msg.online);
    });
}
bool decode(ConstSlice<uint8_t> body, utm_status& out) {
    return decode_checked(body, out,
                          [](BodyReader& r, utm_status& m) { return r.u32(m.manet_addr) && r.u8(m.online); });
}

uint64_t encoded_size(const ack& msg) {
    return ack::FIXED_BODY_SIZE + msg.status_str.size();
}
uint64_t encode(const ack& msg, Slice<uint8_t>& out) {
    if (!string_fits(msg.status_str)) return 0;
    return encode_checked(msg, out, [&](BodyWriter& w) {
        w.i8(msg.status);
        w.string(msg.status_str);
    });
}
bool decode(ConstSlice<uint8_t> body, ack& out) {
    return decode_checked(body, out, [](BodyReader& r, ack& m) { return r.i8(m.status) && r.string(m.status_str); });
}

uint64_t encoded_size(const manet_config& msg) {
    return manet_config::FIXED_BODY_SIZE + msg.generic_config_json.size();
}
uint64_t encode(const manet_config& msg, Slice<uint8_t>& out) {
    if (!string_fits(msg.generic_config_json)) return 0;
    return encode_checked(msg, out, [&](BodyWriter& w) { write_fields(w, msg); });
}
bool decode(ConstSlice<uint8_t> body, manet_config& out) {
    return decode_checked(body, out, [](BodyReader& r, manet_config& m) { return read_fields(r, m); });
}

uint64_t encoded_size(const set_config& msg) {
    return set_config::FIXED_BODY_SIZE + msg.manet_config.generic_config_json.size();
}
uint64_t encode(const set_config& msg, Slice<uint8_t>& out) {
    if (!string_fits(msg.manet_config.generic_config_json)) return 0;
    return encode_checked(msg, out, [&](BodyWriter& w) {
        w.u8(msg.finalize);
        w.bytes(msg.hash);
        write_fields(w, msg.manet_config);
    });
}
bool decode(ConstSlice<uint8_t> body, set_config& out) {
    return decode_checked(body, out, [](BodyReader& r, set_config& m) {
        return r.u8(m.finalize) && r.bytes(m.hash) && read_fields(r, m.manet_config);
    });
}

uint64_t encoded_size(const device_config& msg) {
    return device_config::FIXED_BODY_SIZE + msg.manet_config.generic_config_json.size();
}
uint64_t encode(const device_config& msg, Slice<uint8_t>& out) {
    if (!string_fits(msg.manet_config.generic_config_json)) return 0;
    return encode_checked(msg, out, [&](BodyWriter& w) {
        w.bytes(msg.device_serial);
        w.bytes(msg.hash);
        w.u8(msg.cfg_id);
        write_fields(w, msg.manet_config);
    });
}
bool decode(ConstSlice<uint8_t> body, device_config& out) {
    return decode_checked(body, out, [](BodyReader& r, device_config& m) {
        return r.bytes(m.device_serial) && r.bytes(m.hash) && r.u8(m.cfg_id) && read_fields(r, m.manet_config);
    });
}

bool operator==(const utm_status& a, const utm_status& b) {
    return a.manet_addr == b.manet_addr && a.online == b.online;
}
bool operator==(const ack& a, const ack& b) {
    return a.status == b.status && a.status_str == b.status_str;
}
bool operator==(const manet_config& a, const manet_config& b) {
    return a.node_manet_addr == b.node_manet_addr && a.utm_manet_addr == b.utm_manet_addr &&
           a.utm_inet_port == b.utm_inet_port && std::memcmp(a.node_manet_key, b.node_manet_key, 16) == 0 &&
           std::memcmp(a.utm_inet_host, b.utm_inet_host, 32) == 0 && a.generic_config_json == b.generic_config_json;
}
bool operator==(const set_config& a, const set_config& b) {
    return a.finalize == b.finalize && std::memcmp(a.hash, b.hash, 16) == 0 && a.manet_config == b.manet_config;
}
bool operator==(const device_config& a, const device_config& b) {
    return std::memcmp(a.device_serial, b.device_serial, 32) == 0 && std::memcmp(a.hash, b.hash, 16) == 0 &&
           a.cfg_id == b.cfg_id && a.manet_config == b.manet_config;
}

}  // namespace firmware_configurator

namespace rfmodem {

const MessageMetadata base_config::METADATA = {"base_config", "uint32_t addr;float power;uint8_t channel;", NO_NESTED};
const MessageMetadata client_config::METADATA = {"client_config", "float power;", NO_NESTED};
const MessageMetadata stats::METADATA = {
    "stats",
    "uint32_t freq;float local_signal;float local_noise;float remote_signal;float remote_noise;uint8_t "
    "channel;uint8_t state;uint8_t local_per;uint8_t remote_per;uint8_t util_rx;uint8_t util_tx;",
    NO_NESTED};

uint64_t encoded_size(const base_config&) {
    return base_config::FIXED_BODY_SIZE;
}
uint64_t encode(const base_config& msg, Slice<uint8_t>& out) {
    return encode_checked(msg, out, [&](BodyWriter& w) {
        w.u32(msg.addr);
        w.f32(msg.power);
        w.u8(msg.channel);
    });
}
bool decode(ConstSlice<uint8_t> body, base_config& out) {
    return decode_checked(
        body, out, [](BodyReader& r, base_config& m) { return r.u32(m.addr) && r.f32(m.power) && r.u8(m.channel); });
}

uint64_t encoded_size(const client_config&) {
    return client_config::FIXED_BODY_SIZE;
}
uint64_t encode(const client_config& msg, Slice<uint8_t>& out) {
    return encode_checked(msg, out, [&](BodyWriter& w) { w.f32(msg.power); });
}
bool decode(ConstSlice<uint8_t> body, client_config& out) {
    return decode_checked(body, out, [](BodyReader& r, client_config& m) { return r.f32(m.power); });
}

uint64_t encoded_size(const stats&) {
    return stats::FIXED_BODY_SIZE;
}
uint64_t encode(const stats& msg, Slice<uint8_t>& out) {
    return encode_checked(msg, out, [&](BodyWriter& w) {
        w.u32(msg.freq);
        w.f32(msg.local_signal);
        w.f32(msg.local_noise);
        w.f32(msg.remote_signal);
        w.f32(msg.remote_noise);
        w.u8(msg.channel);
        w.u8(msg.state);
        w.u8(msg.local_per);
        w.u8(msg.remote_per);
        w.u8(msg.util_rx);
        w.u8(msg.util_tx);
    });
}
bool decode(ConstSlice<uint8_t> body, stats& out) {
    return decode_checked(body, out, [](BodyReader& r, stats& m) {
        return r.u32(m.freq) && r.f32(m.local_signal) && r.f32(m.local_noise) && r.f32(m.remote_signal) &&
               r.f32(m.remote_noise) && r.u8(m.channel) && r.u8(m.state) && r.u8(m.local_per) && r.u8(m.remote_per) &&
               r.u8(m.util_rx) && r.u8(m.util_tx);
    });
}

// Floats compare by their bits: a round trip must give back the same bytes.
bool operator==(const base_config& a, const base_config& b) {
    return a.addr == b.addr && same_float(a.power, b.power) && a.channel == b.channel;
}
bool operator==(const client_config& a, const client_config& b) {
    return same_float(a.power, b.power);
}
bool operator==(const stats& a, const stats& b) {
    return a.freq == b.freq && same_float(a.local_signal, b.local_signal) && same_float(a.local_noise, b.local_noise) &&
           same_float(a.remote_signal, b.remote_signal) && same_float(a.remote_noise, b.remote_noise) &&
           a.channel == b.channel && a.state == b.state && a.local_per == b.local_per && a.remote_per == b.remote_per &&
           a.util_rx == b.util_rx && a.util_tx == b.util_tx;
}

}  // namespace rfmodem

}  // namespace msgs
}  // namespace vostrelka
