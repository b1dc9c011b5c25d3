#ifndef KEL_IPC_SOCK_IMPL_H
#define KEL_IPC_SOCK_IMPL_H

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
    // segment and semaphore set removed). IPC_ERR_OPENED, changing nothing, on an open channel. A client
    // gets IPC_ERR_PEER_GONE when the server died, and IPC_ERR_NOT_OPENED while a dead client's place has
    // not been given up by the server's Start. watch carries the timeouts.
    int Open(KelSide side, const char* name, int size, KelSystemSemaphore* semaphore,
             const KelSecurity* security, KelMode mode, KelRingWatch watch = KelRingWatch());
    // Stops the ring if it runs (unless stop is false), then releases token, segment and semaphore.
    // IPC_ERR_NOT_OPENED when closed.
    int Close(bool stop = true);
    KelChannelRing& Ring() { return m_ring; }

private:
    void CleanResource();

    KelChannelRing m_ring;
    KelSystemSemaphore m_semaphore;
    KelShareMemory m_memory;
    KelPeerToken m_token;
};

#endif  // KEL_IPC_SOCK_IMPL_H
