#include "KelPeerToken.h"

#include <fcntl.h>
#include <sys/mman.h>
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

flock LockOf(KelSide side, short type) {
    flock lock{};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = side == Server ? 0 : 1;
    lock.l_len = 1;
    return lock;
}

// Whether another open file description holds side's byte; false as well when the test fails.
bool LockHeld(int fd, KelSide side) {
    flock lock = LockOf(side, F_WRLCK);
    if (fcntl(fd, F_OFD_GETLK, &lock) == -1) {
        const int err = errno;
        KEL_IPC_LOG(kSource, "LockHeld", "fcntl F_OFD_GETLK fail, errno=%d", err);
        errno = err;
        return false;
    }
    return lock.l_type != F_UNLCK;
}

}  // namespace

bool KelPeerToken::Hold(int fd, KelSide side, KelCBHead* head) {
    flock lock = LockOf(side, F_WRLCK);
    if (fcntl(fd, F_OFD_SETLK, &lock) == -1) {
        const int err = errno;
        if (err != EAGAIN && err != EACCES)
            KEL_IPC_LOG(kSource, "Hold", "fcntl F_OFD_SETLK fail, errno=%d", err);
        errno = err;
        return false;
    }
    m_fd = fd;
    m_side = side;
    m_head = head;
    m_held = true;
    __atomic_store_n(Word(head, side == Server ? kServerPid : kClientPid), static_cast<int32_t>(getpid()),
                     __ATOMIC_RELAXED);
    // Release: an end that sees the announcement also sees the pid, and the lock is already there.
    __atomic_store_n(Word(head, HeldOffset(side)), 1, __ATOMIC_RELEASE);
    return true;
}

void KelPeerToken::Release() {
    if (!m_held) return;
    __atomic_store_n(Word(m_head, HeldOffset(m_side)), 0, __ATOMIC_RELEASE);
    __atomic_store_n(Word(m_head, m_side == Server ? kServerPid : kClientPid), 0, __ATOMIC_RELAXED);
    m_held = false;
    m_head = nullptr;
    m_fd = -1;
}

KelPeerToken::Liveness KelPeerToken::Of(int fd, const KelCBHead* head, KelSide side) {
    if (__atomic_load_n(Word(head, HeldOffset(side)), __ATOMIC_ACQUIRE) == 0) return kUnknown;
    return LockHeld(fd, side) ? kAlive : kDead;
}

KelPeerToken::Liveness KelPeerToken::Peer() const {
    if (m_head == nullptr) return kUnknown;
    return Of(m_fd, m_head, m_side == Server ? Client : Server);
}

void KelPeerToken::ForgetDeadPeer() {
    if (!m_held || m_side != Server || Peer() != kDead) return;
    __atomic_store_n(Word(m_head, kClientHeld), 0, __ATOMIC_RELEASE);
    __atomic_store_n(Word(m_head, kClientPid), 0, __ATOMIC_RELAXED);
}

bool KelPeerToken::ServerAlive(const char* shmName) {
    const int fd = shm_open(shmName, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool held = LockHeld(fd, Server);
    close(fd);
    return held;
}
