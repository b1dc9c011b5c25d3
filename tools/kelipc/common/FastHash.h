#ifndef KELIPC_TOOL_FAST_HASH_H
#define KELIPC_TOOL_FAST_HASH_H

#include <cstddef>
#include <cstdint>

// XXH3 (64 bits) for the commands that check their data: at several GB/s on one core it keeps the check
// well below the cost of the transfer it verifies, so that the figures they report are the channel's.
namespace FastHash {

uint64_t Of(const void* data, size_t length, uint64_t seed = 0);

// The hash of a stream given in pieces of any size: the same as Of over the pieces joined.
class Stream {
public:
    explicit Stream(uint64_t seed = 0);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void Add(const void* data, size_t length);
    uint64_t Value() const;

private:
    void* m_state;
};

// Bytes per second of Of on cached data here, the best of a few short rounds.
double Speed();

}  // namespace FastHash

#endif  // KELIPC_TOOL_FAST_HASH_H
