#pragma once
// What the forwarding load generator sends and the sink reads back: one frame
// per datagram, "udp" (raw 3-byte header) or "udpserial" (serial framing),
// carrying a probe payload:
//
//   offset  size  field
//   0       8     sequence number, LE, from 0
//   8       8     send time, CLOCK_MONOTONIC ns, LE
//   16      n     filler up to the requested payload size
//
// Both programs run on the same host, so the difference between the receive
// time and the send time is the one-way latency through whatever sits between.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <time.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

namespace probe {

constexpr size_t SEQUENCE_OFFSET = 0;
constexpr size_t SEND_TIME_OFFSET = 8;
constexpr size_t MIN_PAYLOAD_SIZE = 16;
constexpr size_t MAX_PAYLOAD_SIZE = 1024;
constexpr size_t UDP_HEADER_SIZE = 3;
constexpr int64_t NS_PER_S = 1000000000;

enum class Format { UDP, UDPSERIAL };

inline std::optional<Format> parse_format(const std::string& text) {
    if (text == "udp") return Format::UDP;
    if (text == "udpserial") return Format::UDPSERIAL;
    return std::nullopt;
}

// Runs `parse` over the command line: false, with the usage text on stderr,
// when it refuses the arguments or a number in them does not convert.
template <typename Options, typename Parse>
bool parse_command_line(int argc, char** argv, Options& options, Parse parse, const char* usage) {
    bool parsed = false;
    try {
        parsed = parse(argc, argv, options);
    } catch (const std::exception&) {
        parsed = false;
    }
    if (!parsed) std::fputs(usage, stderr);
    return parsed;
}

inline int64_t now_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * NS_PER_S + ts.tv_nsec;
}

inline void put_u64(uint8_t* out, uint64_t value) {
    for (int i = 0; i < 8; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

inline uint64_t get_u64(const uint8_t* in) {
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = (value << 8) | in[i];
    return value;
}

// "127.0.0.1:5000" -> socket address; only numeric IPv4 hosts.
inline std::optional<sockaddr_in> parse_endpoint(const std::string& text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) return std::nullopt;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (inet_aton(text.substr(0, colon).c_str(), &address.sin_addr) == 0) return std::nullopt;
    char* end = nullptr;
    const unsigned long port = std::strtoul(text.c_str() + colon + 1, &end, 10);
    if (end == text.c_str() + colon + 1 || *end != '\0' || port > 65535) return std::nullopt;
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

}  // namespace probe
