#pragma once
// A message declared from its one list of fields. The list is an X-macro of
// (schema type, name) pairs in wire order:
//
//   #define VOSTRELKA_BASE_CONFIG_FIELDS(X) X(uint32_t, addr) X(float, power) X(uint8_t, channel)
//   VOSTRELKA_MESSAGE_FIELD_TYPES(VOSTRELKA_BASE_CONFIG_FIELDS)
//   struct base_config {
//       static constexpr uint8_t ID = 1;
//       VOSTRELKA_MESSAGE(base_config, VOSTRELKA_BASE_CONFIG_FIELDS)
//   };
//
// gives the members (zero-initialised, so the struct stays an aggregate),
// METADATA with the schema text "uint32_t addr;float power;uint8_t channel;"
// and the messages nested in it, FIXED_BODY_SIZE, and each_field and
// all_fields, from which encoded_size, encode, decode and == below are made. Schema types:
// uint8_t, int8_t, uint16_t, uint32_t, float, uint8_t[N], string, or a
// message declared before.
//
// Each field's type gets an alias beside the struct (NAME_field_t) because a
// member may have its type's name (manet_config manet_config), which a class
// may not declare after using that name for the type. A field name has one
// type throughout its namespace: a second type for it does not compile.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

#include "vostrelka/Slice.h"
#include "vostrelka/guarantor/BodyReader.h"
#include "vostrelka/guarantor/BodyWriter.h"

namespace vostrelka {
namespace msgs {

// Describes one message type for tools that print or check messages.
struct MessageMetadata {
    const char* name;
    const char* schema;
    const MessageMetadata* const* nested;  // descriptors of nested messages, ended by nullptr
};

// The schema's names for C++ types.
using string = std::string;
template <typename T>
using field_t = T;  // lets "uint8_t[16]" name an array member's type

template <typename T, typename = void>
struct is_message : std::false_type {};
template <typename T>
struct is_message<T, std::void_t<decltype(T::METADATA)>> : std::true_type {};
template <typename T>
inline constexpr bool is_message_v = is_message<T>::value;

namespace layout {

// Bytes a field takes on the wire, a string's text not counted.
template <typename T>
constexpr uint64_t fixed_size() {
    if constexpr (is_message_v<T>) {
        return T::FIXED_BODY_SIZE;
    } else if constexpr (std::is_array_v<T>) {
        return std::extent_v<T>;
    } else if constexpr (std::is_same_v<T, std::string>) {
        return sizeof(uint32_t);
    } else {
        return sizeof(T);
    }
}

// The descriptors of the messages among Fields, ended by nullptr.
template <typename... Fields>
struct Nested {
    static constexpr size_t COUNT = (size_t{0} + ... + (is_message_v<Fields> ? 1 : 0));
    using List = std::array<const MessageMetadata*, COUNT + 1>;
    // Chosen by type, not by testing the address: under the undefined
    // behaviour checks a static's address is no longer a constant to compare.
    template <typename T>
    static constexpr void add(List& list, size_t& n) {
        if constexpr (is_message_v<T>) list[n++] = &T::METADATA;
    }
    static constexpr List make() {
        List list{};
        size_t n = 0;
        (add<Fields>(list, n), ...);
        return list;
    }
    static constexpr List LIST = make();
};

inline void write(tessera::BodyWriter& w, uint8_t value) {
    w.u8(value);
}
inline void write(tessera::BodyWriter& w, int8_t value) {
    w.i8(value);
}
inline void write(tessera::BodyWriter& w, uint16_t value) {
    w.u16(value);
}
inline void write(tessera::BodyWriter& w, uint32_t value) {
    w.u32(value);
}
inline void write(tessera::BodyWriter& w, float value) {
    w.f32(value);
}
inline void write(tessera::BodyWriter& w, const std::string& value) {
    w.string(value);
}
template <size_t N>
void write(tessera::BodyWriter& w, const uint8_t (&value)[N]) {
    w.bytes(value);
}
template <typename M, typename = std::enable_if_t<is_message_v<M>>>
void write(tessera::BodyWriter& w, const M& message) {
    M::each_field([&w](const auto& field) { write(w, field); }, message);
}

inline bool read(tessera::BodyReader& r, uint8_t& out) {
    return r.u8(out);
}
inline bool read(tessera::BodyReader& r, int8_t& out) {
    return r.i8(out);
}
inline bool read(tessera::BodyReader& r, uint16_t& out) {
    return r.u16(out);
}
inline bool read(tessera::BodyReader& r, uint32_t& out) {
    return r.u32(out);
}
inline bool read(tessera::BodyReader& r, float& out) {
    return r.f32(out);
}
inline bool read(tessera::BodyReader& r, std::string& out) {
    return r.string(out);
}
template <size_t N>
bool read(tessera::BodyReader& r, uint8_t (&out)[N]) {
    return r.bytes(out);
}
template <typename M, typename = std::enable_if_t<is_message_v<M>>>
bool read(tessera::BodyReader& r, M& message) {
    return M::all_fields([&r](auto& field) { return read(r, field); }, message);
}

// Floats compare by their bits: a round trip must give back the same bytes.
template <typename T>
bool same(const T& a, const T& b) {
    if constexpr (is_message_v<T>) {
        return T::all_fields([](const auto& x, const auto& y) { return same(x, y); }, a, b);
    } else if constexpr (std::is_array_v<T> || std::is_floating_point_v<T>) {
        return std::memcmp(&a, &b, sizeof a) == 0;
    } else {
        return a == b;
    }
}

// The text bytes of the strings in a field, and whether each fits its
// 32-bit length.
template <typename T>
void add_text(const T& field, uint64_t& bytes, bool& fits) {
    if constexpr (is_message_v<T>) {
        T::each_field([&](const auto& nested) { add_text(nested, bytes, fits); }, field);
    } else if constexpr (std::is_same_v<T, std::string>) {
        bytes += field.size();
        fits = fits && field.size() <= UINT32_MAX;
    }
}

template <typename M>
uint64_t body_size(const M& msg, bool& fits) {
    uint64_t text = 0;
    add_text(msg, text, fits);
    return M::FIXED_BODY_SIZE + text;
}

}  // namespace layout

// The body size encode writes.
template <typename M, typename = std::enable_if_t<is_message_v<M>>>
uint64_t encoded_size(const M& msg) {
    bool fits = true;
    return layout::body_size(msg, fits);
}

// Appends the body to `out` and returns the bytes written, or writes nothing
// and returns 0 when the body does not fit in out's free room.
template <typename M, typename = std::enable_if_t<is_message_v<M>>>
uint64_t encode(const M& msg, Slice<uint8_t>& out) {
    bool fits = true;
    const uint64_t size = layout::body_size(msg, fits);
    if (!fits || out.size > out.capacity || out.room() < size) return 0;
    tessera::BodyWriter writer(out);
    layout::write(writer, msg);
    return size;
}

// Reads a body from the start of `body`; false when it is cut short, and
// then `out` is left as it was.
template <typename M, typename = std::enable_if_t<is_message_v<M>>>
bool decode(ConstSlice<uint8_t> body, M& out) {
    tessera::BodyReader reader(body);
    M scratch;
    if (!layout::read(reader, scratch)) return false;
    out = std::move(scratch);
    return true;
}

template <typename M, typename = std::enable_if_t<is_message_v<M>>>
bool operator==(const M& a, const M& b) {
    return layout::same(a, b);
}

}  // namespace msgs
}  // namespace vostrelka

