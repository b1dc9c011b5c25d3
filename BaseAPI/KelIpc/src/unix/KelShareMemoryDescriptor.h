#ifndef KEL_SHARE_MEMORY_DESCRIPTOR_H
#define KEL_SHARE_MEMORY_DESCRIPTOR_H

#include "KelShareMemory.h"

// The library's own access to a segment, beyond the published operations.

// The open segment's descriptor, -1 when not open; it stays the segment's, so callers never close it.
int KelShareMemoryDescriptor(KelShareMemory& memory);
// A channel's client open: shmLength 0 takes the segment's size, whatever the server chose, and tells it
// on success. IPC_ERR_ACCESS when what is under the name is not a regular segment or its owner is
// neither this process's effective user, root nor trustedUid (-1: nobody more).
int KelShareMemoryAdopt(KelShareMemory& memory, const char* name, int& shmLength, int trustedUid);
// A server open with reset that first claims the name for this end alone (see ShmClaimOpen): on success
// the server byte of the new segment is locked through the segment's descriptor. IPC_ERR_OPENED, holding
// nothing and having removed nothing, when another server holds the name or claims it at the same time;
// IPC_ERR_ACCESS when an object under the name is not a trusted owner's regular segment (as for Adopt),
// or cannot be removed by this end.
int KelShareMemoryClaim(KelShareMemory& memory, const char* name, int shmLength, const KelSecurity* security,
                        int trustedUid);
// Unmaps and closes. A server's name is removed only when remove is set and the name still refers to
// this segment: one that follows only the published protocol may have replaced it meanwhile. True when
// the name was removed.
bool KelShareMemoryRelease(KelShareMemory& memory, bool remove);

#endif  // KEL_SHARE_MEMORY_DESCRIPTOR_H
