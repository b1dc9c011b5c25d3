#include "SoakRecord.h"

#include <cstring>

#include "common/FastHash.h"
#include "common/PayloadPattern.h"

namespace {

uint64_t Mix(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

void PutHeader(uint64_t sequence, uint32_t length, char* out) {
    std::memcpy(out, &sequence, sizeof sequence);
    std::memcpy(out + sizeof sequence, &length, sizeof length);
}

void PutChecksum(char* record, size_t checked) {
    const uint64_t sum = SoakRecord::Checksum(record, checked);
    std::memcpy(record + checked, &sum, sizeof sum);
}

}  // namespace

size_t SoakRecord::Encode(uint64_t seed, uint64_t sequence, uint32_t length, char* out) {
    PutHeader(sequence, length, out);
    FillPayload(seed, sequence, out + kHeaderSize, length);
    PutChecksum(out, kHeaderSize + length);
    return kOverhead + length;
}

size_t SoakRecord::EncodeEnd(uint64_t sequence, char* out) {
    PutHeader(sequence, kEndLength, out);
    PutChecksum(out, kHeaderSize);
    return kOverhead;
}

// Each record's pattern comes from its own mixed seed, so that a record moved to another place in the
// stream does not match the pattern expected there, not even shifted by a word.
void SoakRecord::FillPayload(uint64_t seed, uint64_t sequence, char* out, size_t length) {
    PayloadPattern(Mix(seed ^ Mix(sequence + 0x632BE59BD9B4E019ULL))).Fill(0, out, length);
}

// Seeded with the length, so that a truncated record does not pass as its own prefix.
uint64_t SoakRecord::Checksum(const char* data, size_t length) {
    return FastHash::Of(data, length, length + 0x9E3779B97F4A7C15ULL);
}

uint64_t SoakRecord::Sequence(const char* record) {
    uint64_t sequence;
    std::memcpy(&sequence, record, sizeof sequence);
    return sequence;
}

uint32_t SoakRecord::Length(const char* record) {
    uint32_t length;
    std::memcpy(&length, record + sizeof(uint64_t), sizeof length);
    return length;
}

uint64_t SoakRecord::StoredChecksum(const char* record, size_t size) {
    uint64_t sum;
    std::memcpy(&sum, record + size - kChecksumSize, sizeof sum);
    return sum;
}
