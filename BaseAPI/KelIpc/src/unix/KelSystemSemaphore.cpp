#include "KelSystemSemaphore.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <ctime>

#include "KelIpcLog.h"

namespace {

constexpr const char* kSource = "BaseAPI/KelIpc/src/unix/KelSystemSemaphore";
constexpr int kDefaultMode = 0660;

// The caller defines semctl's fourth argument.
union SemArg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// djb2 over the name's bytes taken as signed chars, so that every process (and every build of the peer)
// derives the same key from a name with bytes above 0x7F.
key_t KeyFromName(const char* name) {
    uint32_t hash = 5381;
    for (const char* p = name; *p != '\0'; ++p) {
        hash = hash * 33u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
    }
    return static_cast<key_t>(static_cast<int32_t>(hash));
}

int SetValue(int semId, int value) {
    SemArg arg;
    arg.val = value;
    return semctl(semId, 0, SETVAL, arg);
}

// Counts this process as a live server of the set, undone by the kernel when the process dies, and only
// then marks the set as one of ours: a marked set whose count is 0 is known to have no server. SETVAL is
// kept off the count, as it would clear every process's undo of it.
bool MarkServer(int semId) {
    sembuf alive{};
    alive.sem_num = KelSystemSemaphore::kServerCount;
    alive.sem_op = 1;
    alive.sem_flg = SEM_UNDO;
    int rc = semop(semId, &alive, 1);
    if (rc == -1) {
        const int err = errno;
        KEL_IPC_LOG(kSource, "SemServerOpen", "semop fail, rc=%d, errno=%d", rc, err);
        errno = err;
        return false;
    }
    SemArg arg;
    arg.val = KelSystemSemaphore::kMarkerValue;
    rc = semctl(semId, KelSystemSemaphore::kMarker, SETVAL, arg);
    if (rc == -1) {
        const int err = errno;
        KEL_IPC_LOG(kSource, "SemServerOpen", "semctl SETVAL fail, rc=%d, errno=%d", rc, err);
        errno = err;
        return false;
    }
    return true;
}

}  // namespace

class KelSystemSemaphorePrivate {
public:
    int SemServerOpen(const char* name, const KelSecurity* security);
    int SemClientOpen(const char* name, const KelSecurity* security);
    int PriClose();
    int SetSignal(const char* function, int value);

    int32_t m_semId = -1;  // -1: not open
    int32_t m_side = -1;   // KelSide of the last Open; -1 before any
};

int KelSystemSemaphorePrivate::SemServerOpen(const char* name, const KelSecurity* security) {
    const key_t key = KeyFromName(name);
    // No IPC_EXCL: a set left by a server that died is reused.
    const int flags = (security != nullptr ? security->mode : kDefaultMode) | IPC_CREAT;
    m_semId = semget(key, KelSystemSemaphore::kServerSetSize, flags);
    // EINVAL: a smaller set made by an older or foreign server; it is used as it is, without the marks.
    if (m_semId == -1 && errno == EINVAL) {
        m_semId = semget(key, 1, flags);
    } else if (m_semId != -1 && !MarkServer(m_semId)) {
        const int err = errno;
        (void)PriClose();
        errno = err;
        return IPC_ERR_FAILED;
    }
    if (m_semId == -1) {
        KEL_IPC_LOG(kSource, "SemServerOpen", "semget fail, rc=%d, errno=%d", m_semId, errno);
        return IPC_ERR_FAILED;
    }
    // A reused set may hold a stale signal.
    const int rc = SetValue(m_semId, 0);
    if (rc == -1) {
        KEL_IPC_LOG(kSource, "SemServerOpen", "semctl SETVAL fail, rc=%d, errno=%d", rc, errno);
        (void)PriClose();
        return IPC_ERR_FAILED;
    }
    return IPC_OK;
}

