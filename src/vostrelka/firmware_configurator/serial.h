#pragma once
// Checks of a device's identity: its serial, its configuration message and
// its firmware version.
#include <cstdint>
#include <string_view>

#include "vostrelka/firmware_configurator/metadata.h"

namespace vostrelka {
namespace firmware_configurator {

using msgs::firmware_configurator::device_config;

constexpr uint32_t INVALID_COMPATIBILITY_NUMBER = 0xFFFFFFFF;

// The serial text holds a NUL within its 32 bytes.
bool validate_serial(const device_config& config);

// A device_config fit for use:
//  1. the serial passes validate_serial, is not empty, and is printable
//     ASCII (0x20..0x7E): it ends up in log lines and file names;
//  2. utm_inet_host holds a NUL within its 32 bytes (at most 31 characters,
//     as in the configuration file);
//  3. a device that names a UTM (utm_manet_addr not 0) also says where it
//     is: a non-empty utm_inet_host and a utm_inet_port other than 0.
// hash, cfg_id, the key and generic_config_json are the device's business.
bool validate_device_config(const device_config& config);

// Same hash (message bytes 32 to 47).
bool check_device_config_same(const device_config& a, const device_config& b);

// The third dot-separated number of a version text ("1.4.27.3" gives 27),
// looking at no more than the first 31 characters. INVALID_COMPATIBILITY_NUMBER
// when there is no third dot, or the number is empty, not all decimal digits,
// or 2^31 or more.
uint32_t get_firmware_compatibility_number(const char (&version)[32]);

// Reads the device serial from a file of "KEY value" lines (same line format
// and reader as the configuration file):
//  - only a line whose key is exactly "SERIAL" counts; a later one overrides
//    an earlier one, its validity included;
//  - the value must be 1 to 31 characters, each printable ASCII other than
//    the space (0x21..0x7E);
//  - on success `serial` holds the value, NUL-padded to 32 bytes; on failure
//    it is left as it was.
// Logs "ERROR: failed to open serial file for reading %s" when the file does
// not open; the reader logs overflow and read errors, which end the reading.
bool load_serial(std::string_view path, char (&serial)[32]);

}  // namespace firmware_configurator
}  // namespace vostrelka
