#include "KelCycleBuffer.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <mutex>

#include "KelDateTime.h"
#include "KelIpcLog.h"
#include "KelRingWatch.h"
#include "KelSecureMem.h"
#include "KelSemaphore.h"
#include "KelSystemSemaphore.h"

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

int64_t CoarseNowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

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

// A peer on another CPU usually answers within a few microseconds, while a sleep costs a system call on
// each side and tens of microseconds to wake from. So a transfer that finds too little data or room
// re-tests the ring for a short, bounded time first. Spinning pays only while the peer can run beside
// us and is moving: not when it last entered a transfer on the CPU we run on (it waits for our time
// slice), and not past a stretch in which its position has not moved (it is preempted or idle). Past
// either bound the transfer sleeps, so an idle connection burns no CPU.
constexpr auto kSpinBound = std::chrono::microseconds(50);
constexpr auto kStallBound = std::chrono::microseconds(30);
// The affinity mask can change while a thread runs (programs pin their threads), so look again now and then.
constexpr auto kAffinityRecheck = std::chrono::milliseconds(100);

bool ConfinedToOneCpu() {
    thread_local bool checked = false;
    thread_local bool confined = false;
    thread_local std::chrono::steady_clock::time_point checkedAt;
    const auto now = std::chrono::steady_clock::now();
    if (!checked || now - checkedAt >= kAffinityRecheck) {
        cpu_set_t set;
        CPU_ZERO(&set);
        confined = sched_getaffinity(0, sizeof(set), &set) == 0 && CPU_COUNT(&set) == 1;
        checked = true;
        checkedAt = now;
    }
    return confined;
}

// Publishes the CPU this end runs on, plus one (0 is unknown), storing only a change so that the word
// stays in the peer's cache; returns it.
int32_t PublishCpu(int32_t* ownCpu) {
    const int cpu = sched_getcpu();
    if (cpu < 0) return 0;
    if (__atomic_load_n(ownCpu, __ATOMIC_RELAXED) != cpu + 1)
        __atomic_store_n(ownCpu, cpu + 1, __ATOMIC_RELAXED);
    return cpu + 1;
}

// Whether the peer can run beside us while we spin. One that last entered a transfer on the CPU we run on
// waits for our time slice (the scheduler put us together, or both are pinned there); a thread confined
// to one CPU spins only for a peer known to run elsewhere.
bool PeerCanRunBeside(int32_t* ownCpu, const int32_t* peerCpu) {
    const int32_t cpu = PublishCpu(ownCpu);
    const int32_t peer = __atomic_load_n(peerCpu, __ATOMIC_RELAXED);
    if (cpu != 0 && peer == cpu) return false;
    return peer != 0 || !ConfinedToOneCpu();
}

