#ifndef KELIPC_TOOL_BENCH_CHECKSUM_H
#define KELIPC_TOOL_BENCH_CHECKSUM_H

#include <cstddef>
#include <cstdint>

// Stream verification cheap enough to run beside a transport at full speed: a chunk folds to the sum of
// its 8-byte words, each mixed with its index so that moved words change the sum, and the stream hash
// chains the chunk sums in order. A sender whose chunks are pre-generated adds their stored sums and so
// never touches its payload; a receiver sums what arrived while it is still in its cache.
class BenchChecksum {
public:
    // length must be a multiple of 8; data needs no alignment.
    static uint64_t ChunkSum(const char* data, size_t length);

    void Add(uint64_t chunkSum) { m_hash = (m_hash + chunkSum) * kChain; }
    void AddChunk(const char* data, size_t length) { Add(ChunkSum(data, length)); }
    uint64_t Value() const { return m_hash; }

private:
    static constexpr uint64_t kChain = 0x100000001B3ULL * 0x9E3779B97F4A7C15ULL | 1;
    uint64_t m_hash = 0xCBF29CE484222325ULL;
};

#endif  // KELIPC_TOOL_BENCH_CHECKSUM_H
