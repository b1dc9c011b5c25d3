#include "KelSystemSemaphore.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <vector>

#include "KelDateTime.h"
#include "KelIpcLog.h"
#include "KelSystemSemaphoreChannel.h"
#include "KelTrust.h"

namespace {

constexpr const char* kSource = "BaseAPI/KelIpc/src/unix/KelSystemSemaphore";
constexpr int kDefaultMode = 0660;
constexpr int kCheckCount = KelSystemSemaphore::kNameCheckCount;
// Rounds of a server open: a set removed or reclaimed meanwhile is looked for again, and one that another
// server of ours is still making is waited for, a millisecond at a time, until its marker is there.
constexpr int kOpenRounds = 100;

// The caller defines semctl's fourth argument.
union SemArg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

// Permission bits only: anything above them (01000 is IPC_CREAT) would change what semget does.
int ModeOf(const KelSecurity* security) {
    return (security != nullptr ? security->mode : kDefaultMode) & 0777;
}

// djb2 over the name's bytes taken as signed chars, so that every process (and every build of the peer)
// derives the same key from a name with bytes above 0x7F.
key_t KeyFromName(const char* name) {
    uint32_t hash = 5381;
    for (const char* p = name; *p != '\0'; ++p) {
        hash = hash * 33u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(*p)));
    }
    return static_cast<key_t>(static_cast<int32_t>(hash));
}

// A 60-bit check of the whole name, another hash than the key's, in pieces of 15 bits (all a semaphore
// value holds): sets made for two names of one key tell each other apart by it.
void NameCheck(const char* name, unsigned short (&check)[kCheckCount]) {
    uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (const char* p = name; *p != '\0'; ++p) {
        hash = (hash ^ static_cast<unsigned char>(*p)) * 1099511628211ull;
    }
    for (int i = 0; i < kCheckCount; ++i) check[i] = static_cast<unsigned short>((hash >> (15 * i)) & 0x7FFF);
}

// What a set found under a key tells about its maker.
struct SetFacts {
    bool ours = false;    // our size: made by a server of ours, perhaps not marked yet
    bool marked = false;  // marker set: a server of ours made it whole (an older one, if not our size)
    bool named = false;   // ours, carrying this name's check
    int servers = 0;      // live servers counted in it, when marked
    ipc_perm perm{};      // owner, creator and mode
};

// False when the set cannot be read (errno tells why).
bool Examine(int semId, const unsigned short (&check)[kCheckCount], SetFacts& facts) {
    struct semid_ds ds {};
    SemArg arg;
    arg.buf = &ds;
    if (semctl(semId, 0, IPC_STAT, arg) == -1) return false;
    facts.perm = ds.sem_perm;
    const size_t size = ds.sem_nsems;
    if (size <= static_cast<size_t>(KelSystemSemaphore::kServerCount)) return true;
    std::vector<unsigned short> values(size);
    arg.array = values.data();
    if (semctl(semId, 0, GETALL, arg) == -1) return false;
    facts.ours = size == KelSystemSemaphore::kServerSetSize;
    facts.marked = values[KelSystemSemaphore::kMarker] == KelSystemSemaphore::kMarkerValue;
    facts.named =
        facts.ours && std::equal(check, check + kCheckCount, &values[KelSystemSemaphore::kNameCheck]);
    facts.servers = values[KelSystemSemaphore::kServerCount];
    return true;
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
    // trust: a channel's open, which refuses a set made for another name or by an untrusted user, and a
    // name of key 0.
    int Open(const char* name, KelSide side, const KelSecurity* security, const KelTrust* trust);
    int SemServerOpen(const char* name, const KelSecurity* security, const KelTrust* trust);
    int SemClientOpen(const char* name, const KelSecurity* security, const KelTrust* trust);
    int Create(int semId, const unsigned short (&check)[kCheckCount]);
    int PriClose();
    int SetSignal(const char* function, int value);
    int Wait(int milliseconds, bool logInterrupt);

    int32_t m_semId = -1;  // -1: not open
    int32_t m_side = -1;   // KelSide of the last Open; -1 before any
};

