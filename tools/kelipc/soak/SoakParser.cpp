#include "SoakParser.h"

#include <algorithm>
#include <cstring>

#include "SoakRecord.h"

SoakParser::SoakParser(uint64_t seed, uint32_t maxPayload) : m_seed(seed), m_maxPayload(maxPayload) {
    m_partial.reserve(SoakRecord::kOverhead + maxPayload);
    m_expected.resize(maxPayload);
}

bool SoakParser::Feed(const char* data, size_t length) {
    while (length > 0 && !m_ended && !Faulted()) {
        // Whole records are checked where they lie; only one split by the transfer sizes is copied.
        if (m_partial.empty() && length >= SoakRecord::kHeaderSize) {
            const size_t size = RecordSize(data);
            if (size == 0) break;
            if (length >= size) {
                Check(data, size);
                data += size;
                length -= size;
                continue;
            }
        }
        size_t wanted = m_partialSize ? m_partialSize : SoakRecord::kHeaderSize;
        const size_t take = std::min(length, wanted - m_partial.size());
        m_partial.insert(m_partial.end(), data, data + take);
        data += take;
        length -= take;
        if (m_partialSize == 0 && m_partial.size() == SoakRecord::kHeaderSize) {
            m_partialSize = RecordSize(m_partial.data());
            if (m_partialSize == 0) break;
        }
        if (m_partialSize != 0 && m_partial.size() == m_partialSize) {
            Check(m_partial.data(), m_partialSize);
            m_partial.clear();
            m_partialSize = 0;
        }
    }
    return !Faulted();
}

size_t SoakParser::RecordSize(const char* header) {
    const uint32_t length = SoakRecord::Length(header);
    if (length == SoakRecord::kEndLength) return SoakRecord::kOverhead;
    if (length <= m_maxPayload) return SoakRecord::kOverhead + length;
    // Nothing after a wild length can be framed again, so this is as far as the check goes.
    SetFault("length field " + std::to_string(length) + " beyond the largest payload (" +
             std::to_string(m_maxPayload) + "), sequence field " +
             std::to_string(SoakRecord::Sequence(header)) + ": header corrupted");
    return 0;
}

void SoakParser::Check(const char* record, size_t size) {
    const uint64_t sequence = SoakRecord::Sequence(record);
    const uint32_t length = SoakRecord::Length(record);
    const size_t checked = size - SoakRecord::kChecksumSize;
    if (SoakRecord::Checksum(record, checked) != SoakRecord::StoredChecksum(record, size)) {
        SetFault("checksum mismatch (sequence field " + std::to_string(sequence) + ", length " +
                 std::to_string(length == SoakRecord::kEndLength ? 0 : length) + "): record corrupted");
        return;
    }
    if (sequence != m_next) {
        std::string what = length == SoakRecord::kEndLength ? "end record" : "record";
        what += " has sequence " + std::to_string(sequence);
        if (sequence < m_next)
            what += ", already past: duplicated or reordered";
        else if (sequence - 1 == m_next)
            what += ": record " + std::to_string(m_next) + " lost or reordered";
        else
            what += ": records " + std::to_string(m_next) + ".." + std::to_string(sequence - 1) +
                    " lost or reordered";
        SetFault(what);
        return;
    }
    if (length == SoakRecord::kEndLength) {
        m_ended = true;
        return;
    }
    SoakRecord::FillPayload(m_seed, sequence, m_expected.data(), length);
    const char* payload = record + SoakRecord::kHeaderSize;
    if (std::memcmp(payload, m_expected.data(), length) != 0) {
        const auto wrong = std::mismatch(payload, payload + length, m_expected.data());
        SetFault("payload differs from its pattern at payload byte " + std::to_string(wrong.first - payload) +
                 " although its checksum matches: written wrong");
        return;
    }
    ++m_next;
    m_bytes += size;
}

void SoakParser::SetFault(const std::string& what) {
    m_fault = "record at stream byte " + std::to_string(m_bytes) + " (expected sequence " +
              std::to_string(m_next) + "): " + what;
}
