#ifndef KEL_IPC_TEST_SUPPORT_H
#define KEL_IPC_TEST_SUPPORT_H

#include <pthread.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "KelCycleBuffer.h"
#include "KelLogger.h"

namespace kt {

// A name no other test or run uses: process id plus a counter. Every operating-system object derived
// from it (any "_shm" segment, any "_ssm" semaphore of the usual channel suffixes) is removed when the
// test ends, also when it fails.
std::string UniqueName(const char* tag);
// Removes the objects derived from name as well when the test ends, as for a name from UniqueName.
void Track(const std::string& name);

// Collects the logger's records while alive; restores the default sink afterwards.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<KelLogRecord> Records() const;
    size_t Count(const std::string& message) const;
    // Each record as "function|message", after checking that it came from file at level 1.
    std::vector<std::string> Lines(const std::string& file) const;

private:
    struct State;
    State* m_state;
};

// A forked copy of the test process running fn; its result becomes the exit code.
class Child {
public:
    explicit Child(const std::function<int()>& fn);
    ~Child();  // kills and reaps a child still running
    // The exit code, or -1 when the child did not end within timeoutMs (it is then killed) or died.
    int Wait(int timeoutMs);
    // True once fn has called TellReady; false when it ended first or timeoutMs passed.
    bool WaitReady(int timeoutMs);
    void Kill();
    pid_t Pid() const { return m_pid; }

private:
    int m_ready[2];
    pid_t m_pid;
};

// Inside a Child's fn: lets the parent's WaitReady return true.
void TellReady();

// Runs fn in a child and waits for it; -1 on a timeout or abnormal end.
int RunInChild(const std::function<int()>& fn, int timeoutMs = 20000);

bool ShmExists(const std::string& name);
int32_t Djb2Key(const std::string& name);
bool SemExists(const std::string& name);
void RemoveShm(const std::string& name);
void RemoveSem(const std::string& name);

// Polls pred every millisecond until it holds or timeoutMs passes.
bool WaitUntil(const std::function<bool()>& pred, int timeoutMs);

// Waits for a future with a bound; true when it became ready.
template <typename T>
bool Ready(std::future<T>& future, int timeoutMs) {
    return future.wait_for(std::chrono::milliseconds(timeoutMs)) == std::future_status::ready;
}

// Deterministic test bytes: the byte at stream offset i.
inline char PatternByte(uint64_t i) {
    return static_cast<char>((i * 131u + (i >> 8) * 7u + 17u) & 0xffu);
}
// n test bytes from stream offset from on.
std::vector<char> Pattern(size_t n, uint64_t from = 0);
// The index of the first of n bytes that differs from the pattern at from, or -1.
int64_t FirstWrong(const char* bytes, size_t n, uint64_t from);

// An end written from the ring format alone, on the ring whose header is head: positions, and signal()
// after every piece it writes; it never looks at the reserved area. When it can move nothing, pause() runs
// (a bare writer pauses and signals, a bare reader waits on the semaphore); false from it ends the stream.
// True when all total bytes of the pattern went through in order, in pieces of at most chunk.
bool BareEnd(KelCBHead* head, int64_t total, bool writes, int chunk, const std::function<bool()>& pause,
             const std::function<void()>& signal);

// True when some interleaving of two sides' steps, from the initial state on, reaches a state in which
// neither side can move and done(state) is false (a lost wake-up). A step advances its copy of the state
// and returns true, or returns false when its side cannot move.
template <typename State, typename StepA, typename StepB, typename Done>
bool FindsStuckInterleaving(StepA stepA, StepB stepB, Done done) {
    std::set<State> seen;
    std::vector<State> open{State{}};
    while (!open.empty()) {
        const State s = open.back();
        open.pop_back();
        if (!seen.insert(s).second) continue;
        State a = s, b = s;
        const bool aMoved = stepA(a);
        const bool bMoved = stepB(b);
        if (!aMoved && !bMoved && !done(s)) return true;
        if (aMoved) open.push_back(a);
        if (bMoved) open.push_back(b);
    }
    return false;
}

// Holds one thread of this process inside a SIGUSR1 handler, wherever it runs, until Release (or five
// seconds); the previous handler comes back at destruction.
class SignalHold {
public:
    SignalHold();
    ~SignalHold();
    // True once the thread is inside the handler.
    bool Hold(pthread_t thread);
    void Release();

private:
    void* m_previous;
};

// How many of the segments and semaphore sets of a Process socket's two directions exist.
int ChannelObjects(const std::string& name);

}  // namespace kt

#endif  // KEL_IPC_TEST_SUPPORT_H
