#ifndef KEL_IPC_SOCK_IMPL_H
#define KEL_IPC_SOCK_IMPL_H

#include "KelChannelRing.h"
#include "KelShareMemory.h"
#include "KelSystemSemaphore.h"

// One end of one direction across processes: the segment <name>_shm holding the ring, and the System V
// semaphore keyed from <name>_ssm (or the caller's) that wakes the reading end.
class KelIpcSockImpl {
public:
    KelIpcSockImpl() = default;
    ~KelIpcSockImpl() { CleanResource(); }
    KelIpcSockImpl(const KelIpcSockImpl&) = delete;
    KelIpcSockImpl& operator=(const KelIpcSockImpl&) = delete;

    // IPC_OK, or the failing step's code with everything acquired so far released again (a server's
    // segment and semaphore set removed). IPC_ERR_OPENED, changing nothing, on an open channel.
    int Open(KelSide side, const char* name, int size, KelSystemSemaphore* semaphore,
             const KelSecurity* security, KelMode mode);
    // Stops the ring if it runs, then releases segment and semaphore. IPC_ERR_NOT_OPENED when closed.
    int Close();
    KelChannelRing& Ring() { return m_ring; }

private:
    void CleanResource();

    KelChannelRing m_ring;
    KelSystemSemaphore m_semaphore;
    KelShareMemory m_memory;
};

#endif  // KEL_IPC_SOCK_IMPL_H
