#include "KelPollFifo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "KelDescriptor.h"
#include "KelIpcDefine.h"
#include "KelIpcLog.h"

namespace {

constexpr const char* kSource = "BaseAPI/KelIpc/src/unix/KelPollFifo";
constexpr int kFlags = O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW;

// Names under /dev/shm are anyone's to take: only a FIFO of a user this end trusts is the channel's.
bool Trusted(const struct stat& st, const KelTrust& trust) {
    return S_ISFIFO(st.st_mode) && trust.Trusts(st.st_uid);
}

bool SameFile(int fd, const std::string& path) {
    struct stat mine {};
    struct stat named {};
    return fstat(fd, &mine) == 0 && lstat(path.c_str(), &named) == 0 && mine.st_dev == named.st_dev &&
           mine.st_ino == named.st_ino;
}

}  // namespace

int KelPollFifo::Create(const std::string& path, mode_t mode, const KelTrust& trust) {
    if (m_fd >= 0) return IPC_ERR_OPENED;
    int rc = mkfifo(path.c_str(), 0600);
    if (rc != 0 && errno == EEXIST) {
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0 || !Trusted(st, trust)) return IPC_ERR_ACCESS;
        // Only one live end of a side holds a channel, so a FIFO of its side is a dead end's.
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            KEL_IPC_LOG(kSource, "Create", "unlink fail, errno=%d", errno);
            return IPC_ERR_FAILED;
        }
        rc = mkfifo(path.c_str(), 0600);
    }
    if (rc != 0) {
        const int err = errno;
        KEL_IPC_LOG(kSource, "Create", "mkfifo fail, rc=%d, errno=%d", rc, err);
        return err == EEXIST ? IPC_ERR_ACCESS : IPC_ERR_FAILED;
    }
    m_fd = KelDescriptor::AboveStdio(open(path.c_str(), kFlags), kSource, "Create");
    if (m_fd < 0) {
        KEL_IPC_LOG(kSource, "Create", "open fail, rc=%d, errno=%d", m_fd, errno);
        return IPC_ERR_FAILED;
    }
    m_path = path;
    m_creator = getpid();
    struct stat st {};
    if (fstat(m_fd, &st) != 0 || !S_ISFIFO(st.st_mode) || st.st_uid != geteuid()) {
        Close();
        return IPC_ERR_ACCESS;
    }
    // The umask narrowed the creation mode; the socket's security says who may ring.
    if (fchmod(m_fd, mode & 0777) != 0) {
        KEL_IPC_LOG(kSource, "Create", "fchmod fail, errno=%d", errno);
        Close();
        return IPC_ERR_FAILED;
    }
    return IPC_OK;
}

void KelPollFifo::Close() {
    if (m_fd < 0) return;
    if (getpid() == m_creator && SameFile(m_fd, m_path) && unlink(m_path.c_str()) != 0) {
        KEL_IPC_LOG(kSource, "Close", "unlink fail, errno=%d", errno);
    }
    if (close(m_fd) != 0) KEL_IPC_LOG(kSource, "Close", "close fail, errno=%d", errno);
    m_fd = -1;
    m_path.clear();
}

int KelPollFifo::OpenPeer(const std::string& path, const KelTrust& trust) {
    const int fd = KelDescriptor::AboveStdio(open(path.c_str(), kFlags), kSource, "OpenPeer");
    if (fd < 0) {
        KEL_IPC_LOG(kSource, "OpenPeer", "open fail, rc=%d, errno=%d", fd, errno);
        return -1;
    }
    struct stat st {};
    if (fstat(fd, &st) != 0 || !Trusted(st, trust)) {
        KEL_IPC_LOG(kSource, "OpenPeer", "fstat fail, errno=%d, mode=%o, uid=%d", errno,
                    static_cast<unsigned>(st.st_mode), static_cast<int>(st.st_uid));
        close(fd);
        return -1;
    }
    return fd;
}

bool KelPollFifo::Drain(int fd) {
    char bytes[256];
    bool any = false;
    for (;;) {
        const ssize_t got = read(fd, bytes, sizeof bytes);
        if (got > 0) any = true;
        // A pipe read takes all that is there up to the count: a short one emptied it.
        if (got == static_cast<ssize_t>(sizeof bytes) || (got < 0 && errno == EINTR)) continue;
        if (got < 0 && errno != EAGAIN) KEL_IPC_LOG(kSource, "Drain", "read fail, errno=%d", errno);
        return any;
    }
}

void KelPollFifo::Ring(int fd) {
    const char byte = 1;
    ssize_t rc;
    do {
        rc = write(fd, &byte, 1);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0 && errno != EAGAIN) KEL_IPC_LOG(kSource, "Ring", "write fail, errno=%d", errno);
}
