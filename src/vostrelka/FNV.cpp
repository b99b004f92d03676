#include "vostrelka/FNV.h"

namespace vostrelka {

uint64_t fnv1a_64_hash(const uint8_t* data, size_t length, uint64_t hash) {
    for (size_t i = 0; i < length; i++) {
        hash ^= data[i];
        hash *= FNV1A_64_PRIME;
    }
    return hash;
}

}  // namespace vostrelka
