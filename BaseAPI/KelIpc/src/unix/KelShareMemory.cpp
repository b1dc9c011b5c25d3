#include "KelShareMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "KelDescriptor.h"
#include "KelIpcLog.h"
#include "KelPeerToken.h"
#include "KelSecureMem.h"
#include "KelShareMemoryDescriptor.h"
#include "KelTrust.h"

namespace {

constexpr const char* kSource = "BaseAPI/KelIpc/src/unix/KelShareMemory";
constexpr mode_t kDefaultMode = 0660;
// A claim that keeps finding a segment created after its unlink yields to the servers creating them.
constexpr int kClaimAttempts = 8;

// Permission bits only: anything above them (01000 is IPC_CREAT to semget) is no mode.
mode_t ModeOf(const KelSecurity* security) {
    return (security != nullptr ? static_cast<mode_t>(security->mode) : kDefaultMode) & 0777;
}

// Never waits (a FIFO under the name would hold an open for reading until a writer came) and keeps off
// the standard descriptors.
int ShmOpen(const char* name, int flags, mode_t mode, const char* function) {
    return KelDescriptor::AboveStdio(shm_open(name, flags | O_NONBLOCK | O_CLOEXEC, mode), kSource, function);
}

// Whether name still refers to the segment open on fd: it may have been replaced since.
bool StillNamed(const std::string& name, int fd) {
    const int named = ShmOpen(name.c_str(), O_RDONLY, 0, "StillNamed");
    if (named < 0) return false;
    struct stat mine {};
    struct stat found {};
    const bool same = fstat(fd, &mine) == 0 && fstat(named, &found) == 0 && mine.st_dev == found.st_dev &&
                      mine.st_ino == found.st_ino;
    close(named);
    return same;
}

}  // namespace

KelSecurity* CreateSecurityDescriptor(PermissionFlags /*permissions*/, SecurityFdType /*type*/) {
    return nullptr;
}

void DestroySecurityDescriptor(KelSecurity* /*security*/) {}

class KelShareMemoryPrivate {
public:
    int ShmServerOpen(const char* name, int shmLength, const KelSecurity* security);
    int ShmResetOpen(const char* name, int shmLength, const KelSecurity* security);
    int ShmNoResetOpen(const char* name, int shmLength, const KelSecurity* security);
    // shmLength 0: the segment's own size, whatever the server chose. trust: a channel's open, which
    // takes only a regular segment of a trusted owner.
    int ShmClientOpen(const char* name, int shmLength, const KelTrust* trust = nullptr);
    int ShmClaimOpen(const char* name, int shmLength, const KelSecurity* security, const KelTrust& trust);
    // unlink false keeps the name whatever the side and reset say.
    void CleanResource(bool unlink = true);

    int32_t m_fileMap = -1;  // -1: no descriptor held
    std::string m_name;
    char* m_data = nullptr;  // non-null exactly while open
    int32_t m_length = 0;
    KelSide m_side = Server;
    bool m_reset = true;

private:
    // Maps the descriptor and records the open; on failure releases everything and returns false.
    bool Map(const char* function, const char* name, int shmLength);
    // Gives the new segment on m_fileMap exactly the mode asked for and its length.
    int Shape(const char* function, int shmLength, const KelSecurity* security);
    // Sizes the new segment on m_fileMap with every page allocated: a full /dev/shm fails here, not with
    // SIGBUS at the first access of a page that cannot be had.
    int Size(const char* function, int shmLength);
};

bool KelShareMemoryPrivate::Map(const char* function, const char* name, int shmLength) {
    void* address =
        // Populated: a ring that faulted its pages in lap by lap would add a fault's microseconds to one
        // transfer in every 64 of a small-message stream until its first lap is done.
        mmap(nullptr, static_cast<size_t>(shmLength), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
             m_fileMap, 0);
    if (address == MAP_FAILED) {
        KEL_IPC_LOG(kSource, function, "mmap fail, errno=%d", errno);
        m_data = nullptr;
        CleanResource();
        return false;
    }
    m_data = static_cast<char*>(address);
    m_length = shmLength;
    m_name = name;
    return true;
}

int KelShareMemoryPrivate::ShmServerOpen(const char* name, int shmLength, const KelSecurity* security) {
    int rc;
    if (m_reset) {
        // Processes still mapping an old segment of this name keep it; new opens meet the new one.
        (void)shm_unlink(name);
        rc = ShmResetOpen(name, shmLength, security);
    } else {
        rc = ShmNoResetOpen(name, shmLength, security);
    }
    if (rc != IPC_OK) {
        KEL_IPC_LOG(kSource, "ShmServerOpen", "shm_open failed");
        CleanResource();
        return IPC_ERR_FAILED;
    }
    return Map("ShmServerOpen", name, shmLength) ? IPC_OK : IPC_ERR_FAILED;
}

