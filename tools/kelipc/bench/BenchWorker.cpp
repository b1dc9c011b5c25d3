#include "BenchWorker.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "BenchChecksum.h"
#include "BenchTransport.h"
#include "common/PayloadPattern.h"

namespace {

// Buffer starts: odd multiples of 64 plus small odd numbers, so that successive buffers sit differently
// against cache lines, pages and the peer's ring.
constexpr size_t kOffsets[] = {64 * 1 + 3, 64 * 3 + 5, 64 * 5 + 7, 64 * 7 + 1};
constexpr size_t kOffsetCount = sizeof kOffsets / sizeof kOffsets[0];
constexpr size_t kPage = 4096;
constexpr size_t kSendSlots = 8;
constexpr size_t kReceiveSlots = 4;

int64_t TimevalNs(const timeval& tv) {
    return static_cast<int64_t>(tv.tv_sec) * 1000000000 + static_cast<int64_t>(tv.tv_usec) * 1000;
}

// Nearest-rank percentile of sorted samples.
int64_t Percentile(const std::vector<int64_t>& sorted, double fraction) {
    if (sorted.empty()) return 0;
    size_t rank = static_cast<size_t>(fraction * static_cast<double>(sorted.size()) + 0.999999);
    rank = std::min(std::max<size_t>(rank, 1), sorted.size());
    return sorted[rank - 1];
}

}  // namespace

BenchWorker::~BenchWorker() {
    Abort();
    Join();
}

int64_t BenchWorker::NowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

void BenchWorker::Launch(int notifyFd) {
    // Signals belong to the supervising thread: block them before the thread exists, so it never sees one.
    sigset_t set;
    sigset_t old;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, &old);
    m_thread = std::thread(&BenchWorker::Main, this, notifyFd);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

void BenchWorker::Join() {
    if (m_thread.joinable()) m_thread.join();
}

void BenchWorker::Release(bool go) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_state == 0) m_state = go ? 1 : 2;
    m_released.notify_all();
}

bool BenchWorker::WaitForGo() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_released.wait(lock, [this] { return m_state != 0; });
    return m_state == 1;
}

void BenchWorker::Main(int notifyFd) {
    m_result.role = m_work.role;
    m_result.cpu = -1;
    Prepare();
    const char ready = 'r';
    const char done = 'd';
    bool ok = write(notifyFd, &ready, 1) == 1;
    if (!WaitForGo()) {
        Fail("aborted before the start");
        ok = false;
    } else {
        ok = Run() && ok;
    }
    m_result.ok = ok ? 1 : 0;
    if (write(notifyFd, &done, 1) != 1) m_result.ok = 0;
}

void BenchWorker::Prepare() {
    if (m_work.cpu >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(m_work.cpu, &set);
        if (sched_setaffinity(0, sizeof set, &set) == 0) m_result.cpu = m_work.cpu;
    }
    m_result.syscalls = -1;
    m_syscalls.Open();
    const bool sends =
        m_work.role == kRoleWriter || m_work.role == kRolePinger || m_work.role == kRoleIdleWriter;
    const bool receives = m_work.role != kRoleWriter && m_work.role != kRoleIdleWriter;
    if (sends) {
        MakePool(m_send, kSendSlots, m_work.chunk);
        const PayloadPattern pattern(m_work.seed);
        for (size_t slot = 0; slot < m_send.slots.size(); ++slot) {
            pattern.Fill(slot * m_work.chunk, m_send.slots[slot], m_work.chunk);
            m_send.sums[slot] = BenchChecksum::ChunkSum(m_send.slots[slot], m_work.chunk);
        }
    }
    if (receives) MakePool(m_receive, kReceiveSlots, m_work.chunk);
}

void BenchWorker::MakePool(Pool& pool, size_t count, size_t length) {
    const size_t stride = (length + kOffsets[kOffsetCount - 1] + 2 * kPage - 1) / kPage * kPage;
    pool.storage.assign(count * stride + kPage, 1);  // written once here, so no page faults while timed
    const uintptr_t raw = reinterpret_cast<uintptr_t>(pool.storage.data());
    char* const base = pool.storage.data() + ((kPage - raw % kPage) % kPage);
    pool.slots.resize(count);
    pool.sums.assign(count, 0);
    for (size_t slot = 0; slot < count; ++slot)
        pool.slots[slot] = base + slot * stride + kOffsets[slot % kOffsetCount];
}

bool BenchWorker::Run() {
    switch (m_work.role) {
        case kRoleReader:
        case kRoleWriter:
            return RunStream();
        case kRolePonger:
        case kRolePinger:
            return RunRoundTrip();
        case kRoleIdleReader:
        case kRoleIdleWriter:
            return RunIdle();
    }
    return Fail("unknown role");
}

