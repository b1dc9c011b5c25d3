#ifndef KELIPC_TOOL_BENCH_WORKER_H
#define KELIPC_TOOL_BENCH_WORKER_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SyscallCounter.h"

class BenchTransport;

enum BenchRole : int32_t {
    kRoleReader = 0,  // streams in on end 0
    kRoleWriter,      // streams out on end 1
    kRolePonger,      // end 0: echoes every message
    kRolePinger,      // end 1: times round trips
    kRoleIdleReader,  // end 0: one read that waits out the idle time
    kRoleIdleWriter,  // end 1: idle, then one message
};

// What one side reports. Plain data: it crosses a pipe from the child process to the runner.
struct BenchSideResult {
    int32_t role;
    int32_t ok;   // 1 when the side finished and its own checks passed
    int32_t cpu;  // the CPU it ran on, -1 when unpinned
    int32_t pad;
    uint64_t bytes;   // payload bytes in the timed part
    uint64_t hash;    // stream checksum of everything sent or received
    int64_t beginNs;  // CLOCK_MONOTONIC at the start and the end of the timed part
    int64_t endNs;
    int64_t cpuNs;        // user + sys CPU time in the timed part
    uint64_t mismatches;  // round trips whose echo differed from what was sent
    int64_t p50Ns;        // round-trip percentiles (pinger only)
    int64_t p99Ns;
    int64_t syscalls;  // system calls of this side's thread in the timed part; -1 when not counted
    int64_t vcsw;      // its voluntary context switches there: each time it went to sleep
    char error[160];
};

// What one side does. A stream moves warmChunks untimed chunks, then chunks timed ones; a round trip
// works the same with messages of chunk bytes.
struct BenchWork {
    BenchRole role = kRoleReader;
    int end = 0;
    int cpu = -1;            // CPU to pin to; -1 leaves the thread unpinned
    bool threadCpu = false;  // CPU time of this thread only (two sides in one process)
    size_t chunk = 0;
    uint64_t warmChunks = 0;
    uint64_t chunks = 0;
    int64_t idleNs = 0;
    uint64_t seed = 0;
};

// One side of a case on its own thread: it pins itself, prepares its buffers (pre-generated payload at
// varied offsets, so that no transport gains or loses by how its buffers align), reports ready, waits for
// Go, runs, and reports done. Ready and done are one byte each on notifyFd, for a poll-based supervisor.
class BenchWorker {
public:
    BenchWorker(BenchTransport& transport, const BenchWork& work) : m_transport(transport), m_work(work) {}
    ~BenchWorker();  // releases a thread still waiting for Go and joins
    BenchWorker(const BenchWorker&) = delete;
    BenchWorker& operator=(const BenchWorker&) = delete;

    void Launch(int notifyFd);
    void Go() { Release(true); }
    void Abort() { Release(false); }
    void Join();
    const BenchSideResult& Result() const { return m_result; }  // valid after done

    static int64_t NowNs();

private:
    struct Pool {
        std::vector<char> storage;
        std::vector<char*> slots;
        std::vector<uint64_t> sums;
    };

    void Main(int notifyFd);
    void Release(bool go);
    bool WaitForGo();
    void Prepare();
    bool Run();
    bool RunStream();
    bool RunRoundTrip();
    bool RunIdle();
    // Opens the timed part: time, CPU and switch counts, then the system-call counter.
    void BeginTimed();
    // Closes it, the counter first, so that its own calls stay out of the figures.
    void EndTimed();
    void Mark(int64_t& timeNs, int64_t& cpuNs, int64_t& vcsw) const;
    static void MakePool(Pool& pool, size_t count, size_t length);
    bool Fail(const std::string& what);

    BenchTransport& m_transport;
    const BenchWork m_work;
    BenchSideResult m_result{};
    SyscallCounter m_syscalls;
    Pool m_send;
    Pool m_receive;
    std::thread m_thread;
    std::mutex m_mutex;
    std::condition_variable m_released;
    int m_state = 0;  // 0 waiting, 1 go, 2 abort
};

#endif  // KELIPC_TOOL_BENCH_WORKER_H
