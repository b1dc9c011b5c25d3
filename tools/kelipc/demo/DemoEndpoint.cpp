#include "demo/DemoEndpoint.h"

#include <KelIpc.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "common/FastHash.h"
#include "common/PayloadPattern.h"
#include "common/StopSignal.h"

void DemoEndpoint::MakePool(uint64_t seed, Pool& pool) {
    pool.bytes.resize(kSlots * kChunk);
    PayloadPattern(seed).Fill(0, pool.bytes.data(), pool.bytes.size());
    pool.hashes.resize(kSlots);
    for (uint64_t slot = 0; slot < kSlots; ++slot) pool.hashes[slot] = FastHash::Of(pool.Slot(slot), kChunk);
}

// Both pools are made before either thread starts, so the timed part holds only transfers and checks.
void DemoEndpoint::Start(uint64_t sendSeed, uint64_t recvSeed) {
    MakePool(sendSeed, m_sendPool);
    MakePool(recvSeed, m_recvPool);
    m_active = 2;
    m_writer = std::thread(&DemoEndpoint::WriterLoop, this);
    m_reader = std::thread(&DemoEndpoint::ReaderLoop, this);
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

void DemoEndpoint::WriterLoop() {
    StopSignal::BlockInThisThread();
    int rc = IPC_OK;
    for (uint64_t chunk = 0; m_sent < m_size && rc == IPC_OK; ++chunk) {
        const int length = static_cast<int>(std::min(kChunk, m_size - m_sent));
        rc = WriteAll(m_sendPool.Slot(chunk), length);
        if (rc == IPC_OK) m_sent += static_cast<uint64_t>(length);
    }
    if (rc != IPC_OK) m_failed = true;
    --m_active;
}

void DemoEndpoint::ReaderLoop() {
    StopSignal::BlockInThisThread();
    const auto begin = std::chrono::steady_clock::now();
    std::vector<char> buffer(kChunk);
    DirectionResult& result = m_result;
    result.verdict = kVerdictOk;
    for (uint64_t chunk = 0; result.bytes < m_size; ++chunk) {
        const int length = static_cast<int>(std::min(kChunk, m_size - result.bytes));
        result.code = ReadAll(buffer.data(), length);
        if (result.code != IPC_OK) break;
        const char* expected = m_recvPool.Slot(chunk);
        const uint64_t want = length == static_cast<int>(kChunk) ? m_recvPool.hashes[chunk % kSlots]
                                                                 : FastHash::Of(expected, length);
        // Keep reading after a mismatch so that the stream stays in step with the writer.
        if (result.verdict == kVerdictOk && FastHash::Of(buffer.data(), length) != want) {
            const auto wrong = std::mismatch(buffer.data(), buffer.data() + length, expected);
            result.verdict = kVerdictMismatch;
            result.mismatchAt = result.bytes + static_cast<uint64_t>(wrong.first - buffer.data());
        }
        result.bytes += static_cast<uint64_t>(length);
        m_received = result.bytes;
    }
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    if (result.code != IPC_OK) {
        result.verdict = kVerdictFailed;
        m_failed = true;
    }
    --m_active;
}
