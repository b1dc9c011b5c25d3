#ifndef KEL_SYSTEM_SEMAPHORE_H
#define KEL_SYSTEM_SEMAPHORE_H

#include "KelIpcDefine.h"

class KelSystemSemaphorePrivate;

// A named System V semaphore set, used across processes as a two-state wake-up signal (semaphore 0).
// The key is the djb2 hash of the name. The server creates (or reuses) the set and clears it; the client
// attaches to it. Only a server removes the set, on Close or destruction. A server's set has two more
// semaphores, so that a set outliving its server can be told apart from one in use: a marker and a count
// of live servers that the kernel lowers when a server dies. A smaller set found under the key (made by
// an older or foreign server) is used as it is.
class KELIPC_API KelSystemSemaphore {
public:
    static constexpr int kServerSetSize = 3;
    static constexpr int kMarker = 1;  // semaphore index holding kMarkerValue
    static constexpr int kMarkerValue = 0x4B49;
    static constexpr int kServerCount = 2;  // semaphore index counting live servers

    KelSystemSemaphore();
    ~KelSystemSemaphore();
    KelSystemSemaphore(const KelSystemSemaphore&) = delete;
    KelSystemSemaphore& operator=(const KelSystemSemaphore&) = delete;

    // IPC_OK, IPC_ERR_NULL, IPC_ERR_OPENED, IPC_ERR_PARAM or IPC_ERR_FAILED (logged).
    int Open(const char* name, KelSide side, const KelSecurity* security);
    // Server: removes the set. Client: IPC_OK, and the object stays open.
    int Close();
    bool Opened();
    // Waits without time limit for the signal and consumes it. IPC_ERR_FAILED when interrupted by a
    // signal or when the set is removed; errno then tells which.
    int Acquire();
    int Acquire(int ignored);  // the same as Acquire()
    // As Acquire, for at most the given time: IPC_ERR_TIMEOUT, not logged, when it runs out.
    int AcquireFor(int milliseconds);
    // Sets the signal; several releases before one Acquire amount to one wake-up.
    int Release();
    // Drops a pending signal.
    int Reset();

private:
    KelSystemSemaphorePrivate* m_private;
};

#endif  // KEL_SYSTEM_SEMAPHORE_H
