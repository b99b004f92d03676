#include "vostrelka/firmware_configurator/config.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "vostrelka/debug.h"
#include "vostrelka/firmware_configurator/LineReader.h"

namespace vostrelka {
namespace firmware_configurator {

namespace {

constexpr size_t ADDRESS_DIGITS = 8;
constexpr size_t KEY_DIGITS = 32;
constexpr size_t HOST_FIELD_SIZE = 32;
constexpr unsigned long PORT_LIMIT = 65536;
constexpr size_t LINE_SIZE = 128;

enum Key { ADDR, KEY, UTM_ADDR, UTM_INET_ADDR, UTM_INET_PORT, KEY_COUNT };

// Matching order matters: see match_key.
constexpr const char* KEY_NAMES[KEY_COUNT] = {"ADDR", "KEY", "UTM_ADDR", "UTM_INET_ADDR", "UTM_INET_PORT"};

// The key text is compared with each name over as many characters as it has,
// but never more than the name and its NUL. So a key that is a prefix of a
// name selects the first name in order that starts with it ("" selects ADDR,
// "UTM" selects UTM_ADDR), and a key longer than a name never matches it.
// Deliberate, and kept: devices read their files by the same rule.
int match_key(ConstSlice<char> key) {
    for (int k = 0; k < KEY_COUNT; k++) {
        const size_t name_len = std::strlen(KEY_NAMES[k]);
        const size_t compared = key.size < name_len + 1 ? static_cast<size_t>(key.size) : name_len + 1;
        if (std::memcmp(key.data, KEY_NAMES[k], compared) == 0) return k;
    }
    return -1;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool parse_hex_bytes(ConstSlice<char> text, unsigned char (&out)[16]) {
    std::memset(out, 0, sizeof out);
    size_t digits = 0;
    for (; digits < KEY_DIGITS && digits < text.size; digits++) {
        const int v = hex_value(text[digits]);
        if (v < 0) break;
        out[digits / 2] = static_cast<unsigned char>(out[digits / 2] << 4 | v);
    }
    return digits == KEY_DIGITS;
}

// One line as a single write, then its newline as another.
bool write_line(int fd, const char* line) {
    const size_t len = std::strlen(line);
    if (write(fd, line, len) != static_cast<ssize_t>(len)) {
        debug("ERROR: failed to write into configuration file, Line: %s", line);
        return false;
    }
    if (write(fd, "\n", 1) != 1) {
        debug("ERROR: failed to write newline into configuration file");
        return false;
    }
    return true;
}

void format_address(char (&line)[LINE_SIZE], const char* name, unsigned int addr) {
    std::snprintf(line, sizeof line, "%s %02X%02X%02X%02X", name, addr >> 24 & 0xFF, addr >> 16 & 0xFF,
                  addr >> 8 & 0xFF, addr & 0xFF);
}

}  // namespace

bool parse_address(ConstSlice<char> text, unsigned int& out) {
    unsigned int value = 0;
    size_t digits = 0;
    for (; digits < ADDRESS_DIGITS && digits < text.size; digits++) {
        const int v = hex_value(text[digits]);
        if (v < 0) break;
        value = value << 4 | static_cast<unsigned int>(v);
    }
    if (digits != ADDRESS_DIGITS) return false;
    out = value;
    return true;
}

bool parse_key(ConstSlice<char> text, unsigned char (&out)[16]) {
    return parse_hex_bytes(text, out);
}

bool parse_hash(ConstSlice<char> text, unsigned char (&out)[16]) {
    return parse_hex_bytes(text, out);
}

bool parse_utm_inet_host(ConstSlice<char> text, unsigned char (&out)[32]) {
    if (text.size > HOST_FIELD_SIZE) return false;
    const void* nul = text.size == 0 ? nullptr : std::memchr(text.data, '\0', text.size);
    const size_t len = nul ? static_cast<size_t>(static_cast<const char*>(nul) - text.data) : text.size;
    if (len >= HOST_FIELD_SIZE) return false;
    std::memset(out, 0, sizeof out);
    if (len > 0) std::memcpy(out, text.data, len);
    return true;
}

bool parse_utm_inet_port(ConstSlice<char> text, unsigned short& out) {
    if (text.size == 0) return false;
    unsigned long value = 0;
    for (uint64_t i = 0; i < text.size; i++) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + static_cast<unsigned long>(text[i] - '0');
        if (value >= PORT_LIMIT) return false;
    }
    out = static_cast<unsigned short>(value);
    return true;
}

bool load_manet_config(const char* path, manet_config& out) {
    const int fd = open(path, O_RDONLY);
    if (fd < 0) {
        debug("ERROR: failed to open config file for reading %s", path);
        return false;
    }

    // The fields start from out's values, so copying them all back at the
    // end changes exactly the fields that were read.
    unsigned int node_addr = out.node_manet_addr;
    unsigned char key[16];
    std::memcpy(key, out.node_manet_key, sizeof key);
    unsigned int utm_addr = out.utm_manet_addr;
    unsigned char host[32];
    std::memcpy(host, out.utm_inet_host, sizeof host);
    unsigned short port = out.utm_inet_port;
    bool valid[KEY_COUNT] = {};

    LineReader reader(fd);
    ConstSlice<char> line;
    while (reader.next(line) == LineReader::Result::LINE) {
        ConstSlice<char> name, value;
        if (!split_key_value(line, name, value)) continue;
        const int k = match_key(name);
        if (k == ADDR) valid[k] = parse_address(value, node_addr);
        if (k == KEY) valid[k] = parse_key(value, key);
        if (k == UTM_ADDR) valid[k] = parse_address(value, utm_addr);
        if (k == UTM_INET_ADDR) valid[k] = parse_utm_inet_host(value, host);
        if (k == UTM_INET_PORT) valid[k] = parse_utm_inet_port(value, port);
    }
    close(fd);

    out.node_manet_addr = node_addr;
    std::memcpy(out.node_manet_key, key, sizeof key);
    out.utm_manet_addr = utm_addr;
    std::memcpy(out.utm_inet_host, host, sizeof host);
    out.utm_inet_port = port;
    for (bool v : valid)
        if (!v) return false;
    return true;
}

bool save_manet_config(const char* path, const manet_config& config) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        debug("ERROR: failed to open config file for writing %s", path);
        return false;
    }

    char lines[KEY_COUNT][LINE_SIZE];
    format_address(lines[ADDR], "ADDR", config.node_manet_addr);
    int used = std::snprintf(lines[KEY], LINE_SIZE, "KEY ");
    for (unsigned char byte : config.node_manet_key)
        used += std::snprintf(lines[KEY] + used, LINE_SIZE - static_cast<size_t>(used), "%02X", byte);
    format_address(lines[UTM_ADDR], "UTM_ADDR", config.utm_manet_addr);
    const char* host = reinterpret_cast<const char*>(config.utm_inet_host);
    std::snprintf(lines[UTM_INET_ADDR], LINE_SIZE, "UTM_INET_ADDR %.*s",
                  static_cast<int>(strnlen(host, HOST_FIELD_SIZE)), host);
    std::snprintf(lines[UTM_INET_PORT], LINE_SIZE, "UTM_INET_PORT %u", static_cast<unsigned>(config.utm_inet_port));

    bool ok = true;
    for (int k = 0; k < KEY_COUNT && ok; k++) ok = write_line(fd, lines[k]);
    close(fd);
    return ok;
}

}  // namespace firmware_configurator
}  // namespace vostrelka
