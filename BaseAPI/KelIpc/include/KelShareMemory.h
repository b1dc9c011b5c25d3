#ifndef KEL_SHARE_MEMORY_H
#define KEL_SHARE_MEMORY_H

#include "KelIpcDefine.h"

// Arguments of CreateSecurityDescriptor; the library gives them no meaning.
enum PermissionFlags : int32_t {
    PermissionDefault = 0,
    PermissionOwner = 1,
    PermissionGroup = 2,
    PermissionAll = 3
};
enum SecurityFdType : int32_t { SecurityFdShareMemory = 0, SecurityFdSemaphore = 1 };

// Returns null for every argument pair, so an Open given its result uses the default mode 0660.
KELIPC_API KelSecurity* CreateSecurityDescriptor(PermissionFlags permissions, SecurityFdType type);
// Does nothing; null is accepted.
KELIPC_API void DestroySecurityDescriptor(KelSecurity* security);

class KelShareMemoryPrivate;

// A named POSIX shared-memory segment mapped read-write. A server creates it (by default removing any
// segment of that name first, and removing it again on Close); a client maps an existing segment whose
// size must equal the length it asks for. Not for concurrent use by several threads.
class KELIPC_API KelShareMemory {
public:
    KelShareMemory();
    ~KelShareMemory();  // releases as Close does
    KelShareMemory(const KelShareMemory&) = delete;
    KelShareMemory& operator=(const KelShareMemory&) = delete;

    // IPC_OK, IPC_ERR_NULL, IPC_ERR_OPENED, IPC_ERR_PARAM, or IPC_ERR_FAILED after logging; a failed
    // open holds nothing. A server open with reset gives the segment exactly the mode asked for.
    int Open(const char* name, int shmLength, KelSide side, const KelSecurity* security);
    // As above, recording first whether a server open removes and recreates the segment (reset true) or
    // takes an existing one with its bytes (reset false, and the segment is then left in place on Close).
    int Open(const char* name, int shmLength, KelSide side, const KelSecurity* security, bool reset);
    // IPC_OK, or IPC_ERR_NOT_OPENED when nothing is held.
    int Close();
    char* Data();  // the mapping, null when not open
    void Reset();  // zeroes the whole mapping when open
private:
    // The library's channels: liveness tokens, claiming a name, releasing only what is still theirs.
    friend int KelShareMemoryDescriptor(KelShareMemory& memory);
    friend int KelShareMemoryAdopt(KelShareMemory& memory, const char* name, int& shmLength, int trustedUid);
    friend int KelShareMemoryClaim(KelShareMemory& memory, const char* name, int shmLength,
                                   const KelSecurity* security, int trustedUid);
    friend bool KelShareMemoryRelease(KelShareMemory& memory, bool remove);
    KelShareMemoryPrivate* m_private;
};

#endif  // KEL_SHARE_MEMORY_H
