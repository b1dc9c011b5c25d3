#ifndef KEL_LOCAL_SOCK_IMPL_H
#define KEL_LOCAL_SOCK_IMPL_H

#include "KelChannelRing.h"
#include "KelCycleBuffer/KelRingWatch.h"
#include "KelLocalMemory.h"
#include "KelLocalSemaphore.h"

// One end of one direction between threads of this process: the pool <name>_lcm holding the ring, and
// the local semaphore <name>_lsc (or the caller's) that wakes the reading end. Whichever end closes last
// frees both.
class KelLocalSockImpl {
public:
    KelLocalSockImpl() = default;
    ~KelLocalSockImpl() { CleanResource(); }
    KelLocalSockImpl(const KelLocalSockImpl&) = delete;
    KelLocalSockImpl& operator=(const KelLocalSockImpl&) = delete;

    // IPC_OK, or the failing step's code with every registration made so far released again.
    // IPC_ERR_OPENED, changing nothing, on an open channel. watch carries the timeouts.
    int Open(KelSide side, const char* name, int size, KelSemaphore* semaphore, KelMode mode,
             const KelRingWatch& watch = KelRingWatch());
    // Stops the ring if it runs (unless stop is false), then releases pool and semaphore.
    // IPC_ERR_NOT_OPENED when closed.
    int Close(bool stop = true);
    KelChannelRing& Ring() { return m_ring; }

private:
    void CleanResource();

    KelChannelRing m_ring;
    KelLocalSemaphore m_semaphore;
    KelLocalMemory m_memory;
};

#endif  // KEL_LOCAL_SOCK_IMPL_H
