#include "KelPeerToken.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "KelIpcLog.h"

namespace {

constexpr const char* kSource = "BaseAPI/KelIpc/src/unix/KelPeerToken";

int32_t* Word(const KelCBHead* head, size_t offset) {
    return reinterpret_cast<int32_t*>(const_cast<char*>(reinterpret_cast<const char*>(head)) + offset);
}

size_t HeldOffset(KelSide side) {
    return side == Server ? KelPeerToken::kServerHeld : KelPeerToken::kClientHeld;
}

size_t PidOffset(KelSide side) {
    return side == Server ? KelPeerToken::kServerPid : KelPeerToken::kClientPid;
}

size_t GenerationOffset(KelSide side) {
    return side == Server ? KelPeerToken::kServerGeneration : KelPeerToken::kClientGeneration;
}

flock LockOf(KelSide side, short type) {
    flock lock{};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = side == Server ? 0 : 1;
    lock.l_len = 1;
    return lock;
}

// Whether another open file description holds a write lock on side's byte: 1, 0, or -1 when the test
// fails (for instance on a descriptor being closed), which tells nothing about the holder. Asked as a read
// lock, which only a write lock conflicts with: a read lock, which anyone who may read the segment can
// take, is no token.
int LockHeld(int fd, KelSide side) {
    flock lock = LockOf(side, F_RDLCK);
    if (fcntl(fd, F_OFD_GETLK, &lock) == -1) {
        const int err = errno;
        KEL_IPC_LOG(kSource, "LockHeld", "fcntl F_OFD_GETLK fail, errno=%d", err);
        errno = err;
        return -1;
    }
    return lock.l_type != F_UNLCK ? 1 : 0;
}

}  // namespace

int KelPeerToken::Lock(int fd, KelSide side) {
    flock lock = LockOf(side, F_WRLCK);
    if (fcntl(fd, F_OFD_SETLK, &lock) == 0) return IPC_OK;
    const int err = errno;
    if (err == EAGAIN || err == EACCES) return IPC_ERR_OPENED;
    KEL_IPC_LOG(kSource, "Lock", "fcntl F_OFD_SETLK fail, errno=%d", err);
    errno = err;
    return IPC_ERR_FAILED;
}

int KelPeerToken::Seize(int fd, KelSide side) {
    const int rc = Lock(fd, side);
    if (rc != IPC_ERR_OPENED) return rc;
    const int held = LockHeld(fd, side);
    return held == 0 ? IPC_OK : held > 0 ? IPC_ERR_OPENED : IPC_ERR_FAILED;
}

int KelPeerToken::Hold(int fd, KelSide side, KelCBHead* head) {
    const int rc = Lock(fd, side);
    if (rc != IPC_OK) return rc;
    // Announced only over no announcement: a word still up belongs to an end that died holding it, whose
    // place the server has not given up yet, and clearing it is the server's alone (ForgetDeadPeer).
    int32_t none = 0;
    __atomic_fetch_add(Word(head, GenerationOffset(side)), 1, __ATOMIC_RELAXED);
    // Release: an end that sees the announcement sees the lock already there, and the new generation.
    if (!__atomic_compare_exchange_n(Word(head, HeldOffset(side)), &none, 1, false, __ATOMIC_RELEASE,
                                     __ATOMIC_RELAXED)) {
        return IPC_ERR_NOT_OPENED;
    }
    __atomic_store_n(Word(head, PidOffset(side)), static_cast<int32_t>(getpid()), __ATOMIC_RELAXED);
    m_fd = fd;
    m_side = side;
    m_head = head;
    m_held = true;
    return IPC_OK;
}

void KelPeerToken::Release() {
    if (!m_held) return;
    __atomic_store_n(Word(m_head, HeldOffset(m_side)), 0, __ATOMIC_RELEASE);
    __atomic_store_n(Word(m_head, PidOffset(m_side)), 0, __ATOMIC_RELAXED);
    Forget();
}

void KelPeerToken::Forget() {
    m_held = false;
    m_head = nullptr;
    m_fd = -1;
}

KelPeerToken::Liveness KelPeerToken::Of(int fd, const KelCBHead* head, KelSide side) {
    const int32_t* const word = Word(head, HeldOffset(side));
    const int32_t* const generation = Word(head, GenerationOffset(side));
    const int32_t before = __atomic_load_n(generation, __ATOMIC_ACQUIRE);
    if (__atomic_load_n(word, __ATOMIC_ACQUIRE) == 0) return kUnknown;
    const int held = LockHeld(fd, side);
    if (held != 0) return held > 0 ? kAlive : kUnknown;
    // The word and the lock are two looks. An end closing cleanly withdraws its word before its lock
    // goes, and a new holder raises the generation: either meanwhile is no death.
    if (__atomic_load_n(word, __ATOMIC_ACQUIRE) == 0) return kUnknown;
    return __atomic_load_n(generation, __ATOMIC_ACQUIRE) == before ? kDead : kUnknown;
}

KelPeerToken::Liveness KelPeerToken::Peer() const {
    if (m_head == nullptr) return kUnknown;
    return Of(m_fd, m_head, m_side == Server ? Client : Server);
}

void KelPeerToken::ForgetDeadPeer() {
    if (!m_held || m_side != Server || Peer() != kDead) return;
    // Only the dead client's word is cleared, never one a new client put up since.
    int32_t dead = 1;
    if (__atomic_compare_exchange_n(Word(m_head, kClientHeld), &dead, 0, false, __ATOMIC_RELEASE,
                                    __ATOMIC_RELAXED)) {
        __atomic_store_n(Word(m_head, kClientPid), 0, __ATOMIC_RELAXED);
    }
}
