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
    // Rings the descriptor of this ring's reader end (reader true) or writer end, whose polls word this
    // end has just swapped to 0; null where nobody can be rung (a ring attached outside a socket).
    void (*ring)(void* context, bool reader) = nullptr;
    void* ringContext = nullptr;
};

void KelCycleBufferWatch(KelCycleBuffer& ring, const KelRingWatch& watch);
// A closing channel's ring: every call of this object leaves at its next test, whatever the run flag says,
// and calls asleep in it are woken. Until the next attach.
void KelCycleBufferDetach(KelCycleBuffer& ring);
// Writer side: marks the end of this end's stream after every byte it has published, and wakes the reader;
// shut false withdraws the mark (a stream that lost bytes did not end cleanly).
int KelCycleBufferShutdown(KelCycleBuffer& ring, bool shut = true);
// Reader side: 1 to count bytes as soon as any are there, waiting or not by the attach mode (bounded by the
// watch's read timeout); a writer that is gone ends it with the code once nothing is left.
int KelCycleBufferReadSome(KelCycleBuffer& ring, char* buffer, int count);
// Writer side: waits up to timeoutMs (above 0) until the reader has taken every byte. IPC_OK, or
// IPC_ERR_TIMEOUT, IPC_ERR_PEER_GONE, IPC_ERR_NOT_OPENED (stopped: what was left is gone).
int KelCycleBufferDrain(KelCycleBuffer& ring, int timeoutMs);

// An end about to wait on its descriptor for this ring: announces need bytes (stored when reading, free
// when writing), fences and tests again. True, with the word withdrawn, when the call may proceed after
// all: enough bytes or room, the stream's end, a stopped ring, or a peer gone (looked at afresh when
// fresh is set).
bool KelCycleBufferArm(KelCycleBuffer& ring, bool reading, int need, bool fresh);
// Before that: re-tests for a few microseconds while the peer moves on another CPU. True when the bytes
// or room came meanwhile (or the ring stopped).
bool KelCycleBufferSoon(KelCycleBuffer& ring, bool reading, int need);
// Whether this end's polls word for the direction is still up: nobody has claimed its wake-up yet.
bool KelCycleBufferArmed(KelCycleBuffer& ring, bool reading);
// Whether Read and Write of this ring return at once (non-blocking mode).
bool KelCycleBufferNonBlocking(KelCycleBuffer& ring);

// The cross-process channel's attach. A server's block is a segment just created, zero already:
// clearing it again would erase a client that mapped it meanwhile. A client refuses (IPC_ERR_FAILED,
// as when no server is there) a block that no server has initialised yet, so that it never takes part in
// a ring still being set up. Otherwise as AttachIpc.
int KelCycleBufferAttachFresh(KelCycleBuffer& ring, char* block, int length, KelSide side, KelMode mode,
                              KelSystemSemaphore* sem);

#endif  // KEL_RING_WATCH_H
