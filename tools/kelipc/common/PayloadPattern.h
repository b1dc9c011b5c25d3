#ifndef KELIPC_TOOL_PAYLOAD_PATTERN_H
#define KELIPC_TOOL_PAYLOAD_PATTERN_H

#include <cstddef>
#include <cstdint>

// A seeded payload stream: its 8-byte word i is a splitmix64 hash of (seed, i), so a receiver regenerates
// any chunk from its offset alone and the two ends agree on every byte without exchanging data.
class PayloadPattern {
public:
    static constexpr uint64_t kFnvBasis = 14695981039346656037ULL;

    explicit PayloadPattern(uint64_t seed) : m_seed(seed) {}

    // offset must be a multiple of 8.
    void Fill(uint64_t offset, char* out, size_t length) const;
    // FNV-1a 64, continued from hash over data.
    static uint64_t Fnv1a(uint64_t hash, const char* data, size_t length);

private:
    uint64_t m_seed;
};

#endif  // KELIPC_TOOL_PAYLOAD_PATTERN_H
