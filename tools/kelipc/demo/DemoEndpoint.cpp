#include "DemoEndpoint.h"

#include <KelIpc.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include "common/PayloadPattern.h"
#include "common/StopSignal.h"

namespace {

constexpr uint64_t kChunk = 64 * 1024;

double SecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

}  // namespace

void DemoEndpoint::Start(uint64_t sendSeed, uint64_t recvSeed) {
    m_active = 2;
    m_writer = std::thread(&DemoEndpoint::WriterLoop, this, sendSeed);
    m_reader = std::thread(&DemoEndpoint::ReaderLoop, this, recvSeed);
}

void DemoEndpoint::Join() {
    if (m_writer.joinable()) m_writer.join();
    if (m_reader.joinable()) m_reader.join();
}

// A blocking Write passes the whole count, but a short count must not lose bytes either.
int DemoEndpoint::WriteAll(const char* data, int length) {
    for (int done = 0; done < length;) {
        const int rc = m_socket.Write(data + done, length - done);
        if (rc < 0) return rc;
        if (rc == 0) std::this_thread::yield();
        done += rc;
    }
    return IPC_OK;
}

int DemoEndpoint::ReadAll(char* buffer, int length) {
    for (int done = 0; done < length;) {
        const int rc = m_socket.Read(buffer + done, length - done);
        if (rc < 0) return rc;
        if (rc == 0) std::this_thread::yield();
        done += rc;
    }
    return IPC_OK;
}

void DemoEndpoint::WriterLoop(uint64_t seed) {
    StopSignal::BlockInThisThread();
    const PayloadPattern pattern(seed);
    std::vector<char> chunk(kChunk);
    uint64_t hash = PayloadPattern::kFnvBasis;
    int rc = IPC_OK;
    for (uint64_t sent = 0; sent < m_size && rc == IPC_OK; sent += kChunk) {
        const int length = static_cast<int>(std::min(kChunk, m_size - sent));
        pattern.Fill(sent, chunk.data(), length);
        hash = PayloadPattern::Fnv1a(hash, chunk.data(), length);
        rc = WriteAll(chunk.data(), length);
    }
    if (rc == IPC_OK) rc = WriteAll(reinterpret_cast<const char*>(&hash), sizeof hash);
    if (rc != IPC_OK) m_failed = true;
    --m_active;
}

void DemoEndpoint::ReaderLoop(uint64_t seed) {
    StopSignal::BlockInThisThread();
    const auto begin = std::chrono::steady_clock::now();
    const PayloadPattern pattern(seed);
    std::vector<char> chunk(kChunk);
    std::vector<char> expected(kChunk);
    uint64_t hash = PayloadPattern::kFnvBasis;
    DirectionResult& result = m_received;
    result.verdict = kVerdictOk;
    while (result.bytes < m_size) {
        const int length = static_cast<int>(std::min(kChunk, m_size - result.bytes));
        result.code = ReadAll(chunk.data(), length);
        if (result.code != IPC_OK) break;
        pattern.Fill(result.bytes, expected.data(), length);
        // Keep reading after a mismatch so that the stream stays in step with the writer.
        if (result.verdict == kVerdictOk && std::memcmp(chunk.data(), expected.data(), length) != 0) {
            const auto wrong = std::mismatch(chunk.begin(), chunk.begin() + length, expected.begin());
            result.verdict = kVerdictMismatch;
            result.mismatchAt = result.bytes + (wrong.first - chunk.begin());
        }
        hash = PayloadPattern::Fnv1a(hash, chunk.data(), length);
        result.bytes += length;
    }
    uint64_t sentHash = 0;
    if (result.code == IPC_OK) result.code = ReadAll(reinterpret_cast<char*>(&sentHash), sizeof sentHash);
    result.seconds = SecondsSince(begin);
    if (result.code != IPC_OK) {
        result.verdict = kVerdictFailed;
        m_failed = true;
    } else if (result.verdict == kVerdictOk && sentHash != hash) {
        result.verdict = kVerdictMismatch;
        result.mismatchAt = m_size;
    }
    --m_active;
}