int KelSystemSemaphorePrivate::Open(const char* name, KelSide side, const KelSecurity* security,
                                    const KelTrust* trust) {
    const bool verify = trust != nullptr;
    if (name == nullptr) return IPC_ERR_NULL;
    if (m_semId != -1) return IPC_ERR_OPENED;
    // Key 0 is IPC_PRIVATE: every semget makes a new set there, so the two ends would never meet.
    if (verify && KeyFromName(name) == 0) return IPC_ERR_PARAM;
    m_side = side;
    switch (side) {
        case Server:
            return SemServerOpen(name, security, trust);
        case Client:
            return SemClientOpen(name, security, trust);
        default:
            return IPC_ERR_PARAM;
    }
}

int KelSystemSemaphorePrivate::SemServerOpen(const char* name, const KelSecurity* security,
                                             const KelTrust* trust) {
    const bool verify = trust != nullptr;
    const key_t key = KeyFromName(name);
    const int mode = ModeOf(security);
    unsigned short check[kCheckCount];
    NameCheck(name, check);
    for (int round = 0; round < kOpenRounds; ++round) {
        // Exclusive, so that whoever makes a set writes its name check before anyone takes it as marked.
        int id = semget(key, KelSystemSemaphore::kServerSetSize, mode | IPC_CREAT | IPC_EXCL);
        if (id != -1) return Create(id, check);
        // Found without asking for access: whether it may be used is for its owner and creator to tell.
        if (errno == EEXIST) id = semget(key, 0, 0);
        SetFacts facts;
        if (id == -1 || !Examine(id, check, facts)) {
            const int err = errno;
            if (err == ENOENT || err == EIDRM || err == EINVAL) continue;  // removed meanwhile
            KEL_IPC_LOG(kSource, "SemServerOpen", "semget fail, rc=%d, errno=%d", -1, err);
            // One this user may not even read is someone else's.
            return verify && err == EACCES ? IPC_ERR_ACCESS : IPC_ERR_FAILED;
        }
        // Someone else's set is neither used nor removed: the name is taken.
        if (verify && !trust->TrustsSet(facts.perm.uid, facts.perm.cuid)) return IPC_ERR_ACCESS;
        if (facts.ours && !facts.marked && round + 1 < kOpenRounds) {
            KelSleep(1);
            continue;
        }
        if ((facts.ours || facts.marked) && !facts.named && facts.servers == 0) {
            // Left behind by servers of ours that are gone (another name's, or of an older layout).
            (void)semctl(id, 0, IPC_RMID);
            continue;
        }
        // Another name's set in use; sharing it would cross the two channels' wake-ups.
        if (facts.ours && !facts.named && verify) return IPC_ERR_ACCESS;
        // A reused set takes the mode asked for, as a new one would.
        if (static_cast<int>(facts.perm.mode & 0777) != mode) {
            facts.perm.mode = static_cast<unsigned short>(mode);
            struct semid_ds ds {};
            ds.sem_perm = facts.perm;
            SemArg arg;
            arg.buf = &ds;
            if (semctl(id, 0, IPC_SET, arg) == -1) {
                KEL_IPC_LOG(kSource, "SemServerOpen", "semctl IPC_SET fail, rc=%d, errno=%d", -1, errno);
                return IPC_ERR_FAILED;
            }
        }
        m_semId = id;
        // A smaller set (made by an older or foreign server) is used as it is, without the marks.
        if (facts.ours && !MarkServer(id)) {
            const int err = errno;
            m_semId = -1;  // counted nowhere: nothing of ours to remove
            errno = err;
            return IPC_ERR_FAILED;
        }
        // A reused set may hold a stale signal.
        const int rc = SetValue(id, 0);
        if (rc == -1) {
            KEL_IPC_LOG(kSource, "SemServerOpen", "semctl SETVAL fail, rc=%d, errno=%d", rc, errno);
            (void)PriClose();
            return IPC_ERR_FAILED;
        }
        return IPC_OK;
    }
    KEL_IPC_LOG(kSource, "SemServerOpen", "semget fail, rc=%d, errno=%d", -1, EEXIST);
    return IPC_ERR_FAILED;
}

