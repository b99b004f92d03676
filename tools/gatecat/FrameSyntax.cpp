#include "gatecat/FrameSyntax.h"

#include <cstdio>

namespace vostrelka {
namespace gatecat {

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// '>' reads best; '-' needs no quotes on a shell command line.
constexpr const char* ARROWS = ">-";

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// A character as it can be shown inside quotes on one line.
std::string printable(char c) {
    if (c >= 0x20 && c < 0x7F) return std::string(1, c);
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02X", static_cast<unsigned char>(c));
    return text;
}

std::string printable(std::string_view text) {
    std::string out;
    for (char c : text) out += printable(c);
    return out;
}

// One of PROTO, SRC, DST: one or two hex digits.
bool parse_byte_field(std::string_view text, const char* name, uint8_t& out, std::string& error) {
    if (text.empty() || text.size() > 2 || hex_value(text[0]) < 0 || (text.size() == 2 && hex_value(text[1]) < 0)) {
        error = std::string(name) + " '" + printable(text) + "' is not 1 or 2 hex digits";
        return false;
    }
    int value = 0;
    for (char c : text) value = value * 16 + hex_value(c);
    out = static_cast<uint8_t>(value);
    return true;
}

enum class PayloadState {
    BYTE_START,  // at the start, or after a byte: a digit or (after a byte) a '.'
    AFTER_DOT,   // a '.' was just read: a digit must follow
    LOW_DIGIT,   // the first digit of a byte was read: its second must follow
};

// Hex digit pairs with optional '.' between bytes. Appends to `out`; false
// with `error` set at the first character that breaks the form.
bool parse_payload(std::string_view text, std::vector<uint8_t>& out, std::string& error) {
    PayloadState state = PayloadState::BYTE_START;
    int high = 0;
    for (size_t i = 0; i < text.size(); i++) {
        const char c = text[i];
        const int digit = hex_value(c);
        if (c == '.') {
            if (state == PayloadState::BYTE_START && !out.empty()) {
                state = PayloadState::AFTER_DOT;
                continue;
            }
            error = state == PayloadState::LOW_DIGIT
                        ? "payload byte " + std::to_string(out.size() + 1) + " has one hex digit; a byte takes two"
                        : "'.' may only stand between two payload bytes";
            return false;
        }
        if (digit < 0) {
            error = "payload character " + std::to_string(i + 1) + " '" + printable(c) + "' is not a hex digit";
            return false;
        }
        if (state == PayloadState::LOW_DIGIT) {
            if (out.size() == MAX_TEXT_PAYLOAD_SIZE) {
                error = "payload longer than " + std::to_string(MAX_TEXT_PAYLOAD_SIZE) + " bytes";
                return false;
            }
            out.push_back(static_cast<uint8_t>(high << 4 | digit));
            state = PayloadState::BYTE_START;
        } else {
            high = digit;
            state = PayloadState::LOW_DIGIT;
        }
    }
    if (state == PayloadState::LOW_DIGIT) {
        error = "payload byte " + std::to_string(out.size() + 1) + " has one hex digit; a byte takes two";
        return false;
    }
    if (state == PayloadState::AFTER_DOT) {
        error = "'.' may only stand between two payload bytes";
        return false;
    }
    return true;
}

}  // namespace

net_device::Frame TextFrame::view() const {
    net_device::Frame frame;
    frame.proto_id = proto_id;
    frame.src = src;
    frame.dst = dst;
    frame.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
    return frame;
}

bool parse_frame(std::string_view text, TextFrame& out, std::string& error) {
    if (text.empty()) {
        error = "empty frame; expected PROTO:SRC>DST#PAYLOAD";
        return false;
    }
    const size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        error = "missing ':' after the protocol id; expected PROTO:SRC>DST#PAYLOAD";
        return false;
    }
    const size_t arrow = text.find_first_of(ARROWS, colon + 1);
    if (arrow == std::string_view::npos) {
        // Unquoted on a shell command line, "07:01>02#AA" arrives as "07:01".
        error =
            "missing '>' between source and destination; expected PROTO:SRC>DST#PAYLOAD "
            "(on a shell command line quote the frame or write SRC-DST)";
        return false;
    }
    const size_t hash = text.find('#', arrow + 1);
    if (hash == std::string_view::npos) {
        error = "missing '#' before the payload (an empty payload is written PROTO:SRC>DST#)";
        return false;
    }
    out.payload.clear();
    return parse_byte_field(text.substr(0, colon), "protocol id", out.proto_id, error) &&
           parse_byte_field(text.substr(colon + 1, arrow - colon - 1), "source", out.src, error) &&
           parse_byte_field(text.substr(arrow + 1, hash - arrow - 1), "destination", out.dst, error) &&
           parse_payload(text.substr(hash + 1), out.payload, error);
}

std::string format_frame(const net_device::Frame& frame) {
    static constexpr char DIGITS[] = "0123456789ABCDEF";
    char head[16];
    std::snprintf(head, sizeof head, "%02X:%02X>%02X#", frame.proto_id, frame.src, frame.dst);
    std::string text(head);
    text.reserve(text.size() + 2 * frame.payload.size);
    for (unsigned char byte : frame.payload) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 0x0F];
    }
    return text;
}

std::string_view frame_field_of_line(std::string_view line) {
    size_t start = 0;
    while (start < line.size() && is_blank(line[start])) start++;
    size_t end = line.size();
    while (end > start && is_blank(line[end - 1])) end--;
    line = line.substr(start, end - start);
    if (line.empty()) return line;

    size_t field = 0;
    if (line[0] == '(') {
        const size_t close = line.find(')');
        if (close != std::string_view::npos) {
            field = close + 1;
            while (field < line.size() && is_blank(line[field])) field++;
            // A stamp with nothing after it: let the frame parser say so.
            if (field == line.size()) return line;
            // A tap line names the interface and direction before the frame.
            if (line.substr(field, 6) == "iface ") {
                for (int word = 0; word < 3 && field < line.size(); word++) {
                    while (field < line.size() && !is_blank(line[field])) field++;
                    while (field < line.size() && is_blank(line[field])) field++;
                }
            }
        }
    }
    size_t field_end = field;
    while (field_end < line.size() && !is_blank(line[field_end])) field_end++;
    return line.substr(field, field_end - field);
}

}  // namespace gatecat
}  // namespace vostrelka
