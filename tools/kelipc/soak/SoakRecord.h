#ifndef KELIPC_TOOL_SOAK_RECORD_H
#define KELIPC_TOOL_SOAK_RECORD_H

#include <cstddef>
#include <cstdint>

// The unit of a soak stream: {8-byte sequence number, 4-byte payload length, payload, 8-byte XXH3 of
// everything before it}, in host byte order. The payload is a seeded pattern keyed by the sequence number,
// so a reader regenerates it from the header alone. A record whose length field is kEndLength carries no
// payload and ends the stream; its sequence number is the count of records before it.
class SoakRecord {
public:
    static constexpr size_t kHeaderSize = 12;
    static constexpr size_t kChecksumSize = 8;
    static constexpr size_t kOverhead = kHeaderSize + kChecksumSize;
    static constexpr uint32_t kEndLength = UINT32_MAX;

    // Writes the record to out, which must hold kOverhead + length bytes; returns its size.
    static size_t Encode(uint64_t seed, uint64_t sequence, uint32_t length, char* out);
    // Writes the end record (kOverhead bytes) to out; returns its size.
    static size_t EncodeEnd(uint64_t sequence, char* out);

    static void FillPayload(uint64_t seed, uint64_t sequence, char* out, size_t length);
    static uint64_t Checksum(const char* data, size_t length);

    // Fields of a record that starts at record (header) or spans size bytes (checksum).
    static uint64_t Sequence(const char* record);
    static uint32_t Length(const char* record);
    static uint64_t StoredChecksum(const char* record, size_t size);
};

#endif  // KELIPC_TOOL_SOAK_RECORD_H