int KelShareMemoryPrivate::ShmResetOpen(const char* name, int shmLength, const KelSecurity* security) {
    // Exclusive: the name was just unlinked, so EEXIST means another process created it in between.
    m_fileMap = ShmOpen(name, O_RDWR | O_CREAT | O_EXCL, ModeOf(security), "ShmResetOpen");
    if (m_fileMap < 0) {
        KEL_IPC_LOG(kSource, "ShmResetOpen", "shm_open fail, m_fileMap=%d, errno=%d", m_fileMap, errno);
        CleanResource();
        return IPC_ERR_FAILED;
    }
    return Shape("ShmResetOpen", shmLength, security);
}

int KelShareMemoryPrivate::Shape(const char* function, int shmLength, const KelSecurity* security) {
    // The process umask narrowed the creation mode; set exactly the bits asked for, leaving the mask alone.
    if (fchmod(m_fileMap, ModeOf(security)) != 0) {
        KEL_IPC_LOG(kSource, function, "fchmod fail, errno=%d", errno);
        CleanResource();
        return IPC_ERR_FAILED;
    }
    return Size(function, shmLength);
}

int KelShareMemoryPrivate::Size(const char* function, int shmLength) {
    const int rc = ftruncate(m_fileMap, static_cast<off_t>(shmLength));
    if (rc < 0) {
        KEL_IPC_LOG(kSource, function, "ftruncate fail, rc=%d, errno=%d", rc, errno);
        CleanResource();
        return IPC_ERR_FAILED;
    }
    // An empty segment has nothing to allocate (and fails later, at its mapping).
    int err = 0;
    while (shmLength > 0 && (err = posix_fallocate(m_fileMap, 0, static_cast<off_t>(shmLength))) == EINTR) {
    }
    if (err != 0) {
        KEL_IPC_LOG(kSource, function, "posix_fallocate fail, rc=%d, errno=%d", err, err);
        CleanResource();
        return IPC_ERR_FAILED;
    }
    return IPC_OK;
}

namespace {

// What a channel found under a name (st: what fstat told): IPC_ERR_ACCESS unless a regular file of a
// trusted owner.
int Vet(int fd, const KelTrust& trust, const char* function, struct stat& st) {
    const int rc = fstat(fd, &st);
    if (rc != 0) {
        KEL_IPC_LOG(kSource, function, "fstat fail, rc=%d, errno=%d", rc, errno);
        return IPC_ERR_FAILED;
    }
    return S_ISREG(st.st_mode) && trust.Trusts(st.st_uid) ? IPC_OK : IPC_ERR_ACCESS;
}

// An object under the name that cannot be opened as a segment: a folder, or a link (shm_open follows
// none). For a server, also one it may not write: it could neither replace nor use it.
bool Foreign(int err, KelSide side) {
    return err == EISDIR || err == ELOOP || (side == Server && err == EACCES);
}

}  // namespace

