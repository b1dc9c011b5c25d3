#include "KelFileLock.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <new>

#include "KelIpcLog.h"

namespace {

constexpr const char* kSource = "BaseAPI/KelIpc/src/unix/KelFileLock";
constexpr size_t kPathBufferSize = 4096;  // PATH_MAX: what realpath may write
static_assert(kPathBufferSize >= PATH_MAX, "realpath needs PATH_MAX bytes");

// One fcntl(F_SETLK) over the whole file, current end and beyond; never waits.
bool SetLock(int32_t fd, short type) {
    struct flock record = {};
    record.l_type = type;
    record.l_whence = SEEK_SET;
    record.l_start = 0;
    record.l_len = 0;
    return fcntl(fd, F_SETLK, &record) == 0;
}

}  // namespace

KelFileLock::KelFileLock(const std::string& path) : m_fd(-1) {
    char* resolved = new (std::nothrow) char[kPathBufferSize];
    if (resolved == nullptr) return;
    if (realpath(path.c_str(), resolved) == nullptr) {
        KEL_IPC_LOG(kSource, "KelFileLock", "realpath error");
    } else {
        m_fd = open(resolved, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (m_fd == -1) m_fd = open(resolved, O_RDWR | O_CLOEXEC);
    }
    delete[] resolved;
}

KelFileLock::~KelFileLock() {
    if (m_fd != -1) close(m_fd);
}

// With m_fd == -1, fcntl, write and read fail with EBADF: false and -1 without a special case.
bool KelFileLock::LockShared() {
    return SetLock(m_fd, F_RDLCK);
}

bool KelFileLock::LockExclusive() {
    return SetLock(m_fd, F_WRLCK);
}

bool KelFileLock::Unlock() {
    return SetLock(m_fd, F_UNLCK);
}

ssize_t KelFileLock::Write(const char* data, int len) {
    return write(m_fd, data, len);
}

ssize_t KelFileLock::Read(char* buf, int len) {
    return read(m_fd, buf, len);
}

KelFileLockGuard::KelFileLockGuard(KelFileLock* lock) : m_lock(lock), m_locked(false) {}

KelFileLockGuard::~KelFileLockGuard() {
    if (m_locked) (void)m_lock->Unlock();
}

bool KelFileLockGuard::LockShared() {
    const bool ok = m_lock->LockShared();
    if (ok) m_locked = true;
    return ok;
}

bool KelFileLockGuard::LockExclusive() {
    const bool ok = m_lock->LockExclusive();
    if (ok) m_locked = true;
    return ok;
}