bool BenchWorker::RunStream() {
    const bool writer = m_work.role == kRoleWriter;
    const uint64_t total = m_work.warmChunks + m_work.chunks;
    const size_t length = m_work.chunk;
    BenchChecksum hash;
    std::string error;
    for (uint64_t index = 0; index < total; ++index) {
        if (index == m_work.warmChunks) BeginTimed();
        if (writer) {
            const size_t slot = index % m_send.slots.size();
            if (!m_transport.WriteAll(m_work.end, m_send.slots[slot], length, error)) return Fail(error);
            hash.Add(m_send.sums[slot]);
        } else {
            char* const buffer = m_receive.slots[index % m_receive.slots.size()];
            if (!m_transport.ReadAll(m_work.end, buffer, length, error)) return Fail(error);
            hash.AddChunk(buffer, length);
        }
    }
    EndTimed();
    m_result.bytes = m_work.chunks * length;
    m_result.hash = hash.Value();
    return true;
}

bool BenchWorker::RunRoundTrip() {
    const bool pinger = m_work.role == kRolePinger;
    const uint64_t total = m_work.warmChunks + m_work.chunks;
    const size_t length = m_work.chunk;
    std::vector<int64_t> samples;
    if (pinger) samples.reserve(m_work.chunks);
    BenchChecksum hash;
    std::string error;
    for (uint64_t index = 0; index < total; ++index) {
        if (index == m_work.warmChunks) BeginTimed();
        char* const received = m_receive.slots[index % m_receive.slots.size()];
        if (pinger) {
            const size_t slot = index % m_send.slots.size();
            const int64_t begin = NowNs();
            if (!m_transport.WriteAll(m_work.end, m_send.slots[slot], length, error) ||
                !m_transport.ReadAll(m_work.end, received, length, error))
                return Fail(error);
            const int64_t end = NowNs();
            if (index >= m_work.warmChunks) samples.push_back(end - begin);
            if (std::memcmp(received, m_send.slots[slot], length) != 0) ++m_result.mismatches;
            hash.Add(m_send.sums[slot]);
        } else {
            if (!m_transport.ReadAll(m_work.end, received, length, error)) return Fail(error);
            hash.AddChunk(received, length);
            if (!m_transport.WriteAll(m_work.end, received, length, error)) return Fail(error);
        }
    }
    EndTimed();
    m_result.bytes = m_work.chunks * length;
    m_result.hash = hash.Value();
    std::sort(samples.begin(), samples.end());
    m_result.p50Ns = Percentile(samples, 0.50);
    m_result.p99Ns = Percentile(samples, 0.99);
    if (m_result.mismatches != 0) return Fail("echoed bytes differ from the bytes sent");
    return true;
}

bool BenchWorker::RunIdle() {
    std::string error;
    BenchChecksum hash;
    int64_t cpuEnd = 0;
    int64_t vcswEnd = 0;
    if (m_work.role == kRoleIdleReader) {
        char* const buffer = m_receive.slots[0];
        Mark(m_result.beginNs, m_result.cpuNs, m_result.vcsw);
        if (!m_transport.ReadAll(m_work.end, buffer, m_work.chunk, error)) return Fail(error);
        Mark(m_result.endNs, cpuEnd, vcswEnd);
        hash.AddChunk(buffer, m_work.chunk);
    } else {
        Mark(m_result.beginNs, m_result.cpuNs, m_result.vcsw);
        timespec idle{static_cast<time_t>(m_work.idleNs / 1000000000),
                      static_cast<long>(m_work.idleNs % 1000000000)};
        while (nanosleep(&idle, &idle) != 0 && errno == EINTR) {
        }
        Mark(m_result.endNs, cpuEnd, vcswEnd);
        if (!m_transport.WriteAll(m_work.end, m_send.slots[0], m_work.chunk, error)) return Fail(error);
        hash.Add(m_send.sums[0]);
    }
    m_result.cpuNs = cpuEnd - m_result.cpuNs;
    m_result.vcsw = vcswEnd - m_result.vcsw;
    m_result.bytes = m_work.chunk;
    m_result.hash = hash.Value();
    return true;
}

void BenchWorker::BeginTimed() {
    Mark(m_result.beginNs, m_result.cpuNs, m_result.vcsw);
    m_syscalls.Begin();
}

void BenchWorker::EndTimed() {
    m_result.syscalls = m_syscalls.End();
    int64_t cpuEnd = 0;
    int64_t vcswEnd = 0;
    Mark(m_result.endNs, cpuEnd, vcswEnd);
    m_result.cpuNs = cpuEnd - m_result.cpuNs;
    m_result.vcsw = vcswEnd - m_result.vcsw;
}

void BenchWorker::Mark(int64_t& timeNs, int64_t& cpuNs, int64_t& vcsw) const {
    rusage usage{};
    getrusage(m_work.threadCpu ? RUSAGE_THREAD : RUSAGE_SELF, &usage);
    cpuNs = TimevalNs(usage.ru_utime) + TimevalNs(usage.ru_stime);
    // Switches of this thread alone: the one that moves the bytes and sleeps when it must wait.
    rusage mine{};
    getrusage(RUSAGE_THREAD, &mine);
    vcsw = mine.ru_nvcsw;
    timeNs = NowNs();
}

bool BenchWorker::Fail(const std::string& what) {
    std::snprintf(m_result.error, sizeof m_result.error, "%s", what.c_str());
    return false;
}