#define VOSTRELKA_FIELD_TYPE_ALIAS(TYPE, NAME) using NAME##_field_t = ::vostrelka::msgs::field_t<TYPE>;
#define VOSTRELKA_FIELD_MEMBER(TYPE, NAME) NAME##_field_t NAME = {};
#define VOSTRELKA_FIELD_SCHEMA(TYPE, NAME) #TYPE " " #NAME ";"
#define VOSTRELKA_FIELD_FIXED_SIZE(TYPE, NAME) +::vostrelka::msgs::layout::fixed_size<NAME##_field_t>()
#define VOSTRELKA_FIELD_TYPE(TYPE, NAME) , NAME##_field_t
#define VOSTRELKA_FIELD_VISIT(TYPE, NAME) visit(messages.NAME...);
#define VOSTRELKA_FIELD_TEST(TYPE, NAME) &&test(messages.NAME...)

#define VOSTRELKA_MESSAGE_FIELD_TYPES(FIELDS) FIELDS(VOSTRELKA_FIELD_TYPE_ALIAS)

#define VOSTRELKA_MESSAGE(NAME, FIELDS)                                                     \
    FIELDS(VOSTRELKA_FIELD_MEMBER)                                                          \
    static constexpr uint64_t FIXED_BODY_SIZE = 0 FIELDS(VOSTRELKA_FIELD_FIXED_SIZE);       \
    static constexpr ::vostrelka::msgs::MessageMetadata METADATA = {                        \
        #NAME, "" FIELDS(VOSTRELKA_FIELD_SCHEMA),                                           \
        ::vostrelka::msgs::layout::Nested<void FIELDS(VOSTRELKA_FIELD_TYPE)>::LIST.data()}; \
    /* Calls visit(field of each message...) for each field, in wire order. */              \
    template <typename Visit, typename... Messages>                                         \
    static void each_field(Visit&& visit, Messages&... messages) {                          \
        FIELDS(VOSTRELKA_FIELD_VISIT)                                                       \
    }                                                                                       \
    /* Whether test(field of each message...) holds for every field, tried in               \
       wire order until one does not. */                                                    \
    template <typename Test, typename... Messages>                                          \
    static bool all_fields(Test&& test, Messages&... messages) {                            \
        return true FIELDS(VOSTRELKA_FIELD_TEST);                                           \
    }
