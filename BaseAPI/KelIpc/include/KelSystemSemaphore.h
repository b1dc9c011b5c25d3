#ifndef KEL_SYSTEM_SEMAPHORE_H
#define KEL_SYSTEM_SEMAPHORE_H

#include "KelIpcDefine.h"

class KelSystemSemaphorePrivate;

// A named System V semaphore set, used across processes as a two-state wake-up signal (semaphore 0).
// The key is the djb2 hash of the name. The server creates (or reuses) the set and clears it; the client
// attaches to it. Only a server removes the set, on Close or destruction. A server's set has more
// semaphores, so that a set outliving its server can be told apart from one in use, and a set made for
// another name with the same key from one made for this name: a marker, a count of live servers that the
// kernel lowers when a server dies, and a check of the full name in 15-bit pieces, written before the
// marker. A server removes a marked set that no live server counts itself in and makes its own. A
// smaller set found under the key (made by an older or foreign server) is used as it is.
class KELIPC_API KelSystemSemaphore {
public:
    static constexpr int kServerSetSize = 7;
    static constexpr int kMarker = 1;  // semaphore index holding kMarkerValue
    static constexpr int kMarkerValue = 0x4B49;
    static constexpr int kServerCount = 2;  // semaphore index counting live servers
    static constexpr int kNameCheck = 3;    // first of kNameCheckCount semaphores checking the name
    static constexpr int kNameCheckCount = 4;

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
    // As Acquire, for at most the given time (0: without limit): IPC_ERR_TIMEOUT when it runs out. Neither
    // that nor an interruption (IPC_ERR_FAILED, errno EINTR) is logged: the caller's loop goes on.
    int AcquireFor(int milliseconds);
    // Sets the signal; several releases before one Acquire amount to one wake-up.
    int Release();
    // Drops a pending signal.
    int Reset();

private:
    // The library's channels: a verified open, and letting go of a set without removing it.
    friend int KelSystemSemaphoreOpenChannel(KelSystemSemaphore& semaphore, const char* name, KelSide side,
                                             const KelSecurity* security, int trustedUid);
    friend void KelSystemSemaphoreAbandon(KelSystemSemaphore& semaphore);
    KelSystemSemaphorePrivate* m_private;
};

#endif  // KEL_SYSTEM_SEMAPHORE_H
