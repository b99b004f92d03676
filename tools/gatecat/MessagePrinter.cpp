#include "gatecat/MessagePrinter.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace vostrelka {
namespace gatecat {

namespace {

// Digits that tell every float from its neighbours.
constexpr int FLOAT_ROUND_TRIP_DIGITS = 9;

// Integers and arrays are read straight from the view; the bounds are
// checked before every read.
class FieldCursor {
public:
    explicit FieldCursor(ConstSlice<uint8_t> body) : body(body) {}

    uint64_t remaining() const { return body.size - pos; }
    bool take(uint64_t count, const uint8_t*& out) {
        if (remaining() < count) return false;
        out = body.data + pos;
        pos += count;
        return true;
    }
    uint64_t little_endian(const uint8_t* p, unsigned bytes) const {
        uint64_t value = 0;
        for (unsigned i = bytes; i > 0; i--) value = value << 8 | p[i - 1];
        return value;
    }

private:
    ConstSlice<uint8_t> body;
    uint64_t pos = 0;
};

void append_quoted(const uint8_t* bytes, uint64_t count, std::string& out) {
    out += '"';
    for (uint64_t i = 0; i < count; i++) {
        const uint8_t c = bytes[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
            out += escaped;
        }
    }
    out += '"';
}

void append_hex(const uint8_t* bytes, uint64_t count, std::string& out) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    for (uint64_t i = 0; i < count; i++) {
        out += DIGITS[bytes[i] >> 4];
        out += DIGITS[bytes[i] & 0x0F];
    }
}

// The length of the text when the bytes are printable text followed only by
// zero bytes, as fixed-size text fields are filled; 0 otherwise.
uint64_t padded_text_length(const uint8_t* bytes, uint64_t count) {
    uint64_t length = 0;
    while (length < count && bytes[length] != 0) {
        if (bytes[length] < 0x20 || bytes[length] >= 0x7F) return 0;
        length++;
    }
    for (uint64_t i = length; i < count; i++) {
        if (bytes[i] != 0) return 0;
    }
    return length;
}

const msgs::MessageMetadata* find_nested(const msgs::MessageMetadata& message, std::string_view name) {
    for (const msgs::MessageMetadata* const* nested = message.nested; nested && *nested; nested++) {
        if (name == (*nested)->name) return *nested;
    }
    return nullptr;
}

bool print_fields(const msgs::MessageMetadata& message, FieldCursor& cursor, std::string& out, bool with_name);

// The shortest text that reads back as the same float, without an exponent
// where the digits before the point would fit.
void append_float(float value, std::string& out) {
    int digits = 1;
    const double magnitude = std::fabs(static_cast<double>(value));
    if (magnitude >= 1 && magnitude < 1e9) digits = static_cast<int>(std::floor(std::log10(magnitude))) + 1;
    char text[32];
    for (; digits <= FLOAT_ROUND_TRIP_DIGITS; digits++) {
        std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(value));
        if (std::strtof(text, nullptr) == value) break;
    }
    out += text;
}

// One schema entry "TYPE NAME", printed as NAME=VALUE.
bool print_field(const msgs::MessageMetadata& message, std::string_view type, std::string_view name,
                 FieldCursor& cursor, std::string& out) {
    out.append(name.data(), name.size());
    out += '=';
    const uint8_t* p = nullptr;
    char text[32];
    if (type == "uint8_t" || type == "uint16_t" || type == "uint32_t") {
        const unsigned bytes = type == "uint8_t" ? 1 : type == "uint16_t" ? 2 : 4;
        if (!cursor.take(bytes, p)) return false;
        std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(cursor.little_endian(p, bytes)));
    } else if (type == "int8_t") {
        if (!cursor.take(1, p)) return false;
        std::snprintf(text, sizeof text, "%d", static_cast<int8_t>(p[0]));
    } else if (type == "float") {
        if (!cursor.take(4, p)) return false;
        const uint32_t bits = static_cast<uint32_t>(cursor.little_endian(p, 4));
        float value = 0.0f;
        std::memcpy(&value, &bits, sizeof value);
        append_float(value, out);
        return true;
    } else if (type == "string") {
        const uint8_t* length_bytes = nullptr;
        if (!cursor.take(4, length_bytes)) return false;
        const uint64_t length = cursor.little_endian(length_bytes, 4);
        if (!cursor.take(length, p)) return false;
        append_quoted(p, length, out);
        return true;
    } else if (type.size() > 9 && type.substr(0, 8) == "uint8_t[" && type.back() == ']') {
        const std::string count_text(type.substr(8, type.size() - 9));
        const uint64_t count = std::strtoull(count_text.c_str(), nullptr, 10);
        if (!cursor.take(count, p)) return false;
        const uint64_t text_length = padded_text_length(p, count);
        if (text_length > 0) {
            append_quoted(p, text_length, out);
        } else {
            append_hex(p, count, out);
        }
        return true;
    } else if (const msgs::MessageMetadata* nested = find_nested(message, type)) {
        return print_fields(*nested, cursor, out, false);
    } else {
        out += "<unknown type " + std::string(type) + ">";
        return false;
    }
    out += text;
    return true;
}

// NAME{field=value ...}, or without NAME for a nested message, whose field
// name stands before it; the cursor advances past what was read.
bool print_fields(const msgs::MessageMetadata& message, FieldCursor& cursor, std::string& out, bool with_name) {
    if (with_name) out += message.name;
    out += '{';
    std::string_view schema(message.schema);
    bool first = true;
    while (!schema.empty()) {
        const size_t end = schema.find(';');
        const std::string_view entry = schema.substr(0, end);
        schema = end == std::string_view::npos ? std::string_view() : schema.substr(end + 1);
        const size_t blank = entry.find(' ');
        if (blank == std::string_view::npos) continue;
        if (!first) out += ' ';
        first = false;
        if (!print_field(message, entry.substr(0, blank), entry.substr(blank + 1), cursor, out)) {
            if (out.back() != '>') out += "<cut short>";
            return false;
        }
    }
    out += '}';
    return true;
}

}  // namespace

bool print_message(const msgs::MessageMetadata& message, ConstSlice<uint8_t> body, std::string& out) {
    FieldCursor cursor(body);
    if (!print_fields(message, cursor, out, true)) return false;
    if (cursor.remaining() > 0) out += " +" + std::to_string(cursor.remaining()) + " bytes";
    return true;
}

}  // namespace gatecat
}  // namespace vostrelka