int KelSystemSemaphorePrivate::SemClientOpen(const char* name, const KelSecurity* security) {
    const key_t key = KeyFromName(name);
    // Attach only: ENOENT while no server has created the set.
    const int flags = security != nullptr ? security->mode : kDefaultMode;
    m_semId = semget(key, 1, flags);
    if (m_semId == -1) {
        KEL_IPC_LOG(kSource, "SemClientOpen", "semget fail, rc=%d, errno=%d", m_semId, errno);
        return IPC_ERR_FAILED;
    }
    return IPC_OK;
}

int KelSystemSemaphorePrivate::PriClose() {
    if (m_semId == -1) return IPC_ERR_NOT_OPENED;
    // Only the creator removes the set; a client object stays attached until destroyed.
    if (m_side != Server) return IPC_OK;
    // Removal wakes every waiter in Acquire with EIDRM.
    const int rc = semctl(m_semId, 0, IPC_RMID);
    m_semId = -1;
    if (rc == -1) {
        KEL_IPC_LOG(kSource, "PriClose", "semctl IPC_RMID fail, rc=%d, errno=%d", rc, errno);
        return IPC_ERR_FAILED;
    }
    return IPC_OK;
}

int KelSystemSemaphorePrivate::SetSignal(const char* function, int value) {
    if (m_semId == -1) return IPC_ERR_NOT_OPENED;
    const int rc = SetValue(m_semId, value);
    // A set its server has removed meanwhile (a client stopping while the server closes) is no failure
    // worth a line: there is nobody left to signal.
    if (rc == -1 && (errno == EIDRM || errno == EINVAL) && m_side == Client) return IPC_ERR_NOT_OPENED;
    if (rc == -1) {
        KEL_IPC_LOG(kSource, function, "semctl SETVAL fail, rc=%d, errno=%d", rc, errno);
        return IPC_ERR_FAILED;
    }
    return IPC_OK;
}

KelSystemSemaphore::KelSystemSemaphore() : m_private(new KelSystemSemaphorePrivate) {}

KelSystemSemaphore::~KelSystemSemaphore() {
    (void)m_private->PriClose();
    delete m_private;
}

int KelSystemSemaphore::Open(const char* name, KelSide side, const KelSecurity* security) {
    if (name == nullptr) return IPC_ERR_NULL;
    if (Opened()) return IPC_ERR_OPENED;
    m_private->m_side = side;
    switch (side) {
        case Server:
            return m_private->SemServerOpen(name, security);
        case Client:
            return m_private->SemClientOpen(name, security);
        default:
            return IPC_ERR_PARAM;
    }
}

int KelSystemSemaphore::Close() {
    return m_private->PriClose();
}

bool KelSystemSemaphore::Opened() {
    return m_private->m_semId != -1;
}

int KelSystemSemaphore::Acquire() {
    return AcquireFor(0);
}

int KelSystemSemaphore::AcquireFor(int milliseconds) {
    if (!Opened()) return IPC_ERR_NOT_OPENED;
    // No EINTR retry and no SEM_UNDO: the ring treats an interrupted wait as a wake-up, and a wake-up
    // taken by a process that then dies is not handed back.
    struct sembuf op;
    op.sem_num = 0;
    op.sem_op = -1;
    op.sem_flg = 0;
    const timespec limit{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    const int rc =
        milliseconds > 0 ? semtimedop(m_private->m_semId, &op, 1, &limit) : semop(m_private->m_semId, &op, 1);
    if (rc == -1) {
        // The ring reads errno after a failed wait; keep it whatever the logger does.
        const int err = errno;
        if (milliseconds > 0 && err == EAGAIN) return IPC_ERR_TIMEOUT;
        KEL_IPC_LOG(kSource, "Acquire",
                    milliseconds > 0 ? "semtimedop fail, rc=%d, errno=%d" : "semop fail, rc=%d, errno=%d", rc,
                    err);
        errno = err;
        return IPC_ERR_FAILED;
    }
    return IPC_OK;
}

int KelSystemSemaphore::Acquire(int /*ignored*/) {
    return Acquire();
}

// Set to 1 rather than raised, so the value stays a two-state signal however often it is released.
int KelSystemSemaphore::Release() {
    return m_private->SetSignal("Release", 1);
}

int KelSystemSemaphore::Reset() {
    return m_private->SetSignal("Reset", 0);
}
