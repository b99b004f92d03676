#pragma once
// CRC-32 with polynomial 0x04C11DB7, MSB first, no reflection, no final XOR
// (the MPEG-2 variant). Check value over "123456789" from 0xFFFFFFFF: 0x0376E6E7.
#include <cstdint>

namespace vostrelka {
namespace net_device {

extern const uint32_t crc32_table[256];

// crc = (crc << 8) ^ table[(crc >> 24) ^ byte] for each byte, from `init`.
uint32_t xcrc32(const unsigned char* data, unsigned long len, unsigned int init);

}  // namespace net_device
}  // namespace vostrelka
