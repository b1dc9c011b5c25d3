#include "common/FastHash.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace FastHash {

uint64_t Of(const void* data, size_t length, uint64_t seed) {
    return XXH3_64bits_withSeed(data, length, seed);
}

Stream::Stream(uint64_t seed) : m_state(XXH3_createState()) {
    XXH3_64bits_reset_withSeed(static_cast<XXH3_state_t*>(m_state), seed);
}

Stream::~Stream() {
    XXH3_freeState(static_cast<XXH3_state_t*>(m_state));
}

void Stream::Add(const void* data, size_t length) {
    XXH3_64bits_update(static_cast<XXH3_state_t*>(m_state), data, length);
}

uint64_t Stream::Value() const {
    return XXH3_64bits_digest(static_cast<const XXH3_state_t*>(m_state));
}

double Speed() {
    using Clock = std::chrono::steady_clock;
    std::vector<char> buffer(256 << 10, 'k');
    volatile uint64_t sink = Of(buffer.data(), buffer.size());  // warms the cache
    double best = 1e-9;
    for (int round = 0; round < 8; ++round) {
        const auto begin = Clock::now();
        for (int pass = 0; pass < 8; ++pass) sink = sink + Of(buffer.data(), buffer.size(), pass);
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        best = std::max(best, 8.0 * static_cast<double>(buffer.size()) / std::max(seconds, 1e-9));
    }
    return best;
}

}  // namespace FastHash
