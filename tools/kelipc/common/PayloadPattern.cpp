#include "common/PayloadPattern.h"

#include <algorithm>
#include <cstring>

void PayloadPattern::Fill(uint64_t offset, char* out, size_t length) const {
    uint64_t word = offset / 8;
    for (size_t done = 0; done < length; done += 8, ++word) {
        uint64_t z = m_seed + (word + 1) * 0x9E3779B97F4A7C15ULL;
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        z ^= z >> 31;
        std::memcpy(out + done, &z, std::min<size_t>(8, length - done));
    }
}

uint64_t PayloadPattern::Fnv1a(uint64_t hash, const char* data, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        hash ^= static_cast<unsigned char>(data[i]);
        hash *= 1099511628211ULL;
    }
    return hash;
}
