#ifndef KEL_CYCLE_BUFFER_PRIVATE_H
#define KEL_CYCLE_BUFFER_PRIVATE_H

// The ring's private record and what its two sources share: the constants, the atomic access to the
// header words, and the words of the reserved area that ends of ours agree on.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>

#include "KelCycleBuffer.h"
#include "KelRingWatch.h"

class KelSemaphore;
class KelSystemSemaphore;

namespace {

const char kLogPath[] = "BaseAPI/KelIpc/src/KelCycleBuffer/KelCycleBuffer";
constexpr int kHeadLength = static_cast<int>(sizeof(KelCBHead));
constexpr int kMinBlockLength = 32768;
constexpr int kChunkDivisor = 50;
constexpr int kMinChunk = 2;
constexpr int kWriterPauseMs = 1;
constexpr int kStopPauseMs = 10;
constexpr int kStopChecks = 10;
constexpr size_t kGcmLength = sizeof(KelCBHead::gcmData);
// An end that can learn of its peer's death sleeps at most this long at a time before it looks again, and
// a look is trusted for a while, so that a flowing stream pays a clock read per call, not a system call.
constexpr int kLivenessPollMs = 150;
constexpr int64_t kLivenessTrustNs = 100 * 1000000LL;

// The end of a blocking call's bounded wait, when it has one.
class Deadline {
public:
    // An unbounded call reads no clock: at 64-byte writes a clock read per call costs a fifth of the rate.
    explicit Deadline(int timeoutMs) : m_bounded(timeoutMs > 0) {
        if (m_bounded) m_end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    }
    bool Passed() const { return m_bounded && std::chrono::steady_clock::now() >= m_end; }
    // How long the next sleep may last: up to the deadline, and no longer than pollMs when that is set
    // (0: without limit).
    int SleepMs(int pollMs) const {
        if (!m_bounded) return pollMs;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(m_end - std::chrono::steady_clock::now());
        const int leftMs = static_cast<int>(std::max<int64_t>(1, left.count() + 1));
        return pollMs > 0 ? std::min(pollMs, leftMs) : leftMs;
    }

private:
    bool m_bounded;
    std::chrono::steady_clock::time_point m_end;
};

// What a blocking call that ends early returns: the bytes it moved, when there are any, else the code.
inline int EarlyEnd(int moved, int code) {
    return moved > 0 ? moved : code;
}

// The header words are shared with another thread or process, so every access is atomic. A side loads
// the peer's position with acquire (the peer's copies are complete before it published the position)
// and publishes its own with release (our copies are complete before the peer sees it).
inline int32_t LoadRelaxed(const int32_t& word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
inline int32_t LoadAcquire(const int32_t& word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
inline void StoreRelease(int32_t& word, int32_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// Bytes stored and bytes free for data length len (at least 1) and positions w, r. Formed in 64 bits:
// with a corrupt header the results leave the 32-bit range instead of overflowing.
inline int64_t Used(int32_t len, int32_t w, int32_t r) {
    return (static_cast<int64_t>(w) + len - r) % len;
}
inline int64_t Free(int32_t len, int32_t w, int32_t r) {
    return len - 1 - Used(len, w, r);
}
inline int ClampToInt(int64_t value) {
    return static_cast<int>(value > INT32_MAX ? INT32_MAX : (value < INT32_MIN ? INT32_MIN : value));
}

// Any position or data length outside the block this object attached would make a copy stray outside
// it: such a header is refused before any byte moves. A well-formed header always passes.
inline bool InBlock(int32_t len, int32_t areaLength, int32_t pos) {
    return len >= 1 && len <= areaLength && pos >= 0 && pos < len;
}

// The wake-up handshake between two ends of ours lives in four words of the header's reserved area, the
// reader's pair and the writer's pair each on a cache line of its own (the README documents them with the
// ring format). A peer that follows only the bare protocol never writes them, and a word left 0 makes this
// end behave exactly as that protocol says: a writer signals after every piece, and nobody wakes a writer
// that waits for room, which then pauses for the whole millisecond.
//   reader word (header offset 832): 0: no reader of ours has taken part since the ring was (re)started;
//     -1: a reader of ours takes part and is awake (it announces itself again before it sleeps);
//     n > 0: it may be asleep on the semaphore until n bytes are stored.
//   writer word (header offset 896): 0: no writer of ours waits; n > 0: one waits for n bytes of room.
//   reader CPU (offset 836), writer CPU (offset 900): 0, or one more than the CPU where that end last
//     entered a blocking transfer; the other end does not spin while it runs on that same CPU.
constexpr size_t kReaderWordOffset = 0;
constexpr size_t kReaderCpuOffset = 4;
constexpr size_t kWriterWordOffset = 64;
constexpr size_t kWriterCpuOffset = 68;
constexpr int32_t kReaderAwake = -1;
static_assert(offsetof(KelCBHead, reserved) + kReaderWordOffset == 832, "reader word offset");
static_assert(offsetof(KelCBHead, reserved) + kWriterWordOffset == 896, "writer word offset");

// The ring's generation (header offset 1024), raised by every Reset, Start and Stop of ours before it
// zeroes the positions. A transfer of ours takes the generation when it begins and ends as soon as it
// changes, so none outlives a restart, even one that happened while it could not run; and it publishes
// its position with a compare-and-swap against the value it last stored, right after testing the
// generation, so that a restart between the test and the publication fails the swap (unless the
// position it swaps from is the very 0 the restart stores: see the README).
constexpr size_t kGenerationOffset = 192;
static_assert(offsetof(KelCBHead, reserved) + kGenerationOffset == 1024, "generation offset");

// The writer's end of stream (header offset 1028): 1 once a writer of ours has shut its writing down,
// stored after its last publication; our readers hand over what is left, then IPC_ERR_PEER_CLOSED. Only
// Start clears it, so that it outlives the Stop of a closing writer.
constexpr size_t kShutOffset = 196;
static_assert(offsetof(KelCBHead, reserved) + kShutOffset == 1028, "end-of-stream offset");

// An end of ours that waits on its descriptor (KelIpcSocket::PollFd) rather than in a call announces
// what it waits for (header offsets 1088 and 1092): 0: it does not wait there; n > 0: the reader waits
// for n bytes stored, the writer for n bytes of room. The other end, after each publication and fence,
// swaps a satisfied word to 0 and rings that end's descriptor through the watch; restarts and the end of
// the stream swap any word to 0 and ring.
constexpr size_t kReaderPollsOffset = 256;
constexpr size_t kWriterPollsOffset = 260;
static_assert(offsetof(KelCBHead, reserved) + kReaderPollsOffset == 1088, "reader polls offset");
static_assert(offsetof(KelCBHead, reserved) + kWriterPollsOffset == 1092, "writer polls offset");

// Between an end's store of its own word and its load of the other side's. ThreadSanitizer rejects
// fences; there a locked read-modify-write, which orders the same on x86, stands in.
inline void FullFence() {
#if defined(__SANITIZE_THREAD__)
    thread_local int anchor = 0;
    __atomic_fetch_add(&anchor, 0, __ATOMIC_SEQ_CST);
#else
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
#endif
}

// A sleeping end asks to be woken only when a quarter of the ring is there for it (or all its call
// still needs): on a busy machine that turns a wake-up per piece into one per quarter ring.
constexpr int32_t kBatchDivisor = 4;

}  // namespace

class KelCycleBufferPrivate {
public:
    char* m_buffer = nullptr;
    KelCBHead* m_head = nullptr;
    KelSemaphore* m_localSem = nullptr;
    KelSystemSemaphore* m_systemSem = nullptr;
    int32_t m_chunkSize = 0;
    KelMode m_mode = static_cast<KelMode>(-1);
    KelSide m_side = static_cast<KelSide>(-1);
    int32_t m_areaLength = 0;  // data area of the block given to the last accepted attach
    bool m_prefetch = false;   // writes ask for the ring's lines ahead of the copy
    std::atomic<bool> m_writing{false};
    std::atomic<bool> m_reading{false};
    std::atomic<bool> m_detached{false};   // the channel is closing: every call of this end leaves
    std::atomic<int32_t> m_seenWrite{-1};  // writePos at this end's last look as a reader; -1: none
    int32_t m_writeGen = 0;                // the generation the write call that has the turn began in
    int32_t m_readGen = 0;                 // the same for the read call
    KelRingWatch m_watch;
    std::atomic<int64_t> m_nextLook{0};  // coarse clock time after which a liveness answer is stale
    std::atomic<bool> m_peerGone{false};
    std::atomic<uint32_t> m_writes{0};  // write calls, for the cadence of ReaderGoneNow
    std::mutex m_attachMutex;
    std::mutex m_readMutex;
    std::mutex m_writeMutex;

    bool IsRunning() const { return m_head != nullptr && LoadAcquire(m_head->running) != 0; }
    int32_t* GenerationWord() const {
        return reinterpret_cast<int32_t*>(m_head->reserved + kGenerationOffset);
    }
    int32_t Generation() const { return m_head != nullptr ? LoadAcquire(*GenerationWord()) : 0; }
    int32_t* ShutWord() const { return reinterpret_cast<int32_t*>(m_head->reserved + kShutOffset); }
    bool WriterShut() const { return Initialised() && LoadAcquire(*ShutWord()) != 0; }
    // Running for a transfer of this object that began in generation gen: a closing channel ends its
    // calls whatever the peer does, and a restart ends those that began before it.
    bool Live(int32_t gen) const {
        return !m_detached.load(std::memory_order_relaxed) && IsRunning() && Generation() == gen;
    }
    bool LiveWriting() const { return Live(m_writeGen); }
    bool LiveReading() const { return Live(m_readGen); }
    // Attached to a block that a server has initialised; the run flag does not matter.
    bool Initialised() const { return m_head != nullptr && LoadRelaxed(m_head->dataLen) >= 1; }
    bool HasSemaphore() const { return m_localSem != nullptr || m_systemSem != nullptr; }

    int32_t* ReaderWord() const { return reinterpret_cast<int32_t*>(m_head->reserved + kReaderWordOffset); }
    int32_t* WriterWord() const { return reinterpret_cast<int32_t*>(m_head->reserved + kWriterWordOffset); }
    int32_t* ReaderCpu() const { return reinterpret_cast<int32_t*>(m_head->reserved + kReaderCpuOffset); }
    int32_t* WriterCpu() const { return reinterpret_cast<int32_t*>(m_head->reserved + kWriterCpuOffset); }
    int32_t* PollsWord(bool reader) const {
        return reinterpret_cast<int32_t*>(m_head->reserved +
                                          (reader ? kReaderPollsOffset : kWriterPollsOffset));
    }
    // Bytes stored (or free) as the header says now; 0 when a corrupt length gives no ring.
    int64_t Stored() const {
        const int32_t len = LoadRelaxed(m_head->dataLen);
        return len < 1 ? 0 : Used(len, LoadAcquire(m_head->writePos), LoadAcquire(m_head->readPos));
    }
    int64_t Room() const {
        const int32_t len = LoadRelaxed(m_head->dataLen);
        return len < 1 ? 0 : Free(len, LoadAcquire(m_head->writePos), LoadAcquire(m_head->readPos));
    }

    // clear false: the block is fresh (already zero) and a client refuses it uninitialised.
    int Attach(char* block, int length, KelSide side, KelMode mode, bool clear);
    int DataNow() const;
    int SpaceNow() const;
    bool PeerGone(bool fresh);
    bool ReaderGoneNow();
    int WaitOnSemaphore(int timeoutMs);
    int WakeReader(KelCycleBuffer& ring);
    void WakeAfterNonblockWrite();
    bool Imminent(bool reading, int need);
    // After a fence: rings the reader's (or writer's) descriptor when its polls word is set and, unless
    // any, satisfied; with any the word is swapped whatever it says (restarts, end of stream).
    void RingPoller(bool reader, bool any);
    int SleepForData(int piece, int left, int timeoutMs);
    int WriteOnce(const char* data, int count);
    int ReadOnce(char* buffer, int count);
    bool NeverFits(int count) const;
    bool Publish(int32_t& position, int32_t last, int32_t next, int32_t gen);
    int WriteNow(const char* data, int count);
    int ReadNow(char* buffer, int count);
    bool Refused(int32_t gen, int count, int& result) const;
    int WriteBlocking(KelCycleBuffer& ring, const char* data, int count);
    int ReadPieces(char* buffer, int count, bool some);
    int ReadBlocking(char* buffer, int count, bool some);
    int StreamEnd(bool fresh);
    int ReadAvailable(char* buffer, int count);
    int EndOfRead(int rc) const;
    int32_t Batch(int piece, int left) const;
    void WakeWriter(bool anyRoom);
    void SleepForRoom(int piece, int left);
    void Futex(int32_t* word, int op, int32_t value, const timespec* timeout, const char* function);
};

#endif  // KEL_CYCLE_BUFFER_PRIVATE_H
