#include "KelCycleBufferPrivate.h"

#include <linux/futex.h>

#include <climits>

#include "KelDateTime.h"
#include "KelIpcLog.h"
#include "KelSecureMem.h"
#include "KelSemaphore.h"
#include "KelSystemSemaphore.h"

KelCycleBuffer::KelCycleBuffer() : m_private(new KelCycleBufferPrivate) {}

KelCycleBuffer::~KelCycleBuffer() {
    delete m_private;
}

int KelCycleBuffer::Attach(char* block, int length, KelSide side, KelMode mode) {
    return m_private->Attach(block, length, side, mode, true);
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
    const int rc = p.WriteNow(data, count);
    if (rc > 0) p.WakeAfterNonblockWrite();
    return rc;
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
    // Ends waiting on their descriptors look again, to find their calls ended or the ring emptied.
    for (const bool reader : {true, false}) {
        if (__atomic_exchange_n(p.PollsWord(reader), 0, __ATOMIC_SEQ_CST) > 0 && p.m_watch.ring != nullptr) {
            p.m_watch.ring(p.m_watch.ringContext, reader);
        }
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
    p.RingPoller(true, true);
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

bool KelCycleBufferSoon(KelCycleBuffer& ring, bool reading, int need) {
    KelCycleBufferPrivate& p = *ring.m_private;
    return p.Initialised() && p.Imminent(reading, need);
}

bool KelCycleBufferArm(KelCycleBuffer& ring, bool reading, int need, bool fresh) {
    KelCycleBufferPrivate& p = *ring.m_private;
    if (!p.Initialised()) return true;
    const int32_t len = LoadRelaxed(p.m_head->dataLen);
    need = std::max(1, std::min(need, len - 1));
    if (reading) {
        // Takes part in the handshake, so that writers of ours skip the semaphore while it waits here.
        int32_t none = 0;
        __atomic_compare_exchange_n(p.ReaderWord(), &none, kReaderAwake, false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED);
    }
    int32_t* const word = p.PollsWord(reading);
    __atomic_store_n(word, need, __ATOMIC_RELAXED);
    // As a sleeping reader: either the other end sees the word after its publication, or this test sees
    // the publication.
    FullFence();
    const bool ready = !p.IsRunning() ||
                       (reading ? p.Stored() >= need || p.WriterShut() : p.Room() >= need) ||
                       p.PeerGone(fresh);
    if (ready) __atomic_compare_exchange_n(word, &need, 0, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
    return ready;
}

bool KelCycleBufferArmed(KelCycleBuffer& ring, bool reading) {
    const KelCycleBufferPrivate& p = *ring.m_private;
    return p.Initialised() && __atomic_load_n(p.PollsWord(reading), __ATOMIC_RELAXED) > 0;
}

bool KelCycleBufferNonBlocking(KelCycleBuffer& ring) {
    return ring.m_private->m_mode != Block;
}
