#include "KelFileLock.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "KelDescriptor.h"
#include "KelIpcLog.h"

namespace {

constexpr const char* kSource = "BaseAPI/KelIpc/src/unix/KelFileLock";
constexpr size_t kPathBufferSize = 4096;  // PATH_MAX: what realpath may write
static_assert(kPathBufferSize >= PATH_MAX, "realpath needs PATH_MAX bytes");
constexpr int kMaxLinks = 40;  // the kernel's own bound on links followed in one lookup

std::string FolderOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// The kernel's protected-symlink rule, kept whatever the system's setting: in a sticky, world-writable
// folder (/tmp) anyone may plant a link, so one is followed only when it belongs to the follower or to
// the folder's owner.
bool MayFollow(const std::string& link) {
    struct stat linkStat {};
    struct stat folderStat {};
    if (lstat(link.c_str(), &linkStat) != 0 || stat(FolderOf(link).c_str(), &folderStat) != 0) return false;
    const bool shared = (folderStat.st_mode & S_ISVTX) != 0 && (folderStat.st_mode & S_IWOTH) != 0;
    return !shared || linkStat.st_uid == geteuid() || linkStat.st_uid == folderStat.st_uid;
}

// Read-write, or read-only where writing is denied (a shared lock needs no more); never waits on a FIFO.
int OpenNoFollow(const std::string& path) {
    const int flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const int fd = open(path.c_str(), O_RDWR | flags);
    return fd < 0 && (errno == EACCES || errno == EROFS) ? open(path.c_str(), O_RDONLY | flags) : fd;
}

// Opens path, following links in its last component by the rule above (those before it the kernel
// follows), each checked as it is followed.
int OpenLockFile(const std::string& path) {
    std::string current = path;
    for (int link = 0; link <= kMaxLinks; ++link) {
        const int fd = OpenNoFollow(current);
        if (fd >= 0 || errno != ELOOP || !MayFollow(current)) {
            return KelDescriptor::AboveStdio(fd, kSource, "KelFileLock");
        }
        char target[PATH_MAX];
        const ssize_t length = readlink(current.c_str(), target, sizeof(target) - 1);
        if (length < 0) return -1;
        target[length] = '\0';
        current = target[0] == '/' ? std::string(target) : FolderOf(current) + "/" + target;
    }
    return -1;
}

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
    // realpath only tells a path that does not resolve; the open follows links by its own rule, since a
    // path realpath resolved is opened without the kernel's protection and may have changed since.
    if (realpath(path.c_str(), resolved) == nullptr) {
        KEL_IPC_LOG(kSource, "KelFileLock", "realpath error");
    } else {
        m_fd = OpenLockFile(path);
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
