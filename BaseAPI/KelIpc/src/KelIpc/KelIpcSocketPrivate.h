#ifndef KEL_IPC_SOCKET_PRIVATE_H
#define KEL_IPC_SOCKET_PRIVATE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "KelIpc.h"
#include "KelIpcSockImpl.h"
#include "KelLocalSockImpl.h"
#include "KelPollDescriptor.h"

// The socket's state: options, side and, while open, one channel pair of one transport. The transport is
// not stored; it is told by which pair is set.
class KelIpcSocketPrivate {
public:
    enum Direction { kRead, kWrite };

    bool Opened() const { return (m_ipcL && m_ipcR) || (m_localL && m_localR); }
    int SetOption(KelIpcOptionName name, void* value);
    int OpenIpc(KelSide side, const char* name, const KelSecurity* security);
    int OpenLocal(KelSide side, const char* name);
    // Closes and frees every channel; failures are logged. Never throws. A failed open passes stop false:
    // the rings it attached are the server's too, and must run on.
    void CleanResource(bool stop = true);
    // Around the channels' Open: the descriptor's hooks in each ring's watch, then what it follows.
    void HookPoll(KelIpcType type, const std::string& name, mode_t mode, KelRingWatch& lWatch,
                  KelRingWatch& rWatch);
    void AttachPoll(const KelPeerToken* token, const KelCBHead* head);

    // The ring of the direction this end reads or writes (the server reads L and writes R, the client the
    // reverse). IPC_ERR_NOT_OPENED when closed, IPC_ERR_PARAM for an unknown side.
    int Select(Direction direction, KelChannelRing*& ring);
    bool Running();
    // Calls op on every channel, logging nonzero results under function with the channel type.
    void ForEachChannel(int (KelChannelRing::*op)(), const char* function);
    // Close and destruction: first, with a linger, shuts this end's writing down and waits up to that long
    // for the peer to read what is left; then ends the calls of other threads that are inside the
    // channels, waits until they have left, and closes the channels. IPC_ERR_NOT_OPENED when closed,
    // IPC_ERR_TIMEOUT when the linger ran out with bytes unread (closed all the same).
    int Shut();
    // This end writes no more; the peer reads what is left, then IPC_ERR_PEER_CLOSED.
    int Shutdown();

    // Counts a call into the channels for as long as it lives, unless the socket is being closed: such a
    // call is refused before it touches a channel, which may be gone by the time it would.
    class Call {
    public:
        explicit Call(KelIpcSocketPrivate& socket) : m_socket(socket) {
            // Sequentially consistent with Shut's store and load: either it sees this call, or the call
            // sees it closing.
            m_socket.m_calls.fetch_add(1, std::memory_order_seq_cst);
            m_admitted = !m_socket.m_closing.load(std::memory_order_seq_cst);
        }
        ~Call() { m_socket.m_calls.fetch_sub(1, std::memory_order_release); }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        bool Admitted() const { return m_admitted; }

    private:
        KelIpcSocketPrivate& m_socket;
        bool m_admitted;
    };

    KelSide m_side = Server;
    // 0: not set: a server makes blocks of kDefaultBlock, a client takes the server's.
    static constexpr int32_t kDefaultBlock = 262144;
    int32_t m_lSize = 0;
    int32_t m_rSize = 0;
    int BlockFor(int32_t size) const { return size != 0 || m_side == Client ? size : kDefaultBlock; }
    int m_lingerMs = 0;               // CloseLinger
    int m_trustedUid = -1;            // TrustedUid: the one user whose objects are accepted besides ours
    std::atomic<bool> m_shut{false};  // this end has shut its writing down
    void* m_lSemaphore = nullptr;
    void* m_rSemaphore = nullptr;
    KelMode m_lMode = Block;
    KelMode m_rMode = Block;
    KelRingWatch m_watch;  // the timeouts; each ring uses the one of the way this end moves its bytes
    std::unique_ptr<KelIpcSockImpl> m_ipcL;
    std::unique_ptr<KelIpcSockImpl> m_ipcR;
    std::unique_ptr<KelLocalSockImpl> m_localL;
    std::unique_ptr<KelLocalSockImpl> m_localR;
    KelPollDescriptor m_poll;     // PollFd's, once asked for
    std::mutex m_mutex;           // held by Close and Stop
    std::atomic<int> m_calls{0};  // calls inside the channels
    std::atomic<bool> m_closing{false};
};

#endif  // KEL_IPC_SOCKET_PRIVATE_H