// Two servers of ours opening one name at once must not both go on: each would replace the other's
// segment. The server byte (the server's liveness lock) of the segment found under the name, and of the
// one created, decides: a server goes on only when it locked both and the name still refers to the
// segment it created. Whoever replaces a segment locked it first, so once locked and still named, the
// new segment stays this server's. Only a trusted owner's regular segment is replaced at all. Read locks
// on the server byte (anyone who may read the segment can take one) do not stop a server; it then goes on
// without the lock, and only the look that the name still refers to what it found guards the unlink.
int KelShareMemoryPrivate::ShmClaimOpen(const char* name, int shmLength, const KelSecurity* security,
                                        const KelTrust& trust) {
    m_side = Server;
    m_reset = true;
    for (int attempt = 0; attempt < kClaimAttempts; ++attempt) {
        const int found = ShmOpen(name, O_RDWR, 0, "ShmClaimOpen");
        if (found < 0 && errno != ENOENT) {
            const int err = errno;
            KEL_IPC_LOG(kSource, "ShmClaimOpen", "shm_open fail, m_fileMap=%d, errno=%d", found, err);
            return Foreign(err, Server) ? IPC_ERR_ACCESS : IPC_ERR_FAILED;
        }
        struct stat st {};
        int rc = found >= 0 ? Vet(found, trust, "ShmClaimOpen", st) : IPC_OK;
        if (rc == IPC_OK && found >= 0) rc = KelPeerToken::Seize(found, Server);
        // Only what this server looked at goes: a segment named since is another's claim.
        const bool replaced = rc == IPC_OK && found >= 0 && !StillNamed(name, found);
        if (rc == IPC_OK && found >= 0 && !replaced && shm_unlink(name) != 0 && errno != ENOENT) {
            // In the sticky /dev/shm another user's segment is theirs to remove.
            KEL_IPC_LOG(kSource, "ShmClaimOpen", "shm_unlink fail, errno=%d", errno);
            rc = IPC_ERR_ACCESS;
        }
        if (rc == IPC_OK && !replaced) {
            // Owner-only until its server byte is locked: nobody may open it, and lock a byte, before.
            m_fileMap = ShmOpen(name, O_RDWR | O_CREAT | O_EXCL, 0600, "ShmClaimOpen");
            const int err = errno;
            if (m_fileMap < 0 && err != EEXIST) {
                KEL_IPC_LOG(kSource, "ShmClaimOpen", "shm_open fail, m_fileMap=%d, errno=%d", m_fileMap, err);
                rc = IPC_ERR_FAILED;
            } else if (m_fileMap >= 0) {
                rc = KelPeerToken::Lock(m_fileMap, Server);
                if (rc == IPC_OK && !StillNamed(name, m_fileMap)) rc = IPC_ERR_OPENED;
                if (rc == IPC_OK) rc = Shape("ShmClaimOpen", shmLength, security);
            }
        }
        if (found >= 0) close(found);
        if (rc != IPC_OK) {
            CleanResource();
            return rc;
        }
        // Created after our unlink by another server: claim that one in turn.
        if (m_fileMap < 0) continue;
        return Map("ShmClaimOpen", name, shmLength) ? IPC_OK : IPC_ERR_FAILED;
    }
    return IPC_ERR_OPENED;
}

int KelShareMemoryPrivate::ShmNoResetOpen(const char* name, int shmLength, const KelSecurity* security) {
    const mode_t mode = ModeOf(security);
    // An existing segment is taken as it is: bytes and size untouched.
    m_fileMap = ShmOpen(name, O_RDWR, mode, "ShmNoResetOpen");
    if (m_fileMap >= 0) {
        // Mapped past its end, a shorter segment would fault at the first access.
        struct stat st {};
        const int rc = fstat(m_fileMap, &st);
        const int err = errno;
        if (rc < 0 || static_cast<int64_t>(st.st_size) < static_cast<int64_t>(shmLength)) {
            KEL_IPC_LOG(kSource, "ShmNoResetOpen", "fstat fail, rc=%d, errno=%d, st.st_size=%d, shmLength=%d",
                        rc, err, static_cast<int>(st.st_size), shmLength);
            return IPC_ERR_FAILED;
        }
        return IPC_OK;
    }
    if (errno != ENOENT) {
        const int err = errno;
        KEL_IPC_LOG(kSource, "ShmNoResetOpen", "shm_open fail, errno=%d: %s", err, strerror(err));
        return IPC_ERR_FAILED;
    }
    m_fileMap = ShmOpen(name, O_RDWR | O_CREAT | O_EXCL, mode, "ShmNoResetOpen");
    if (m_fileMap < 0) {
        KEL_IPC_LOG(kSource, "ShmNoResetOpen", "shm_open fail, m_fileMap=%d, errno=%d", m_fileMap, errno);
        CleanResource();
        return IPC_ERR_FAILED;
    }
    return Size("ShmNoResetOpen", shmLength);
}

int KelShareMemoryPrivate::ShmClientOpen(const char* name, int shmLength, const KelTrust* trust) {
    m_fileMap = ShmOpen(name, O_RDWR, 0, "ShmClientOpen");
    if (m_fileMap < 0) {
        const int err = errno;
        KEL_IPC_LOG(kSource, "ShmClientOpen", "shm_open fail, m_fileMap=%d, errno=%d", m_fileMap, err);
        CleanResource();
        return trust != nullptr && Foreign(err, Client) ? IPC_ERR_ACCESS : IPC_ERR_FAILED;
    }
    struct stat st {};
    const int vetted = trust != nullptr ? Vet(m_fileMap, *trust, "ShmClientOpen", st) : IPC_OK;
    if (vetted != IPC_OK) {
        CleanResource();
        return vetted;
    }
    // The exact size guards against mapping past the segment's end, where an access would fault.
    const int rc = trust != nullptr ? 0 : fstat(m_fileMap, &st);
    const int err = errno;
    if (rc == 0 && shmLength == 0 && st.st_size > 0 && st.st_size <= INT32_MAX) {
        shmLength = static_cast<int>(st.st_size);
    }
    if (rc < 0 || static_cast<int64_t>(st.st_size) != static_cast<int64_t>(shmLength)) {
        KEL_IPC_LOG(kSource, "ShmClientOpen", "fstat fail, rc=%d, errno=%d, st.st_size=%d, shmLength=%d", rc,
                    err, static_cast<int>(st.st_size), shmLength);
        CleanResource();
        return IPC_ERR_FAILED;
    }
    return Map("ShmClientOpen", name, shmLength) ? IPC_OK : IPC_ERR_FAILED;
}

