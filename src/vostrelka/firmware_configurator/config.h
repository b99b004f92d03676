#pragma once
// A device's MANet settings as a file of "KEY value" lines:
//   ADDR 0A0B0C0D                          device MANet address, 8 hex digits
//   KEY 000102030405060708090A0B0C0D0E0F   16-byte key, 32 hex digits
//   UTM_ADDR 00000001                      UTM server MANet address, 8 hex digits
//   UTM_INET_ADDR utm.example.net          UTM server host, at most 31 characters
//   UTM_INET_PORT 9000                     UTM server UDP port, decimal
// '#' starts a comment line; empty lines and lines without a space are skipped.
#include "vostrelka/Slice.h"
#include "vostrelka/firmware_configurator/metadata.h"

namespace vostrelka {
namespace firmware_configurator {

using msgs::firmware_configurator::manet_config;

// True only if all five keys were read with valid values. A bad value does
// not stop the reading; every field that was read is copied into `out` even
// when the result is false. generic_config_json is left alone.
bool load_manet_config(const char* path, manet_config& out);

// Writes the five lines in the order above; false (and a log line) at the
// first failure.
bool save_manet_config(const char* path, const manet_config& config);

// Value rules. Each returns false for an invalid value.
// Up to the first 8 characters, stopping at the first non-hex one; valid only
// with exactly 8 digits, most significant first. `out` is written only when valid.
bool parse_address(ConstSlice<char> text, unsigned int& out);
// `out` is zeroed, then filled from up to the first 32 characters, a byte per
// digit pair; valid only with 32 digits. Characters after the 32nd are ignored.
bool parse_key(ConstSlice<char> text, unsigned char (&out)[16]);
bool parse_hash(ConstSlice<char> text, unsigned char (&out)[16]);
// At most 31 characters (text ends at a NUL); copied NUL-padded to 32 bytes.
// `out` is written only when valid.
bool parse_utm_inet_host(ConstSlice<char> text, unsigned char (&out)[32]);
// Decimal digits only, all of the text, below 65536. `out` is written only when valid.
bool parse_utm_inet_port(ConstSlice<char> text, unsigned short& out);

}  // namespace firmware_configurator
}  // namespace vostrelka