// A set this server has just made: the name check first, then the count and the marker (MarkServer).
int KelSystemSemaphorePrivate::Create(int semId, const unsigned short (&check)[kCheckCount]) {
    unsigned short values[KelSystemSemaphore::kServerSetSize] = {};
    std::copy(check, check + kCheckCount, values + KelSystemSemaphore::kNameCheck);
    SemArg arg;
    arg.array = values;
    m_semId = semId;
    const int rc = semctl(semId, 0, SETALL, arg);
    if (rc == -1) KEL_IPC_LOG(kSource, "SemServerOpen", "semctl SETALL fail, rc=%d, errno=%d", rc, errno);
    if (rc == -1 || !MarkServer(semId)) {
        (void)PriClose();
        return IPC_ERR_FAILED;
    }
    return IPC_OK;
}

int KelSystemSemaphorePrivate::SemClientOpen(const char* name, const KelSecurity* security,
                                             const KelTrust* trust) {
    const key_t key = KeyFromName(name);
    // Attach only: ENOENT while no server has created the set.
    const int id = semget(key, 1, ModeOf(security));
    if (id == -1) {
        KEL_IPC_LOG(kSource, "SemClientOpen", "semget fail, rc=%d, errno=%d", id, errno);
        return IPC_ERR_FAILED;
    }
    if (trust != nullptr) {
        unsigned short check[kCheckCount];
        NameCheck(name, check);
        SetFacts facts;
        if (!Examine(id, check, facts)) {
            KEL_IPC_LOG(kSource, "SemClientOpen", "semctl IPC_STAT fail, rc=%d, errno=%d", -1, errno);
            return IPC_ERR_FAILED;
        }
        if (!trust->TrustsSet(facts.perm.uid, facts.perm.cuid) ||
            (facts.marked && facts.ours && !facts.named)) {
            return IPC_ERR_ACCESS;
        }
    }
    m_semId = id;
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
    return m_private->Open(name, side, security, nullptr);
}

int KelSystemSemaphoreOpenChannel(KelSystemSemaphore& semaphore, const char* name, KelSide side,
                                  const KelSecurity* security, int trustedUid) {
    const KelTrust trust(trustedUid);
    return semaphore.m_private->Open(name, side, security, &trust);
}

void KelSystemSemaphoreAbandon(KelSystemSemaphore& semaphore) {
    semaphore.m_private->m_semId = -1;
}

int KelSystemSemaphore::Close() {
    return m_private->PriClose();
}

bool KelSystemSemaphore::Opened() {
    return m_private->m_semId != -1;
}

int KelSystemSemaphore::Acquire() {
    return m_private->Wait(0, true);
}

int KelSystemSemaphore::AcquireFor(int milliseconds) {
    return m_private->Wait(milliseconds, false);
}

int KelSystemSemaphorePrivate::Wait(int milliseconds, bool logInterrupt) {
    if (m_semId == -1) return IPC_ERR_NOT_OPENED;
    // No EINTR retry and no SEM_UNDO: the ring treats an interrupted wait as a wake-up, and a wake-up
    // taken by a process that then dies is not handed back.
    struct sembuf op;
    op.sem_num = 0;
    op.sem_op = -1;
    op.sem_flg = 0;
    const timespec limit{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    const int rc = milliseconds > 0 ? semtimedop(m_semId, &op, 1, &limit) : semop(m_semId, &op, 1);
    if (rc == -1) {
        // The ring reads errno after a failed wait; keep it whatever the logger does.
        const int err = errno;
        if (milliseconds > 0 && err == EAGAIN) return IPC_ERR_TIMEOUT;
        if (err != EINTR || logInterrupt) {
            KEL_IPC_LOG(kSource, "Acquire",
                        milliseconds > 0 ? "semtimedop fail, rc=%d, errno=%d" : "semop fail, rc=%d, errno=%d",
                        rc, err);
        }
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
