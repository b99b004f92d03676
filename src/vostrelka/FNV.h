#pragma once
#include <cstddef>
#include <cstdint>

namespace vostrelka {

constexpr uint64_t FNV1A_64_OFFSET_BASIS = 0xcbf29ce484222325ULL;
constexpr uint64_t FNV1A_64_PRIME = 0x100000001b3ULL;

// 64-bit FNV-1a. Start with FNV1A_64_OFFSET_BASIS, or pass an earlier result
// to continue over more data.
uint64_t fnv1a_64_hash(const uint8_t* data, size_t length, uint64_t hash);

}  // namespace vostrelka
