#include "KelCycleBufferPrivate.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "KelDateTime.h"
#include "KelIpcLog.h"
#include "KelSecureMem.h"
#include "KelSemaphore.h"
#include "KelSystemSemaphore.h"

// The private record's work: the wake-up handshake, liveness, single transfers and the blocking loops.

namespace {
int64_t CoarseNowNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
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
bool SpinUntil(Ready ready, const int32_t& peerPos, std::chrono::microseconds bound = kSpinBound,
               std::chrono::microseconds stallBound = kStallBound) {
    auto now = std::chrono::steady_clock::now();
    const auto deadline = now + bound;
    auto stalledAt = now + stallBound;
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
            stalledAt = now + stallBound;
        }
        if (now > deadline || now > stalledAt) return false;
    }
}

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

// A polled call about to wait on its descriptor: a peer moving on another CPU usually brings the bytes or
// room within microseconds, while the descriptor's round costs system calls on both sides and a wake-up.
constexpr auto kPolledSpinBound = std::chrono::microseconds(10);
constexpr auto kPolledStallBound = std::chrono::microseconds(5);

bool KelCycleBufferPrivate::Imminent(bool reading, int need) {
    if (!PeerCanRunBeside(reading ? ReaderCpu() : WriterCpu(), reading ? WriterCpu() : ReaderCpu()))
        return false;
    return SpinUntil([&] { return (reading ? DataNow() : SpaceNow()) >= need || !IsRunning(); },
                     reading ? m_head->writePos : m_head->readPos, kPolledSpinBound, kPolledStallBound);
}

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
    RingPoller(true, false);
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

// A reader of ours asleep in a blocking call or on its descriptor is woken by our non-blocking writes as by
// blocking ones. Only a reader that said it sleeps is signalled: the published protocol has non-blocking
// writes signal nobody, and a reader that never announces itself (0) gets no releases to pile up.
void KelCycleBufferPrivate::WakeAfterNonblockWrite() {
    FullFence();
    RingPoller(true, false);
    int32_t* const word = ReaderWord();
    int32_t state = __atomic_load_n(word, __ATOMIC_ACQUIRE);
    if (state > 0 && Stored() >= state &&
        __atomic_compare_exchange_n(word, &state, kReaderAwake, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
        if (m_localSem != nullptr) m_localSem->Release();
        if (m_systemSem != nullptr) m_systemSem->Release();
    }
}

void KelCycleBufferPrivate::RingPoller(bool reader, bool any) {
    if (m_watch.ring == nullptr) return;
    int32_t* const word = PollsWord(reader);
    int32_t need = __atomic_load_n(word, __ATOMIC_RELAXED);
    if (need <= 0) return;
    if (!any && (reader ? Stored() : Room()) < need) return;
    // Whoever swaps it rings: of a writer, the reader and a restart, exactly one.
    if (__atomic_compare_exchange_n(word, &need, 0, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
        m_watch.ring(m_watch.ringContext, reader);
    }
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
    if (!anyRoom) {
        FullFence();
        RingPoller(false, false);
    }
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
