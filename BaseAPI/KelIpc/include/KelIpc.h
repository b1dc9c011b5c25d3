#ifndef KEL_IPC_H
#define KEL_IPC_H

#include "KelIpcDefine.h"

enum KelIpcType : int32_t { Process = 0, Local = 1 };

// Options set before Open. Sizes point to an int (the whole block, ring header included); a semaphore
// option is the caller's KelSystemSemaphore (Process) or KelSemaphore (Local), or null for the channel's
// own; the NonBlock options make that direction's Read and Write of this end non-blocking. The timeouts
// point to an int of milliseconds that a blocking Read or Write of this end may wait in all (0, the
// default: no limit); see Read below for what a call that runs out returns. A server that sets no size
// makes blocks of 262144 bytes; a client that sets none takes the server's. CloseLinger points to an int
// of milliseconds that Close spends shutting this end's writing down and waiting for the peer to read
// what is left (0, the default: Close stops the rings at once). TrustedUid points to an int user id
// whose objects this end accepts besides its own user's and root's (-1, the default: none).
enum KelIpcOptionName : int32_t {
    LBufferSize = 0,
    RBufferSize,
    LSemaphore,
    RSemaphore,
    LNonBlock,
    RNonBlock,
    ReadTimeout,
    WriteTimeout,
    CloseLinger,
    TrustedUid
};

class KelIpcSocketPrivate;

// One end of a duplex byte stream. Two sockets opened with the same name and opposite sides form a
// connection: across processes (Process) or between threads of one process (Local). The server opens
// first. The L direction carries what the client writes, the R direction what the server writes.
class KELIPC_API KelIpcSocket {
public:
    KelIpcSocket();
    ~KelIpcSocket();  // closes as Close does (lingering too), ending and waiting for calls of other threads
    KelIpcSocket(const KelIpcSocket&) = delete;
    KelIpcSocket& operator=(const KelIpcSocket&) = delete;

    bool Opened();
    // Before Open only: IPC_ERR_OPENED, IPC_ERR_PARAM or IPC_ERR_NULL otherwise.
    int SetOption(KelIpcOptionName name, void* value);
    // IPC_OK, or the code of the step that failed; a failed open leaves nothing behind.
    int Open(KelIpcType type, KelSide side, const char* name, const KelSecurity* security);

    // Write follows the direction's mode; BlockWrite always waits until all bytes have passed;
    // NonBlockWrite passes all or nothing at once. Results: the byte count, 0 (nothing passed), or a code.
    // A blocking call that ends early because its timeout ran out or the other end's process died returns
    // the bytes it had moved, a short count, when there are any (the caller resumes after them; nothing is
    // lost or repeated), otherwise IPC_ERR_TIMEOUT or IPC_ERR_PEER_GONE. A reader gets every byte the dead
    // end had written before the code; DataSize, SpaceSize and the NonBlock calls report the code once the
    // ring has nothing left to give: a non-blocking read gets the dead writer's last bytes as a short
    // count, then the code; a non-blocking write of more than the ring can ever hold gets IPC_ERR_PARAM.
    // An end whose peer takes no part in liveness is never told it is gone.
    // Threads may mix the forms on one direction: each call moves its bytes whole and in turn; a
    // NonBlock call never waits behind a parked call, it returns 0 at once.
    int Write(const char* data, int length);
    int BlockWrite(const char* data, int length);
    int NonBlockWrite(const char* data, int length);
    int Read(char* buffer, int length);
    int BlockRead(char* buffer, int length);
    int NonBlockRead(char* buffer, int length);
    // 1 to length bytes as soon as any are there, waiting as Read does in this end's mode (bounded by
    // ReadTimeout); 0 in non-blocking mode when nothing is there. Ends of stream as Read.
    int ReadSome(char* buffer, int length);
    // This end writes no more (its writes return IPC_ERR_NOT_OPENED) and may still read; the peer reads
    // every byte written before, then IPC_ERR_PEER_CLOSED. Start gives the stream a new beginning.
    int Shutdown();

    // For event loops (epoll, poll, select, or a library built on them): a descriptor that the socket owns
    // (poll it, never read, write or close it; it stays valid until Close) and that polls readable when
    // this end may be able to proceed. After NonBlockRead, or Read or ReadSome in non-blocking mode, got
    // less than it asked for, it becomes readable once more bytes have arrived, the peer has died, shut
    // down or closed, or the channel has stopped; after NonBlockWrite, or Write in non-blocking mode,
    // passed nothing, once that many bytes fit, the peer has died or the channel has stopped. Level- and
    // edge-triggered waits both work; a readable descriptor with nothing to do is rare, and the caller
    // simply calls again. Made on the first call, close-on-exec. IPC_ERR_NOT_OPENED when closed,
    // IPC_ERR_ACCESS when another user's object holds its name, IPC_ERR_FAILED (logged).
    int PollFd();

    int DataSize();   // bytes waiting in the direction this end reads
    int SpaceSize();  // bytes that fit now into the direction this end writes
    bool Running();   // both directions running
    // Start and Reset empty both directions; Stop ends every transfer of both ends with
    // IPC_ERR_NOT_OPENED until either end calls Start. Channel failures are logged, not returned.
    int Start();
    int Stop();
    int Reset();
    // With a CloseLinger, first shuts this end's writing down and waits up to that long for the peer to
    // read what is left. Then ends the calls of other threads still inside this end and waits for them to
    // leave, stops the rings still running and releases this end's objects. IPC_ERR_NOT_OPENED when
    // closed; IPC_ERR_TIMEOUT when the linger ran out with bytes unread (closed all the same).
    int Close();

private:
    KelIpcSocketPrivate* m_private;
};

#endif  // KEL_IPC_H
