#include "vostrelka/firmware_configurator/serial.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "vostrelka/debug.h"
#include "vostrelka/firmware_configurator/LineReader.h"

namespace vostrelka {
namespace firmware_configurator {

namespace {

constexpr size_t SERIAL_FIELD_SIZE = 32;
constexpr size_t VERSION_SCAN_CHARS = 31;
constexpr uint64_t COMPATIBILITY_LIMIT = 1ull << 31;
constexpr char SERIAL_KEY[] = "SERIAL";

bool printable(char c, bool space_allowed) {
    return (c > ' ' || (space_allowed && c == ' ')) && c < 0x7F;
}

bool serial_value_valid(ConstSlice<char> value) {
    if (value.size == 0 || value.size >= SERIAL_FIELD_SIZE) return false;
    for (char c : value)
        if (!printable(c, false)) return false;
    return true;
}

}  // namespace

bool validate_serial(const device_config& config) {
    return std::memchr(config.device_serial, '\0', sizeof config.device_serial) != nullptr;
}

bool validate_device_config(const device_config& config) {
    if (!validate_serial(config) || config.device_serial[0] == '\0') return false;
    for (size_t i = 0; config.device_serial[i] != '\0'; i++)
        if (!printable(static_cast<char>(config.device_serial[i]), true)) return false;

    const auto& manet = config.manet_config;
    if (std::memchr(manet.utm_inet_host, '\0', sizeof manet.utm_inet_host) == nullptr) return false;
    if (manet.utm_manet_addr != 0 && (manet.utm_inet_host[0] == '\0' || manet.utm_inet_port == 0)) return false;
    return true;
}

bool check_device_config_same(const device_config& a, const device_config& b) {
    uint64_t words_a[2];
    uint64_t words_b[2];
    static_assert(sizeof words_a == sizeof a.hash, "the hash is two 64-bit words");
    std::memcpy(words_a, a.hash, sizeof words_a);
    std::memcpy(words_b, b.hash, sizeof words_b);
    return words_a[0] == words_b[0] && words_a[1] == words_b[1];
}

uint32_t get_firmware_compatibility_number(const char (&version)[32]) {
    size_t dots[3];
    size_t found = 0;
    for (size_t i = 0; i < VERSION_SCAN_CHARS && version[i] != '\0' && found < 3; i++)
        if (version[i] == '.') dots[found++] = i;
    if (found < 3) return INVALID_COMPATIBILITY_NUMBER;

    const size_t begin = dots[1] + 1;
    const size_t end = dots[2];
    if (begin == end) return INVALID_COMPATIBILITY_NUMBER;
    uint64_t number = 0;
    for (size_t i = begin; i < end; i++) {
        if (version[i] < '0' || version[i] > '9') return INVALID_COMPATIBILITY_NUMBER;
        number = number * 10 + static_cast<uint64_t>(version[i] - '0');
        if (number >= COMPATIBILITY_LIMIT) return INVALID_COMPATIBILITY_NUMBER;
    }
    return static_cast<uint32_t>(number);
}

bool load_serial(std::string_view path, char (&serial)[32]) {
    const std::string path_text(path);  // open() needs the terminator
    const int fd = open(path_text.c_str(), O_RDONLY);
    if (fd < 0) {
        debug("ERROR: failed to open serial file for reading %s", path_text.c_str());
        return false;
    }

    char found[SERIAL_FIELD_SIZE] = {};
    bool valid = false;
    LineReader reader(fd);
    ConstSlice<char> line;
    while (reader.next(line) == LineReader::Result::LINE) {
        ConstSlice<char> key, value;
        if (!split_key_value(line, key, value)) continue;
        if (key.size != sizeof SERIAL_KEY - 1 || std::memcmp(key.data, SERIAL_KEY, key.size) != 0) continue;
        valid = serial_value_valid(value);
        if (valid) {
            std::memset(found, 0, sizeof found);
            std::memcpy(found, value.data, value.size);
        }
    }
    close(fd);

    if (valid) std::memcpy(serial, found, sizeof found);
    return valid;
}

}  // namespace firmware_configurator
}  // namespace vostrelka
