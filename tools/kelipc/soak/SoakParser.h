#ifndef KELIPC_TOOL_SOAK_PARSER_H
#define KELIPC_TOOL_SOAK_PARSER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Checks a soak stream (see SoakRecord) as it arrives, in pieces of any size that split and join records
// arbitrarily. Each record must carry the next sequence number, a length within bounds, a matching
// checksum and the pattern of its sequence number; the first record that does not stops the check and is
// described by Fault. So a lost, duplicated, reordered or corrupted record is caught where it first shows.
class SoakParser {
public:
    SoakParser(uint64_t seed, uint32_t maxPayload);

    // Takes the next bytes of the stream. False once a fault is found; bytes after the end record are
    // left alone (Ended is true then).
    bool Feed(const char* data, size_t length);

    bool Ended() const { return m_ended; }
    bool Faulted() const { return !m_fault.empty(); }
    const std::string& Fault() const { return m_fault; }
    uint64_t Records() const { return m_next; }  // records checked, the end record not counted
    uint64_t Bytes() const { return m_bytes; }   // their bytes

private:
    // The size of the record that header starts, or 0 after recording a fault.
    size_t RecordSize(const char* header);
    void Check(const char* record, size_t size);
    void SetFault(const std::string& what);

    const uint64_t m_seed;
    const uint32_t m_maxPayload;
    uint64_t m_next = 0;
    uint64_t m_bytes = 0;
    bool m_ended = false;
    std::string m_fault;
    std::vector<char> m_partial;  // a record that arrived in pieces, so far
    size_t m_partialSize = 0;     // its full size once its header is in, else 0
    std::vector<char> m_expected;
};

#endif  // KELIPC_TOOL_SOAK_PARSER_H
