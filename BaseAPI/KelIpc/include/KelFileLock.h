#ifndef KEL_FILE_LOCK_H
#define KEL_FILE_LOCK_H

#include <sys/types.h>

#include <string>

#include "KelIpcDefine.h"

// Advisory, non-blocking whole-file lock between processes (POSIX record locks) on an existing file.
// Locks belong to the process: two objects of one process on one file never exclude each other, and
// destroying either drops the process's locks on that file.
class KELIPC_API KelFileLock {
public:
    // The file must exist; a path that cannot be resolved is logged and leaves the object without a
    // descriptor, so its lock calls return false and Read/Write return -1. Opened read-write, or
    // read-only where writing is denied (then only LockShared can succeed). A symbolic link in a sticky,
    // world-writable folder is followed only when it belongs to the caller or to the folder's owner, as
    // the kernel's protected-symlink rule does; otherwise the object stays without a descriptor.
    explicit KelFileLock(const std::string& path);
    ~KelFileLock();
    KelFileLock(const KelFileLock&) = delete;
    KelFileLock& operator=(const KelFileLock&) = delete;

    bool LockShared();     // false at once when another process holds a conflicting lock
    bool LockExclusive();  // likewise
    bool Unlock();
    ssize_t Write(const char* data, int len);  // at the current offset; write's result
    ssize_t Read(char* buf, int len);          // at the current offset; read's result

private:
    int32_t m_fd;
};

// Unlocks at destruction exactly when a lock call made through it succeeded.
class KELIPC_API KelFileLockGuard {
public:
    explicit KelFileLockGuard(KelFileLock* lock);  // must not be null, must outlive the guard
    ~KelFileLockGuard();
    KelFileLockGuard(const KelFileLockGuard&) = delete;
    KelFileLockGuard& operator=(const KelFileLockGuard&) = delete;

    bool LockShared();
    bool LockExclusive();

private:
    KelFileLock* m_lock;
    bool m_locked;
};

#endif  // KEL_FILE_LOCK_H
