#ifndef KEL_RING_WATCH_H
#define KEL_RING_WATCH_H

#include "KelCycleBuffer.h"

// What a channel tells its ring beyond the published attach: how long a blocking transfer may wait, and
// how to learn whether the other end's process has died. Set after the attach, before any transfer.
struct KelRingWatch {
    int readTimeoutMs = 0;   // 0: no limit
    int writeTimeoutMs = 0;  // 0: no limit
    // True when the other end's process is known to have died; null, or false, while that is unknown.
    bool (*peerGone)(void* context) = nullptr;
    // Called by Start: a server forgets a dead client so that the next one may attach.
    void (*restarted)(void* context) = nullptr;
    void* context = nullptr;
};

void KelCycleBufferWatch(KelCycleBuffer& ring, const KelRingWatch& watch);
// A closing channel's ring: every call of this object leaves at its next test, whatever the run flag says,
// and calls asleep in it are woken. Until the next attach.
void KelCycleBufferDetach(KelCycleBuffer& ring);
// Whether a transfer of this object is inside the ring.
bool KelCycleBufferBusy(KelCycleBuffer& ring);

#endif  // KEL_RING_WATCH_H