void KelShareMemoryPrivate::CleanResource(bool unlink) {
    // Only a completed open has a mapping here: failure paths reach this with m_data null, and the
    // segment they may have created stays for the next reset open to replace.
    const bool releasingOpen = m_data != nullptr;
    if (m_data != nullptr) {
        const int rc = munmap(m_data, static_cast<size_t>(m_length));
        if (rc != 0) KEL_IPC_LOG(kSource, "CleanResource", "munmap fail, rc=%d, errno=%d", rc, errno);
        m_data = nullptr;
        m_length = 0;
    }
    if (m_fileMap >= 0) {
        const int rc = close(m_fileMap);
        if (rc != 0) KEL_IPC_LOG(kSource, "CleanResource", "close fail, rc=%d, errno=%d", rc, errno);
        m_fileMap = -1;
    }
    // Only the creator removes the segment; a server opened without reset leaves it for the next one.
    if (unlink && releasingOpen && m_side == Server && m_reset) {
        const int rc = shm_unlink(m_name.c_str());
        if (rc != 0) KEL_IPC_LOG(kSource, "CleanResource", "shm_unlink fail, rc=%d, errno=%d", rc, errno);
    }
}

int KelShareMemoryDescriptor(KelShareMemory& memory) {
    return memory.m_private->m_data != nullptr ? memory.m_private->m_fileMap : -1;
}

int KelShareMemoryAdopt(KelShareMemory& memory, const char* name, int& shmLength, int trustedUid) {
    if (memory.m_private->m_data != nullptr) return IPC_ERR_OPENED;
    memory.m_private->m_side = Client;
    const KelTrust trust(trustedUid);
    const int rc = memory.m_private->ShmClientOpen(name, shmLength, &trust);
    shmLength = memory.m_private->m_length;
    return rc;
}

int KelShareMemoryClaim(KelShareMemory& memory, const char* name, int shmLength, const KelSecurity* security,
                        int trustedUid) {
    if (memory.m_private->m_data != nullptr) return IPC_ERR_OPENED;
    return memory.m_private->ShmClaimOpen(name, shmLength, security, KelTrust(trustedUid));
}

bool KelShareMemoryRelease(KelShareMemory& memory, bool remove) {
    KelShareMemoryPrivate& p = *memory.m_private;
    const bool named =
        remove && p.m_data != nullptr && p.m_side == Server && p.m_reset && StillNamed(p.m_name, p.m_fileMap);
    p.CleanResource(named);
    return named;
}

KelShareMemory::KelShareMemory() : m_private(new KelShareMemoryPrivate) {}

KelShareMemory::~KelShareMemory() {
    m_private->CleanResource();
    delete m_private;
}

int KelShareMemory::Open(const char* name, int shmLength, KelSide side, const KelSecurity* security) {
    if (name == nullptr) return IPC_ERR_NULL;
    if (m_private->m_data != nullptr) return IPC_ERR_OPENED;
    m_private->m_side = side;
    switch (side) {
        case Server:
            return m_private->ShmServerOpen(name, shmLength, security);
        case Client:
            return m_private->ShmClientOpen(name, shmLength);
        default:
            return IPC_ERR_PARAM;
    }
}

int KelShareMemory::Open(const char* name, int shmLength, KelSide side, const KelSecurity* security,
                         bool reset) {
    // Recorded before any test: it also governs a later open and the unlink decision at Close.
    m_private->m_reset = reset;
    return Open(name, shmLength, side, security);
}

int KelShareMemory::Close() {
    if (m_private->m_data == nullptr && m_private->m_fileMap < 0) return IPC_ERR_NOT_OPENED;
    m_private->CleanResource();
    return IPC_OK;
}

char* KelShareMemory::Data() {
    return m_private->m_data;
}

void KelShareMemory::Reset() {
    if (m_private->m_data == nullptr) return;
    const size_t length = static_cast<size_t>(m_private->m_length);
    (void)kel::memset_s(m_private->m_data, length, 0, length);
}
