#ifndef KEL_CYCLE_BUFFER_H
#define KEL_CYCLE_BUFFER_H

#include <cstddef>
#include <cstdint>

#include "KelIpcDefine.h"

// Channel status record kept in the ring header. The library copies it byte for byte and never
// interprets it; programs that fill it define its contents.
struct KelIpcStatus {
    unsigned char bytes[288];
};

// Ring header at the start of every ring block. Every process that maps the block reads and writes it in
// place, so its layout is fixed: host byte order, naturally aligned, no gaps.
struct KelCBHead {
    int32_t writePos;  // next byte to write; stored only by the writing side (and by Reset)
    int32_t readPos;   // next byte to read; stored only by the reading side (and by Reset)
    int32_t dataLen;   // data area length; written once by the server's attach; below 1: uninitialised
    int32_t running;   // 1 while the ring carries data
    char gcmData[512];
    uint64_t transTotal;
    uint64_t transLast;
    KelIpcStatus ipcStatus;
    char reserved[8192];
};

static_assert(sizeof(KelIpcStatus) == 288, "KelIpcStatus is 288 bytes");
static_assert(sizeof(KelCBHead) == 9024, "KelCBHead is 9024 bytes");
static_assert(offsetof(KelCBHead, writePos) == 0, "writePos offset");
static_assert(offsetof(KelCBHead, readPos) == 4, "readPos offset");
static_assert(offsetof(KelCBHead, dataLen) == 8, "dataLen offset");
static_assert(offsetof(KelCBHead, running) == 12, "running offset");
static_assert(offsetof(KelCBHead, gcmData) == 16, "gcmData offset");
static_assert(offsetof(KelCBHead, transTotal) == 528, "transTotal offset");
static_assert(offsetof(KelCBHead, transLast) == 536, "transLast offset");
static_assert(offsetof(KelCBHead, ipcStatus) == 544, "ipcStatus offset");
static_assert(offsetof(KelCBHead, reserved) == 832, "reserved offset");

class KelSemaphore;
class KelSystemSemaphore;
class KelCycleBufferPrivate;
struct KelRingWatch;

// A single-producer, single-consumer byte ring living entirely in a caller-supplied block: a KelCBHead
// followed by the data area. Two objects (in one process or two) attached to the same block see the same
// ring; one side writes, the other reads. The ring owns neither the block nor the semaphore.
class KELIPC_API KelCycleBuffer {
public:
    KelCycleBuffer();
    // Does not stop the ring, signal anyone or touch the block.
    ~KelCycleBuffer();
    KelCycleBuffer(const KelCycleBuffer&) = delete;
    KelCycleBuffer& operator=(const KelCycleBuffer&) = delete;

    // Server zeroes the block, initialises the header and starts the ring; Client takes the header over.
    // IPC_ERR_PARAM for a null block, a length below 32768 or an unknown side; IPC_ERR_FAILED when
    // the block cannot be cleared.
    int Attach(char* block, int length, KelSide side, KelMode mode);
    // As Attach, recording the wake-up semaphore first (kept even when Attach refuses).
    int AttachIpc(char* block, int length, KelSide side, KelMode mode, KelSystemSemaphore* sem);
    int AttachLocal(char* block, int length, KelSide side, KelMode mode, KelSemaphore* sem);

    // Every transfer form of one direction takes that direction's turn on this object: a blocking form
    // waits for it, a non-blocking one returns 0 at once while another call has it. Stop waits for the
    // calls of every form to leave.

    // Writer side. All or nothing: count, or 0 when the ring lacks room; IPC_ERR_NOT_OPENED when not
    // attached or stopped; IPC_ERR_FAILED for a null pointer, a count below 1 or a corrupt header;
    // IPC_ERR_PARAM for more than the ring can ever hold; IPC_ERR_PEER_GONE once its reader is known dead.
    int NonblockWrite(const char* data, int count);
    // Reader side. All or nothing: count, or 0 when fewer bytes are stored, except that a dead writer's
    // last bytes come as a short count, then IPC_ERR_PEER_GONE; other codes as NonblockWrite.
    int NonblockRead(char* buffer, int count);
    // Writer side. Waits for room until all count bytes are in the ring, signalling the reader after
    // every piece; IPC_ERR_NOT_OPENED when the ring is or becomes stopped, or has no semaphore (then
    // before moving a byte).
    int BlockWrite(const char* data, int count);
    // Reader side. Waits on the semaphore until all count bytes have been read; IPC_ERR_NOT_OPENED, before
    // moving a byte, without a semaphore.
    int BlockRead(char* buffer, int count);
    // Blocking or not by the attach mode. IPC_ERR_NULL for a null pointer or a count below 1.
    int Write(const char* data, int count);
    int Read(char* buffer, int count);

    int DataSize();             // bytes stored; 0 when not running
    int SpaceSize();            // bytes that fit now; 0 when not running
    bool Running();             // attached, initialised and running
    KelCBHead* KelCBHeadPtr();  // null before the first attach

    // Reader side: waits for a writer's signal, or returns at once when bytes came since this object's
    // last read or DataSize (a writer of ours may have skipped the signal for a reader it saw awake).
    int SemAcquire();
    int SemRelease();
    // Reset, Start and Stop end with IPC_ERR_NOT_OPENED every transfer of the library's ends (on either
    // side) that began before them, also one that could not run meanwhile, and wake those asleep.
    // Empties the ring without touching the run flag.
    int Reset();
    // Empties the ring and sets it running, for both sides.
    int Start();
    // Clears the run flag for both sides, wakes a sleeping reader, empties the ring, then waits up to
    // about 100 ms for this object's calls to leave (IPC_ERR_FAILED if they do not).
    int Stop();

    // Side data in the header; see the contract of each. None of these takes a lock.
    int EraseGcmData();
    int SetGcmData(const char* data, int length);  // length must be 512
    int GetGcmData(char* buffer, int length);      // length must be 512
    int ResetWyTransCounter();
    int SetWyTransCounter(uint64_t added, uint64_t latest);  // total += added; last = latest
    int GetWyTransCounter(uint64_t& total, uint64_t& latest);
    int GetIpcStatus(KelIpcStatus& status);

private:
    // The library's channels.
    friend void KelCycleBufferWatch(KelCycleBuffer& ring, const KelRingWatch& watch);
    friend void KelCycleBufferDetach(KelCycleBuffer& ring);
    friend int KelCycleBufferShutdown(KelCycleBuffer& ring, bool shut);
    friend int KelCycleBufferReadSome(KelCycleBuffer& ring, char* buffer, int count);
    friend int KelCycleBufferDrain(KelCycleBuffer& ring, int timeoutMs);
    friend bool KelCycleBufferArm(KelCycleBuffer& ring, bool reading, int need, bool fresh);
    friend bool KelCycleBufferSoon(KelCycleBuffer& ring, bool reading, int need);
    friend bool KelCycleBufferArmed(KelCycleBuffer& ring, bool reading);
    friend bool KelCycleBufferNonBlocking(KelCycleBuffer& ring);
    friend int KelCycleBufferAttachFresh(KelCycleBuffer& ring, char* block, int length, KelSide side,
                                         KelMode mode, KelSystemSemaphore* sem);
    KelCycleBufferPrivate* m_private;
};

#endif  // KEL_CYCLE_BUFFER_H
