#ifndef KELIPC_TOOL_STREAM_MARKS_H
#define KELIPC_TOOL_STREAM_MARKS_H

#include <KelCycleBuffer.h>
#include <KelShareMemory.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

// The end-of-stream handshake of `serve` and `connect`. The byte stream carries only the user's bytes;
// each end keeps its marks in the side data of the ring header it writes (a second, client-side mapping
// of the socket's segments, so nothing here creates or removes an object):
//   transTotal  bytes this end has written so far, raised after every write;
//   transLast   a set of Flag bits;
//   ipcStatus   bytes 8-15: the XXH3 of every byte this end wrote, set before Ended.
// A dead peer is learnt from the socket itself (IPC_ERR_PEER_GONE), not from these marks.
// A reader has the whole stream once its peer is Ended and it has read transTotal bytes. Stop and Close
// empty both directions, so no end closes its socket before both ends are Drained; then the client
// closes first and marks Closed, and only then does the server remove the segments and semaphore sets.
class StreamMarks {
public:
    enum Flag : uint64_t {
        kPresent = 1,  // the end has opened its socket
        kEnded = 2,    // no more bytes follow; transTotal is final
        kDrained = 4,  // the end has read every byte its peer wrote
        kClosed = 8,   // the client has closed its socket
    };

    StreamMarks() = default;
    StreamMarks(const StreamMarks&) = delete;
    StreamMarks& operator=(const StreamMarks&) = delete;

    // Maps both segments of socket `name` with the socket's block size; side is this end's. IPC_OK, or
    // the code of the segment open or ring attach that failed, with nothing held then.
    int Open(const std::string& name, KelSide side, int block);
    void Close();

    // This end; Publish and AddSent may be called from several threads.
    bool Claimed();   // another end already writes into the ring this end would write
    void Announce();  // kPresent
    void Publish(Flag flag);
    void AddSent(uint64_t bytes);
    void SetStreamHash(uint64_t hash);  // before Publish(kEnded)

    // The peer.
    uint64_t PeerFlags();
    bool PeerEnded(uint64_t& total);  // true once kEnded is set; total is then the peer's final count
    uint64_t PeerStreamHash();        // valid once PeerEnded

private:
    static constexpr size_t kHashOffset = 8;

    KelShareMemory m_outMemory;
    KelShareMemory m_inMemory;
    KelCycleBuffer m_out;
    KelCycleBuffer m_in;
    // SetWyTransCounter is a read-modify-write of the header, and both transfer threads publish.
    std::mutex m_mutex;
    uint64_t m_flags = 0;
    std::atomic<bool> m_open{false};
};

#endif  // KELIPC_TOOL_STREAM_MARKS_H
