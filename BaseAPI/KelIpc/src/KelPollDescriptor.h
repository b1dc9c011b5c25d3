#ifndef KEL_POLL_DESCRIPTOR_H
#define KEL_POLL_DESCRIPTOR_H

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "KelIpc.h"
#include "KelLocalPollRegistry.h"
#include "unix/KelPollFifo.h"

class KelCycleBuffer;
class KelPeerToken;
struct KelCBHead;
struct KelRingWatch;

// The descriptor of KelIpcSocket::PollFd, and this end's part in ringing the peer's. Process: an epoll set
// of this end's FIFO (/dev/shm/<name>_XS_poll for a server, _XC_poll for a client), a pidfd of the peer's
// process while the peer announces a liveness token, and a timer that ticks every kLookMs while the rings
// run and the peer announces none. Local: an eventfd, which the peer finds in this process's registry.
// The socket's calls use it only once Fd has made it, so an end that never asks pays nothing.
class KelPollDescriptor {
public:
    enum Direction { kRead = 0, kWrite = 1 };
    // How often an end looks at a ring whose peer announces no token: it may follow only the published
    // protocol, which rings nothing.
    static constexpr int kLookMs = 10;

    KelPollDescriptor() = default;
    ~KelPollDescriptor() { Close(); }
    KelPollDescriptor(const KelPollDescriptor&) = delete;
    KelPollDescriptor& operator=(const KelPollDescriptor&) = delete;

    // Before the channels open: the transport, this end's side, the channel's name, the FIFO's mode and
    // whose FIFOs this end accepts.
    void Bind(KelIpcType type, KelSide side, const std::string& name, mode_t mode, const KelTrust& trust);
    // Sets in watch the hook through which the ring of direction rings either end's descriptor.
    void Hook(KelRingWatch& watch, Direction direction);
    // Once the channels are open: the rings this end reads and writes and, across processes, the token
    // and header through which it follows the peer's process.
    void Attach(KelCycleBuffer& readRing, KelCycleBuffer& writeRing, const KelPeerToken* token,
                const KelCBHead* head);
    // Before the channels close: their header goes with them.
    void Detach();
    // The descriptor, made on the first call (and rung once, so a first wait returns at once);
    // IPC_ERR_NOT_OPENED before Attach, IPC_ERR_ACCESS or IPC_ERR_FAILED when it cannot be made.
    int Fd();
    bool Active() const { return m_active.load(std::memory_order_acquire); }
    // A call of direction begins: the caller's wait for it on the descriptor is over.
    void Begin(Direction direction) {
        if (m_waiting[direction].load(std::memory_order_relaxed))
            m_waiting[direction].store(false, std::memory_order_relaxed);
    }
    // A call of direction that returns at once could not move need bytes: empties the descriptor, then
    // announces the need. True when the call may proceed after all.
    bool Wait(Direction direction, int need);
    void RingOwn();
    // Closes what Fd made and removes the FIFO; the socket's calls have left.
    void Close();

private:
    struct Link {
        KelPollDescriptor* owner;
        Direction direction;
    };
    enum Member : uint32_t { kWake, kPeerProcess, kLook };

    static void RingHook(void* context, bool reader);
    void RingPeer();
    int CreateProcess();
    int CreateLocal();
    void Release();
    bool Settle(Direction direction);
    bool Members();
    bool FollowPeer();
    bool Follow();
    uint64_t PeerKey() const;
    int32_t PeerWord(size_t serverOffset, size_t clientOffset) const;
    void DropPeerProcess();
    void Look(bool on);
    bool Add(int fd, Member member);
    std::string FifoPath(KelSide side) const;

    static constexpr uint64_t kUnfollowed = ~0ULL;

    KelIpcType m_type = Process;
    KelSide m_side = Server;
    std::string m_name;
    mode_t m_mode = 0660;
    KelTrust m_trust;
    Link m_links[2] = {{this, kRead}, {this, kWrite}};
    KelCycleBuffer* m_rings[2] = {nullptr, nullptr};
    const KelPeerToken* m_token = nullptr;
    const KelCBHead* m_head = nullptr;
    std::mutex m_mutex;  // making and releasing, following the peer
    std::atomic<bool> m_active{false};
    std::atomic<bool> m_waiting[2] = {{false}, {false}};  // a call of the direction waits on the descriptor
    std::atomic<int> m_wake{-1};                          // this end's FIFO or eventfd
    // Process.
    int m_epoll = -1;
    KelPollFifo m_fifo;
    int m_look = -1;
    std::atomic<bool> m_lookOn{false};
    int m_peerProcess = -1;
    std::atomic<uint64_t> m_followed{kUnfollowed};  // the peer's announcement the members were chosen for
    std::mutex m_ringMutex;
    int m_peerFifo = -1;
    int32_t m_peerFifoGeneration = 0;
    // Local.
    KelLocalPollRegistry::Event m_event;
};

#endif  // KEL_POLL_DESCRIPTOR_H