// peerPos is the position the peer moves while it makes progress.
template <typename Ready>
bool SpinUntil(Ready ready, const int32_t& peerPos) {
    auto now = std::chrono::steady_clock::now();
    const auto deadline = now + kSpinBound;
    auto stalledAt = now + kStallBound;
    int32_t seen = LoadRelaxed(peerPos);
    for (;;) {
        for (int i = 0; i < 32; ++i) {
            if (ready()) return true;
            __builtin_ia32_pause();
        }
        now = std::chrono::steady_clock::now();
        const int32_t position = LoadRelaxed(peerPos);
        if (position != seen) {
            seen = position;
            stalledAt = now + kStallBound;
        }
        if (now > deadline || now > stalledAt) return false;
    }
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

inline bool Copy(char* dest, int64_t count, const char* src) {
    // A negative count converts to a size above the copy's limit and is refused there.
    return kel::memcpy_s(dest, static_cast<size_t>(count), src, static_cast<size_t>(count)) == 0;
}

// In a data area larger than the L2 cache, the lines a writer is about to fill have left both CPUs'
// caches since the last lap, and the copy's stores would meet their fetches one after another. Asking for
// the lines a step ahead of the copy overlaps the fetches with the copying (9 to 13-14 GB/s at 4 MiB
// blocks with a 2 MiB L2). A ring that fits stays in the reader's cache, where early requests only
// contend with the reader (half the speed at 256 KiB blocks): there the copy is plain.
constexpr int64_t kPrefetchStep = 8192;
constexpr int64_t kCacheLine = 64;

bool PrefetchHelps(int32_t areaLength) {
    static const long l2 = sysconf(_SC_LEVEL2_CACHE_SIZE);
    return l2 > 0 && areaLength > l2;
}

inline bool CopyIntoRing(char* dest, int64_t count, const char* src, bool prefetch) {
    // Whatever the copy refuses goes to it whole, so a refusal clears what it always cleared.
    if (!prefetch || src == nullptr || count <= 0) return Copy(dest, count, src);
    int64_t requested = 0;
    for (int64_t done = 0; done < count; done += kPrefetchStep) {
        const int64_t step = std::min(count - done, kPrefetchStep);
        const int64_t ahead = std::min(count, done + 2 * kPrefetchStep);
        for (; requested < ahead; requested += kCacheLine) __builtin_prefetch(dest + requested, 1, 3);
        if (!Copy(dest + done, step, src + done)) return false;
    }
    return true;
}

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

// An in-process ring lives in private memory, where the cheaper process-private futex is enough.
void KelCycleBufferPrivate::Futex(int32_t* word, int op, int32_t value, const timespec* timeout,
                                  const char* function) {
    if (m_systemSem == nullptr) op |= FUTEX_PRIVATE_FLAG;
    const int err = errno;
    const long rc = syscall(SYS_futex, word, op, value, timeout, nullptr, 0);
    // A changed word, a timeout and a signal all mean the same to a waiter: test the ring again.
    if (rc == -1 && errno != EAGAIN && errno != ETIMEDOUT && errno != EINTR) {
        const int failed = errno;
        KEL_IPC_LOG(kLogPath, function, "futex fail, rc=%d, errno=%d", static_cast<int>(rc), failed);
        if ((op & FUTEX_CMD_MASK) == FUTEX_WAIT) KelSleep(kWriterPauseMs);  // pause as the bare protocol does
    }
    errno = err;
}

int KelCycleBufferPrivate::DataNow() const {
    return IsRunning() ? ClampToInt(Stored()) : 0;
}

int KelCycleBufferPrivate::SpaceNow() const {
    return IsRunning() ? ClampToInt(Room()) : 0;
}

// A fresh look after a sleep; otherwise an answer younger than kLivenessTrustNs stands.
bool KelCycleBufferPrivate::PeerGone(bool fresh) {
    if (m_watch.peerGone == nullptr) return false;
    const int64_t now = CoarseNowNs();
    if (!fresh && now < m_nextLook.load(std::memory_order_relaxed)) {
        return m_peerGone.load(std::memory_order_relaxed);
    }
    const bool gone = m_watch.peerGone(m_watch.context);
    m_peerGone.store(gone, std::memory_order_relaxed);
    m_nextLook.store(now + kLivenessTrustNs, std::memory_order_relaxed);
    return gone;
}

// A writer with room never waits and so would never learn that its reader died; it asks every
// kWriteCadence calls. Even the coarse clock's read in every call costs 64-byte writes a fifth of their rate.
constexpr uint32_t kWriteCadence = 16;

bool KelCycleBufferPrivate::ReaderGoneNow() {
    if (m_watch.peerGone == nullptr) return false;
    // Once a death is known, every call reports it, not only those at the cadence.
    if (m_peerGone.load(std::memory_order_relaxed)) return PeerGone(false);
    // One writer per ring: a load and a store, not a locked increment.
    const uint32_t calls = m_writes.load(std::memory_order_relaxed) + 1;
    m_writes.store(calls, std::memory_order_relaxed);
    return calls % kWriteCadence == 0 && PeerGone(false);
}

// timeoutMs 0 waits without limit; a wait that runs out counts as a wake-up: the caller looks again.
int KelCycleBufferPrivate::WaitOnSemaphore(int timeoutMs) {
    if (m_localSem != nullptr) {
        if (timeoutMs > 0) {
            m_localSem->AcquireFor(timeoutMs);
        } else {
            m_localSem->Acquire();
        }
        if (m_systemSem == nullptr) return IPC_OK;
    } else if (m_systemSem == nullptr) {
        return IPC_ERR_NOT_OPENED;
    }
    const int rc = m_systemSem->AcquireFor(timeoutMs);
    if (rc == IPC_OK || rc == IPC_ERR_TIMEOUT) return IPC_OK;
    // Only a failed wait leaves errno to read: otherwise it is stale.
    if (rc != IPC_ERR_FAILED) return rc;
    const int err = errno;
    // An interrupted wait counts as a wake-up: the caller tests the ring again. A set removed under the
    // wait (its server closed) leaves no channel.
    if (err == EINTR || err == EAGAIN) return IPC_OK;
    return err == EIDRM || err == EINVAL ? IPC_ERR_NOT_OPENED : IPC_ERR_FAILED;
}

// Writer side, after a piece is published (or a pause for room): signals unless a reader of ours is
// awake, or asleep until more bytes than the ring holds. The full fence orders our publication before
// the load of the reader's word, as the reader orders its announcement before its re-test: one of the
// two sides sees the other, so no wake-up is lost.
int KelCycleBufferPrivate::WakeReader(KelCycleBuffer& ring) {
    if (!HasSemaphore()) return IPC_ERR_NOT_OPENED;
    FullFence();
    int32_t* const word = ReaderWord();
    int32_t state = __atomic_load_n(word, __ATOMIC_ACQUIRE);
    if (state == kReaderAwake) return IPC_OK;
    // Every reader of an in-process ring is ours and announces itself before it sleeps, and a local
    // semaphore counts: a release nobody waits for would cost a later reader a spurious wake-up.
    if (state == 0 && m_systemSem == nullptr) return IPC_OK;
    if (state > 0) {
        if (Stored() < state) return IPC_OK;  // a later piece wakes it
        // Claim the wake-up so that the following pieces do not signal again; a reader that changed its
        // word meanwhile is signalled anyway, a spare signal being harmless.
        __atomic_compare_exchange_n(word, &state, kReaderAwake, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
    }
    return ring.SemRelease();
}

// Reader side, instead of a bare wait on the semaphore.
int KelCycleBufferPrivate::SleepForData(int piece, int left, int timeoutMs) {
    if (!HasSemaphore()) return IPC_ERR_NOT_OPENED;
    int32_t* const word = ReaderWord();
    __atomic_store_n(word, Batch(piece, left), __ATOMIC_RELAXED);
    FullFence();
    int rc = IPC_OK;
    if (DataNow() < piece && LiveReading() && !WriterShut()) rc = WaitOnSemaphore(timeoutMs);
    __atomic_store_n(word, kReaderAwake, __ATOMIC_RELAXED);
    return rc;
}

// Reader side, after it freed room: wakes a writer of ours that waits for that much (or for any room,
// when the reader is about to leave and frees no more).
void KelCycleBufferPrivate::WakeWriter(bool anyRoom) {
    // A reader leaving its call has fenced after its last piece already, or freed nothing.
    if (!anyRoom) FullFence();
    int32_t* const word = WriterWord();
    int32_t need = __atomic_load_n(word, __ATOMIC_RELAXED);
    if (need <= 0 || (!anyRoom && Room() < need)) return;
    if (__atomic_compare_exchange_n(word, &need, 0, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
        Futex(word, FUTEX_WAKE, 1, nullptr, "NonblockRead");
    }
}

// Writer side, instead of the bare protocol's 1 ms pause: the same pause at most, ended early by a
// reader of ours that frees room.
// What a sleeping end asks for before it is woken: its piece, or up to a quarter of the ring when the
// call has that much still to move. It never asks for more than the call itself still needs, so the
// other end never holds back what would complete it; when it wakes on its own, a piece is enough.
int32_t KelCycleBufferPrivate::Batch(int piece, int left) const {
    const int32_t len = LoadRelaxed(m_head->dataLen);
    const int32_t need = std::max(piece, std::min(left, len / kBatchDivisor));
    return std::max(1, std::min(need, len - 1));
}

void KelCycleBufferPrivate::SleepForRoom(int piece, int left) {
    int32_t need = Batch(piece, left);
    int32_t* const word = WriterWord();
    __atomic_store_n(word, need, __ATOMIC_RELAXED);
    FullFence();
    if (Room() < piece && LiveWriting()) {
        const timespec pause{0, kWriterPauseMs * 1000000L};
        Futex(word, FUTEX_WAIT, need, &pause, "BlockWrite");
    }
    __atomic_compare_exchange_n(word, &need, 0, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
}

KelCycleBuffer::KelCycleBuffer() : m_private(new KelCycleBufferPrivate) {}

KelCycleBuffer::~KelCycleBuffer() {
    delete m_private;
}

int KelCycleBuffer::Attach(char* block, int length, KelSide side, KelMode mode) {
    return m_private->Attach(block, length, side, mode, true);
}

int KelCycleBufferPrivate::Attach(char* block, int length, KelSide side, KelMode mode, bool clear) {
    KelCycleBufferPrivate& p = *this;
    std::lock_guard<std::mutex> lock(p.m_attachMutex);
    if (block == nullptr || length < kMinBlockLength) return IPC_ERR_PARAM;
    p.m_detached.store(false, std::memory_order_relaxed);
    // An unknown side would leave a half-attached object behind; refuse it like a short block.
    if (side != Server && side != Client) return IPC_ERR_PARAM;
    // A client of ours takes no part in a ring that no server has initialised yet.
    if (!clear && side == Client && LoadAcquire(reinterpret_cast<KelCBHead*>(block)->dataLen) < 1) {
        return IPC_ERR_FAILED;
    }
    p.m_side = side;
    p.m_mode = mode;
    p.m_chunkSize = length / kChunkDivisor < kMinChunk ? kMinChunk : length / kChunkDivisor;
    if (side == Server) {
        if (clear && kel::memset_s(block, static_cast<size_t>(length), 0, static_cast<size_t>(length)) != 0) {
            return IPC_ERR_FAILED;
        }
        p.m_head = reinterpret_cast<KelCBHead*>(block);
        p.m_areaLength = length - kHeadLength;
        p.m_prefetch = PrefetchHelps(p.m_areaLength);
        __atomic_store_n(&p.m_head->dataLen, length - kHeadLength, __ATOMIC_RELEASE);
        // A cleared block is already what Start would make of it, generation 0 included.
        StoreRelease(p.m_head->running, 1);
        p.m_buffer = block + kHeadLength;
        return IPC_OK;
    }
    p.m_head = reinterpret_cast<KelCBHead*>(block);
    p.m_buffer = block + kHeadLength;
    p.m_areaLength = length - kHeadLength;
    p.m_prefetch = PrefetchHelps(p.m_areaLength);
    return IPC_OK;
}

int KelCycleBuffer::AttachIpc(char* block, int length, KelSide side, KelMode mode, KelSystemSemaphore* sem) {
    m_private->m_systemSem = sem;
    m_private->m_side = side;
    return Attach(block, length, side, mode);
}

int KelCycleBuffer::AttachLocal(char* block, int length, KelSide side, KelMode mode, KelSemaphore* sem) {
    m_private->m_localSem = sem;
    m_private->m_side = side;
    return Attach(block, length, side, mode);
}

int KelCycleBufferPrivate::WriteOnce(const char* data, int count) {
    KelCycleBufferPrivate& p = *this;
    KelCBHead* head = p.m_head;
    if (!p.LiveWriting()) return IPC_ERR_NOT_OPENED;
    const int32_t len = LoadRelaxed(head->dataLen);
    // Our own word, but a restart zeroes it: acquire, so that seeing it zeroed means seeing the new
    // generation.
    int32_t w = LoadAcquire(head->writePos);
    const int32_t r = LoadAcquire(head->readPos);
    if (len < 1 || Free(len, w, r) < count) return 0;
    if (!InBlock(len, p.m_areaLength, w) || !InBlock(len, p.m_areaLength, r)) return IPC_ERR_FAILED;
    const int64_t end = static_cast<int64_t>(w) + count;
    if (end > len) {
        const int32_t first = len - w;
        if (!CopyIntoRing(p.m_buffer + w, first, data, p.m_prefetch)) return IPC_ERR_FAILED;
        if (!CopyIntoRing(p.m_buffer, end - len, data + first, p.m_prefetch)) return IPC_ERR_FAILED;
    } else if (!CopyIntoRing(p.m_buffer + w, count, data, p.m_prefetch)) {
        return IPC_ERR_FAILED;
    }
    if (!p.Publish(head->writePos, w, static_cast<int32_t>(end % len), p.m_writeGen))
        return IPC_ERR_NOT_OPENED;
    return count;
}

// Release: the peer that sees the new position also sees the bytes copied before it.
bool KelCycleBufferPrivate::Publish(int32_t& position, int32_t last, int32_t next, int32_t gen) {
    return Generation() == gen &&
           __atomic_compare_exchange_n(&position, &last, next, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED);
}

int KelCycleBufferPrivate::ReadOnce(char* buffer, int count) {
    KelCycleBufferPrivate& p = *this;
    KelCBHead* head = p.m_head;
    if (!p.LiveReading()) return IPC_ERR_NOT_OPENED;
    const int32_t len = LoadRelaxed(head->dataLen);
    int32_t r = LoadAcquire(head->readPos);  // our own word, but zeroed by a restart
    const int32_t w = LoadAcquire(head->writePos);
    p.m_seenWrite.store(w, std::memory_order_relaxed);
    if (len < 1 || Used(len, w, r) < count) return 0;
    if (count < 0) return IPC_ERR_FAILED;
    if (!InBlock(len, p.m_areaLength, w) || !InBlock(len, p.m_areaLength, r)) return IPC_ERR_FAILED;
    const int64_t end = static_cast<int64_t>(r) + count;
    if (end > len) {
        const int32_t first = len - r;
        if (!Copy(buffer, first, p.m_buffer + r)) return IPC_ERR_FAILED;
        if (!Copy(buffer + first, end - len, p.m_buffer)) return IPC_ERR_FAILED;
    } else if (!Copy(buffer, count, p.m_buffer + r)) {
        return IPC_ERR_FAILED;
    }
    if (!p.Publish(head->readPos, r, static_cast<int32_t>(end % len), p.m_readGen)) return IPC_ERR_NOT_OPENED;
    p.WakeWriter(false);
    return count;
}

// An all-or-nothing transfer of more than the ring can ever hold would return 0 for ever.
bool KelCycleBufferPrivate::NeverFits(int count) const {
    const int32_t len = LoadRelaxed(m_head->dataLen);
    return len >= 1 && count > len - 1;
}

int KelCycleBufferPrivate::WriteNow(const char* data, int count) {
    if (!LiveWriting()) return IPC_ERR_NOT_OPENED;
    if (NeverFits(count)) return IPC_ERR_PARAM;
    // Bytes for a reader that died would never be read.
    if (ReaderGoneNow()) return IPC_ERR_PEER_GONE;
    const int rc = WriteOnce(data, count);
    // A full ring is where a dead reader leaves its writer: ask now rather than at the cadence.
    return rc == 0 && PeerGone(false) ? IPC_ERR_PEER_GONE : rc;
}

int KelCycleBufferPrivate::ReadNow(char* buffer, int count) {
    if (!LiveReading()) return IPC_ERR_NOT_OPENED;
    if (NeverFits(count)) return IPC_ERR_PARAM;
    const int rc = ReadOnce(buffer, count);
    const int end = rc == 0 ? StreamEnd(false) : 0;
    if (end == 0) return rc;
    // A writer that is gone adds nothing more: what it left comes now as a short count, the code after it.
    const int rest = ReadAvailable(buffer, count);
    return rest != 0 ? rest : end;
}

// What ends a read that finds too little: a writer of ours that shut its writing down, or one that died.
int KelCycleBufferPrivate::StreamEnd(bool fresh) {
    if (WriterShut()) return IPC_ERR_PEER_CLOSED;
    return PeerGone(fresh) ? IPC_ERR_PEER_GONE : 0;
}

// Up to count of the bytes stored now; 0 when there are none.
int KelCycleBufferPrivate::ReadAvailable(char* buffer, int count) {
    const int stored = DataNow();
    return stored > 0 ? ReadOnce(buffer, std::min(stored, count)) : 0;
}

// A stopped ring whose writer had shut down still tells the end of the stream, as after a lingering Close.
int KelCycleBufferPrivate::EndOfRead(int rc) const {
    const bool shut = rc == IPC_ERR_NOT_OPENED && !m_detached.load(std::memory_order_relaxed) && WriterShut();
    return shut ? IPC_ERR_PEER_CLOSED : rc;
}

namespace {

// One transfer of a direction at a time on one ring object, whichever form it takes, and its in-call
// flag set while it is inside so that Stop can wait for it. A blocking call waits for its turn; a
// non-blocking one never waits behind a parked call and reports, as 0, that nothing could move.
class Turn {
public:
    Turn(std::mutex& mutex, std::atomic<bool>& inside, bool wait) : m_mutex(mutex), m_inside(inside) {
        if (wait) {
            m_mutex.lock();
            m_held = true;
        } else {
            m_held = m_mutex.try_lock();
        }
        if (m_held) m_inside.store(true, std::memory_order_relaxed);
    }
    ~Turn() {
        if (!m_held) return;
        // Release: Stop, seeing the flag clear, may let the owner tear the block down.
        m_inside.store(false, std::memory_order_release);
        m_mutex.unlock();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    bool Held() const { return m_held; }

private:
    std::mutex& m_mutex;
    std::atomic<bool>& m_inside;
    bool m_held = false;
};

}  // namespace

int KelCycleBuffer::NonblockWrite(const char* data, int count) {
    KelCycleBufferPrivate& p = *m_private;
    const int32_t gen = p.Generation();
    if (!p.Live(gen)) return IPC_ERR_NOT_OPENED;
    const Turn turn(p.m_writeMutex, p.m_writing, false);
    if (!turn.Held()) return 0;
    p.m_writeGen = gen;
    return p.WriteNow(data, count);
}

int KelCycleBuffer::NonblockRead(char* buffer, int count) {
    KelCycleBufferPrivate& p = *m_private;
    const int32_t gen = p.Generation();
    if (!p.Live(gen)) return p.EndOfRead(IPC_ERR_NOT_OPENED);
    const Turn turn(p.m_readMutex, p.m_reading, false);
    if (!turn.Held()) return 0;
    p.m_readGen = gen;
    return p.EndOfRead(p.ReadNow(buffer, count));
}

// The side a ring object serves is not recorded, so each size reports a dead peer where that peer would
// have made it grow: no data left from a dead writer, no room ever again for a dead reader.
int KelCycleBuffer::DataSize() {
    KelCycleBufferPrivate& p = *m_private;
    if (p.IsRunning()) p.m_seenWrite.store(LoadAcquire(p.m_head->writePos), std::memory_order_relaxed);
    const int stored = p.DataNow();
    if (stored == 0 && p.WriterShut()) return IPC_ERR_PEER_CLOSED;
    return stored == 0 && p.IsRunning() && p.PeerGone(false) ? IPC_ERR_PEER_GONE : stored;
}

int KelCycleBuffer::SpaceSize() {
    KelCycleBufferPrivate& p = *m_private;
    return p.IsRunning() && p.PeerGone(false) ? IPC_ERR_PEER_GONE : p.SpaceNow();
}

bool KelCycleBuffer::Running() {
    return m_private->Initialised() && m_private->IsRunning();
}

KelCBHead* KelCycleBuffer::KelCBHeadPtr() {
    return m_private->m_head;
}

// A reader that waits here itself announces that it may be asleep until any byte is stored. A writer of
// ours that passed our last look while we still counted as awake skipped its signal: the writer's
// position, read after the announcement and its fence, tells whether bytes came since that look.
int KelCycleBuffer::SemAcquire() {
    KelCycleBufferPrivate& p = *m_private;
    if (!p.HasSemaphore()) return IPC_ERR_NOT_OPENED;
    if (!p.Initialised()) return p.WaitOnSemaphore(0);
    int32_t* const word = p.ReaderWord();
    __atomic_store_n(word, 1, __ATOMIC_RELAXED);
    FullFence();
    const int32_t seen = p.m_seenWrite.load(std::memory_order_relaxed);
    const int rc = seen >= 0 && LoadAcquire(p.m_head->writePos) != seen ? IPC_OK : p.WaitOnSemaphore(0);
    __atomic_store_n(word, kReaderAwake, __ATOMIC_RELAXED);
    return rc;
}

int KelCycleBuffer::SemRelease() {
    KelCycleBufferPrivate& p = *m_private;
    if (p.m_localSem == nullptr && p.m_systemSem == nullptr) return IPC_ERR_NOT_OPENED;
    if (p.m_localSem != nullptr) p.m_localSem->Release();
    if (p.m_systemSem != nullptr) p.m_systemSem->Release();
    return IPC_OK;
}

int KelCycleBufferPrivate::WriteBlocking(KelCycleBuffer& ring, const char* data, int count) {
    KelCycleBufferPrivate& p = *this;
    const Deadline deadline(p.m_watch.writeTimeoutMs);
    PublishCpu(p.WriterCpu());
    int piece = count < p.m_chunkSize ? count : p.m_chunkSize;
    int moved = 0;
    int left = count;
    for (;;) {
        // The write itself reads the reader's position: once per step, not again for a size test first.
        const int rc = p.WriteOnce(data + moved, piece);
        if (rc == piece) {
            moved += piece;
            left -= piece;
            const int woken = p.WakeReader(ring);
            if (woken != IPC_OK) return woken;
            if (left <= 0) return moved == count ? moved : IPC_ERR_FAILED;
        } else if (rc != 0) {
            return rc;
        } else {
            // Too little room, or a header that gives none: the size test tells which.
            const int space = p.SpaceNow();
            if (space < 0 || !p.LiveWriting() || !p.Initialised()) return IPC_ERR_NOT_OPENED;
            if (piece > space &&
                !(PeerCanRunBeside(p.WriterCpu(), p.ReaderCpu()) &&
                  SpinUntil([&] { return p.SpaceNow() >= piece || !p.LiveWriting(); }, p.m_head->readPos))) {
                p.SleepForRoom(piece, left);
                // As after the bare protocol's pause: a reader asleep on the semaphore drains the ring.
                const int woken = p.WakeReader(ring);
                if (woken != IPC_OK) return woken;
                if (p.PeerGone(false)) return EarlyEnd(moved, IPC_ERR_PEER_GONE);
                if (deadline.Passed()) return EarlyEnd(moved, IPC_ERR_TIMEOUT);
            }
        }
        piece = left < p.m_chunkSize ? left : p.m_chunkSize;
        if (!p.LiveWriting()) return IPC_ERR_NOT_OPENED;
    }
}

// some: returns as soon as any byte is there, with up to count of them, instead of the whole count.
int KelCycleBufferPrivate::ReadPieces(char* buffer, int count, bool some) {
    KelCycleBufferPrivate& p = *this;
    const Deadline deadline(p.m_watch.readTimeoutMs);
    // Only an end that can learn of its peer's death wakes now and then to look.
    const int pollMs = p.m_watch.peerGone != nullptr ? kLivenessPollMs : 0;
    int piece = some ? 1 : std::min(count, p.m_chunkSize);
    int moved = 0;
    int left = count;
    bool slept = false;
    for (;;) {
        const int rc = some ? p.ReadAvailable(buffer, count) : p.ReadOnce(buffer + moved, piece);
        if (some && rc != 0) return rc;
        if (rc == piece) {
            left -= piece;
            moved += piece;
            if (left <= 0) return moved == count ? moved : IPC_ERR_FAILED;
        } else if (rc != 0) {
            return rc;
        } else {
            const int stored = p.DataNow();
            if (stored < 0 || !p.Initialised() || !p.LiveReading()) return IPC_ERR_NOT_OPENED;
            const int end = stored < piece ? p.StreamEnd(slept) : 0;
            if (end != 0) {
                // A writer that is gone adds nothing more: hand over what it left, then the code.
                const int rest = p.ReadAvailable(buffer + moved, left);
                return EarlyEnd(moved + std::max(rest, 0), end);
            }
            if (stored < piece && deadline.Passed()) return EarlyEnd(moved, IPC_ERR_TIMEOUT);
            slept = false;
            if (stored < piece &&
                !(PeerCanRunBeside(p.ReaderCpu(), p.WriterCpu()) &&
                  SpinUntil([&] { return p.DataNow() >= piece || !p.LiveReading(); }, p.m_head->writePos))) {
                const int rcSleep = p.SleepForData(piece, left, deadline.SleepMs(pollMs));
                if (rcSleep != IPC_OK) return rcSleep;
                slept = true;
            }
        }
        if (!some) piece = std::min(left, p.m_chunkSize);
        if (!p.LiveReading()) return IPC_ERR_NOT_OPENED;
    }
}

int KelCycleBufferPrivate::ReadBlocking(char* buffer, int count, bool some) {
    KelCycleBufferPrivate& p = *this;
    // From the first blocking read on, this reader announces itself before every sleep, so writers of
    // ours need not signal while it is awake, between its reads included.
    // The word shares no line with the positions; storing only a change keeps it in the writer's cache.
    int32_t* const word = p.ReaderWord();
    if (__atomic_load_n(word, __ATOMIC_RELAXED) != kReaderAwake) {
        __atomic_store_n(word, kReaderAwake, __ATOMIC_RELAXED);
    }
    PublishCpu(p.ReaderCpu());
    const int rc = p.ReadPieces(buffer, count, some);
    // A writer waiting for more room than this call freed is not left to its pause.
    p.WakeWriter(true);
    return rc;
}

// The blocking forms refuse before moving a byte what they could not finish: a ring without a
// semaphore could never wake the reader, and a caller retrying after a partial move would repeat bytes.
// True with the result when the call ends here.
bool KelCycleBufferPrivate::Refused(int32_t gen, int count, int& result) const {
    result = !Live(gen)       ? IPC_ERR_NOT_OPENED
             : count == 0     ? 0
             : count < 0      ? IPC_ERR_FAILED
             : HasSemaphore() ? 1
                              : IPC_ERR_NOT_OPENED;
    return result != 1;
}

int KelCycleBuffer::BlockWrite(const char* data, int count) {
    KelCycleBufferPrivate& p = *m_private;
    const int32_t gen = p.Generation();
    int result = 0;
    if (p.Refused(gen, count, result)) return result;
    const Turn turn(p.m_writeMutex, p.m_writing, true);
    p.m_writeGen = gen;
    return p.ReaderGoneNow() ? IPC_ERR_PEER_GONE : p.WriteBlocking(*this, data, count);
}

int KelCycleBuffer::BlockRead(char* buffer, int count) {
    KelCycleBufferPrivate& p = *m_private;
    const int32_t gen = p.Generation();
    int result = 0;
    if (p.Refused(gen, count, result)) return p.EndOfRead(result);
    const Turn turn(p.m_readMutex, p.m_reading, true);
    p.m_readGen = gen;
    return p.EndOfRead(p.ReadBlocking(buffer, count, false));
}

int KelCycleBuffer::Write(const char* data, int count) {
    KelCycleBufferPrivate& p = *m_private;
    if (data == nullptr || count < 1) return IPC_ERR_NULL;
    if (p.m_mode != Block) return NonblockWrite(data, count);
    return BlockWrite(data, count);
}

int KelCycleBuffer::Read(char* buffer, int count) {
    KelCycleBufferPrivate& p = *m_private;
    if (buffer == nullptr || count < 1) return IPC_ERR_NULL;
    if (p.m_mode != Block) return NonblockRead(buffer, count);
    return BlockRead(buffer, count);
}

int KelCycleBuffer::Reset() {
    KelCycleBufferPrivate& p = *m_private;
    if (!p.Initialised()) return IPC_ERR_NOT_OPENED;
    // Before the positions: a transfer that sees them zeroed sees the new generation and ends.
    __atomic_fetch_add(p.GenerationWord(), 1, __ATOMIC_SEQ_CST);
    StoreRelease(p.m_head->writePos, 0);
    StoreRelease(p.m_head->readPos, 0);
    // The handshake starts over: until the ends announce themselves again, writers signal every piece
    // (of an in-process ring, none). Sleepers of ours are woken to find their call ended; the swap
    // against their announcement, after the raised generation, misses none.
    if (__atomic_exchange_n(p.ReaderWord(), 0, __ATOMIC_SEQ_CST) > 0) SemRelease();
    if (__atomic_exchange_n(p.WriterWord(), 0, __ATOMIC_SEQ_CST) > 0) {
        p.Futex(p.WriterWord(), FUTEX_WAKE, INT_MAX, nullptr, "Reset");
    }
    __atomic_store_n(p.ReaderCpu(), 0, __ATOMIC_RELAXED);
    __atomic_store_n(p.WriterCpu(), 0, __ATOMIC_RELAXED);
    return IPC_OK;
}

int KelCycleBuffer::Start() {
    KelCycleBufferPrivate& p = *m_private;
    if (p.m_head == nullptr) return IPC_ERR_NOT_OPENED;
    Reset();
    // A new stream has no end yet; the release of the run flag below publishes this too.
    if (p.Initialised()) __atomic_store_n(p.ShutWord(), 0, __ATOMIC_RELAXED);
    if (p.m_watch.restarted != nullptr) p.m_watch.restarted(p.m_watch.context);
    p.m_nextLook.store(0, std::memory_order_relaxed);
    // Release: a side that sees the ring running also sees the emptied positions.
    StoreRelease(p.m_head->running, 1);
    return IPC_OK;
}

int KelCycleBuffer::Stop() {
    KelCycleBufferPrivate& p = *m_private;
    if (p.m_head == nullptr) return IPC_ERR_NOT_OPENED;
    StoreRelease(p.m_head->running, 0);
    SemRelease();
    Reset();
    // A writer of ours waiting for room sees the stop now rather than after its pause.
    if (p.Initialised()) p.Futex(p.WriterWord(), FUTEX_WAKE, INT_MAX, nullptr, "Stop");
    for (int check = 0; check < kStopChecks; ++check) {
        KelSleep(kStopPauseMs);
        // Signal again: a reader may have gone back to sleep between the flag and its wait.
        SemRelease();
        if (!p.m_writing.load(std::memory_order_acquire) && !p.m_reading.load(std::memory_order_acquire)) {
            return IPC_OK;
        }
    }
    KEL_IPC_LOG(kLogPath, "Stop", "Not Exit:%d,%d", p.m_writing.load() ? 1 : 0, p.m_reading.load() ? 1 : 0);
    return IPC_ERR_FAILED;
}

int KelCycleBuffer::EraseGcmData() {
    if (!m_private->Initialised()) return IPC_ERR_FAILED;
    kel::memset_s(m_private->m_head->gcmData, kGcmLength, 0, kGcmLength);
    return IPC_OK;
}

int KelCycleBuffer::SetGcmData(const char* data, int length) {
    if (!m_private->Initialised()) return IPC_ERR_NOT_OPENED;
    if (length != static_cast<int>(kGcmLength)) return IPC_ERR_FAILED;
    // A rejected copy clears the stored block.
    return kel::memcpy_s(m_private->m_head->gcmData, kGcmLength, data, kGcmLength) == 0 ? IPC_OK
                                                                                        : IPC_ERR_FAILED;
}

int KelCycleBuffer::GetGcmData(char* buffer, int length) {
    if (!m_private->Initialised()) return IPC_ERR_NOT_OPENED;
    if (length != static_cast<int>(kGcmLength)) return IPC_ERR_FAILED;
    return kel::memcpy_s(buffer, kGcmLength, m_private->m_head->gcmData, kGcmLength) == 0 ? IPC_OK
                                                                                          : IPC_ERR_FAILED;
}

int KelCycleBuffer::ResetWyTransCounter() {
    if (!m_private->Initialised()) return IPC_ERR_FAILED;
    __atomic_store_n(&m_private->m_head->transTotal, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&m_private->m_head->transLast, 0, __ATOMIC_RELAXED);
    return IPC_OK;
}

int KelCycleBuffer::SetWyTransCounter(uint64_t added, uint64_t latest) {
    if (!m_private->Initialised()) return IPC_ERR_FAILED;
    __atomic_fetch_add(&m_private->m_head->transTotal, added, __ATOMIC_RELAXED);
    __atomic_store_n(&m_private->m_head->transLast, latest, __ATOMIC_RELAXED);
    return IPC_OK;
}

int KelCycleBuffer::GetWyTransCounter(uint64_t& total, uint64_t& latest) {
    total = 0;
    latest = 0;
    if (!m_private->Initialised()) return IPC_ERR_FAILED;
    total = __atomic_load_n(&m_private->m_head->transTotal, __ATOMIC_RELAXED);
    latest = __atomic_load_n(&m_private->m_head->transLast, __ATOMIC_RELAXED);
    return IPC_OK;
}

int KelCycleBuffer::GetIpcStatus(KelIpcStatus& status) {
    if (!m_private->Initialised()) {
        kel::memset_s(&status, sizeof(status), 0, sizeof(status));
        return IPC_ERR_FAILED;
    }
    kel::memcpy_s(&status, sizeof(status), &m_private->m_head->ipcStatus, sizeof(status));
    return IPC_OK;
}

int KelCycleBufferShutdown(KelCycleBuffer& ring, bool shut) {
    KelCycleBufferPrivate& p = *ring.m_private;
    if (!p.Initialised()) return IPC_ERR_NOT_OPENED;
    // Release: a reader that sees the mark sees every byte published before it.
    StoreRelease(*p.ShutWord(), shut ? 1 : 0);
    if (!shut) return IPC_OK;
    // As the writer's signal after a piece, but whatever the reader waits for: nothing more will come.
    FullFence();
    const int32_t state = __atomic_load_n(p.ReaderWord(), __ATOMIC_ACQUIRE);
    if (state > 0 || (state == 0 && p.m_systemSem != nullptr)) ring.SemRelease();
    return IPC_OK;
}

int KelCycleBufferReadSome(KelCycleBuffer& ring, char* buffer, int count) {
    KelCycleBufferPrivate& p = *ring.m_private;
    if (buffer == nullptr || count < 1) return IPC_ERR_NULL;
    const int32_t gen = p.Generation();
    if (p.m_mode == Block) {
        int result = 0;
        if (p.Refused(gen, count, result)) return p.EndOfRead(result);
        const Turn turn(p.m_readMutex, p.m_reading, true);
        p.m_readGen = gen;
        return p.EndOfRead(p.ReadBlocking(buffer, count, true));
    }
    if (!p.Live(gen)) return p.EndOfRead(IPC_ERR_NOT_OPENED);
    const Turn turn(p.m_readMutex, p.m_reading, false);
    if (!turn.Held()) return 0;
    p.m_readGen = gen;
    const int rc = p.ReadAvailable(buffer, count);
    return p.EndOfRead(rc != 0 ? rc : p.StreamEnd(false));
}

int KelCycleBufferDrain(KelCycleBuffer& ring, int timeoutMs) {
    KelCycleBufferPrivate& p = *ring.m_private;
    const Deadline deadline(timeoutMs);
    for (;;) {
        if (!p.Initialised() || !p.IsRunning()) return IPC_ERR_NOT_OPENED;
        if (p.Stored() == 0) return IPC_OK;
        if (p.PeerGone(false)) return IPC_ERR_PEER_GONE;
        if (deadline.Passed()) return IPC_ERR_TIMEOUT;
        // Asks a reader of ours for an empty ring, as a writer waiting for room asks for its piece.
        int32_t need = LoadRelaxed(p.m_head->dataLen) - 1;
        __atomic_store_n(p.WriterWord(), need, __ATOMIC_RELAXED);
        FullFence();
        if (p.Stored() > 0 && p.IsRunning()) {
            const timespec pause{0, kWriterPauseMs * 1000000L};
            p.Futex(p.WriterWord(), FUTEX_WAIT, need, &pause, "Close");
        }
        __atomic_compare_exchange_n(p.WriterWord(), &need, 0, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
    }
}

void KelCycleBufferDetach(KelCycleBuffer& ring) {
    KelCycleBufferPrivate& p = *ring.m_private;
    p.m_detached.store(true, std::memory_order_relaxed);
    if (!p.Initialised()) return;
    if (p.m_reading.load(std::memory_order_acquire)) ring.SemRelease();
    if (p.m_writing.load(std::memory_order_acquire))
        p.Futex(p.WriterWord(), FUTEX_WAKE, INT_MAX, nullptr, "Stop");
}

bool KelCycleBufferBusy(KelCycleBuffer& ring) {
    const KelCycleBufferPrivate& p = *ring.m_private;
    return p.m_reading.load(std::memory_order_acquire) || p.m_writing.load(std::memory_order_acquire);
}

int KelCycleBufferAttachFresh(KelCycleBuffer& ring, char* block, int length, KelSide side, KelMode mode,
                              KelSystemSemaphore* sem) {
    ring.m_private->m_systemSem = sem;
    ring.m_private->m_side = side;
    return ring.m_private->Attach(block, length, side, mode, false);
}

void KelCycleBufferWatch(KelCycleBuffer& ring, const KelRingWatch& watch) {
    ring.m_private->m_watch = watch;
    ring.m_private->m_nextLook.store(0, std::memory_order_relaxed);
}
