#ifndef KEL_IPC_SOCK_IMPL_H
#define KEL_IPC_SOCK_IMPL_H

#include <sys/types.h>
#include <unistd.h>

#include "KelChannelRing.h"
#include "KelCycleBuffer/KelRingWatch.h"
#include "KelShareMemory.h"
#include "KelSystemSemaphore.h"
#include "unix/KelPeerToken.h"

// One end of one direction across processes: the segment <name>_shm holding the ring, and the System V
// semaphore keyed from <name>_ssm (or the caller's) that wakes the reading end, and this end's liveness
// token on the segment, through which the ring learns of the other end's death.
class KelIpcSockImpl {
public:
    KelIpcSockImpl() = default;
    ~KelIpcSockImpl() { CleanResource(); }
    KelIpcSockImpl(const KelIpcSockImpl&) = delete;
    KelIpcSockImpl& operator=(const KelIpcSockImpl&) = delete;

    // IPC_OK, or the failing step's code with everything acquired so far released again (a server's
    // segment and semaphore set removed). IPC_ERR_OPENED, changing nothing, on an open channel, and when
    // a live end of this side holds the channel or (a server) claims its name at the same time.
    // IPC_ERR_ACCESS when the semaphore set under the key was made for another name, or when an object
    // under the name is not a regular segment or belongs to (or, a set, was made by) a user other than
    // this process's effective user, root and trustedUid (-1: nobody more); IPC_ERR_PARAM for a name
    // whose key is 0. A client gets IPC_ERR_PEER_GONE when the server died, IPC_ERR_NOT_OPENED
    // while a dead client's place has not been given up by the server's Start, and IPC_ERR_FAILED while
    // the server has not initialised the ring yet. watch carries the timeouts.
    int Open(KelSide side, const char* name, int size, KelSystemSemaphore* semaphore,
             const KelSecurity* security, KelMode mode, KelRingWatch watch = KelRingWatch(),
             int trustedUid = -1);
    // Stops the ring if it runs (unless stop is false), then releases token, segment and semaphore.
    // In a process other than the opener's (a child forked without exec) only that process's mapping and
    // descriptor go: the opener's ring, token and names are left alone. IPC_ERR_NOT_OPENED when closed.
    int Close(bool stop = true);
    KelChannelRing& Ring() { return m_ring; }
    // This end's token, through which it learns whether the peer's process lives.
    const KelPeerToken& Token() const { return m_token; }

private:
    void CleanResource();
    // Whether this process opened the channel.
    bool Opener() const { return getpid() == m_opener; }

    KelChannelRing m_ring;
    KelSystemSemaphore m_semaphore;
    KelShareMemory m_memory;
    KelPeerToken m_token;
    pid_t m_opener = -1;
};

#endif  // KEL_IPC_SOCK_IMPL_H
