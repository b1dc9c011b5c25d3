#ifndef KEL_PEER_TOKEN_H
#define KEL_PEER_TOKEN_H

#include <cstdint>

#include "KelCycleBuffer.h"

// An end's liveness token on one ring segment: a write lock on one byte of the segment's file (the
// server's byte 0, the client's byte 1) through the end's own open file description, which the kernel
// drops when the last descriptor of that description closes, as a process's death does. A pid could be
// reused; a lock cannot outlive its holders. A word in the header's reserved area announces the token, so
// that an end that never takes one (one following only the bare ring protocol) is never taken for dead.
class KelPeerToken {
public:
    enum Liveness { kUnknown, kAlive, kDead };

    // Header words, by offset from the start of the ring header: each side's announcement (1 while its
    // token is held or its holder died without withdrawing it) and the pid that took it, for display.
    static constexpr size_t kServerHeld = 960;
    static constexpr size_t kClientHeld = 964;
    static constexpr size_t kServerPid = 968;
    static constexpr size_t kClientPid = 972;
    // Each side's generation, raised at every announcement: a look tells a new holder from the one it
    // began with.
    static constexpr size_t kServerGeneration = 976;
    static constexpr size_t kClientGeneration = 980;

    KelPeerToken() = default;
    KelPeerToken(const KelPeerToken&) = delete;
    KelPeerToken& operator=(const KelPeerToken&) = delete;

    // Locks side's byte through fd: IPC_OK (also when fd's description holds it already),
    // IPC_ERR_OPENED when another description holds it, IPC_ERR_FAILED (logged).
    static int Lock(int fd, KelSide side);
    // As Lock, for a server taking over a segment it found: only read locks in the way (no token) let it
    // go on, without the lock; IPC_ERR_OPENED only for another description's write lock.
    static int Seize(int fd, KelSide side);
    // Takes this side's token through fd and announces it in head. On failure nothing is announced (a
    // lock taken stays with fd until it closes): IPC_ERR_OPENED when a live end of the side holds it,
    // IPC_ERR_NOT_OPENED when the announcement of an end that died is still up (the server gives a dead
    // client up in Start), IPC_ERR_FAILED (logged).
    int Hold(int fd, KelSide side, KelCBHead* head);
    // Withdraws the announcement; the lock itself goes with the descriptor.
    void Release();
    // Drops the token without withdrawing it: the end is closed in a process that did not open it, and
    // the opener still holds the token.
    void Forget();
    // A side's liveness as seen through fd and head.
    static Liveness Of(int fd, const KelCBHead* head, KelSide side);
    Liveness Peer() const;
    // Server only: a dead client's announcement is cleared so that the next client may attach.
    void ForgetDeadPeer();

private:
    int m_fd = -1;
    KelSide m_side = Server;
    KelCBHead* m_head = nullptr;
    bool m_held = false;
};

#endif  // KEL_PEER_TOKEN_H
