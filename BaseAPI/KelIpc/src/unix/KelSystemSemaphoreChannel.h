#ifndef KEL_SYSTEM_SEMAPHORE_CHANNEL_H
#define KEL_SYSTEM_SEMAPHORE_CHANNEL_H

#include "KelSystemSemaphore.h"

// The library's own access to a semaphore set, beyond the published operations.

// As Open, for a channel: IPC_ERR_PARAM for a name whose key is 0 (IPC_PRIVATE, where the ends never
// meet); IPC_ERR_ACCESS, holding nothing, when the set under the key was made for another name (for a
// server: and a live server counts itself in it), or when its owner or its creator is neither this
// process's effective user, root nor trustedUid (-1: nobody more).
int KelSystemSemaphoreOpenChannel(KelSystemSemaphore& semaphore, const char* name, KelSide side,
                                  const KelSecurity* security, int trustedUid);
// Lets go of the set without removing it: it is someone else's by now, or the opener's (closed in a
// forked child).
void KelSystemSemaphoreAbandon(KelSystemSemaphore& semaphore);

#endif  // KEL_SYSTEM_SEMAPHORE_CHANNEL_H
