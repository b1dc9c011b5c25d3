#include "KelPollDescriptor.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>

#include "KelCycleBuffer.h"
#include "KelCycleBuffer/KelRingWatch.h"
#include "KelIpcLog.h"
#include "unix/KelDescriptor.h"
#include "unix/KelPeerToken.h"

namespace {

const char kLogPath[] = "BaseAPI/KelIpc/src/KelPollDescriptor";

KelSide Other(KelSide side) {
    return side == Server ? Client : Server;
}

void CloseFd(int& fd, const char* function) {
    if (fd < 0) return;
    if (close(fd) != 0) KEL_IPC_LOG(kLogPath, function, "close fail, errno=%d", errno);
    fd = -1;
}

void RingEvent(int fd) {
    const uint64_t one = 1;
    ssize_t rc;
    do {
        rc = write(fd, &one, sizeof one);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0 && errno != EAGAIN) KEL_IPC_LOG(kLogPath, "RingEvent", "write fail, errno=%d", errno);
}

bool DrainEvent(int fd) {
    uint64_t count = 0;
    ssize_t rc;
    do {
        rc = read(fd, &count, sizeof count);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0 && errno != EAGAIN) KEL_IPC_LOG(kLogPath, "DrainEvent", "read fail, errno=%d", errno);
    return rc > 0;
}

}  // namespace

void KelPollDescriptor::Bind(KelIpcType type, KelSide side, const std::string& name, mode_t mode,
                             const KelTrust& trust) {
    m_trust = trust;
    m_type = type;
    m_side = side;
    m_name = name;
    m_mode = mode;
}

void KelPollDescriptor::Hook(KelRingWatch& watch, Direction direction) {
    watch.ring = &KelPollDescriptor::RingHook;
    watch.ringContext = &m_links[direction];
}

void KelPollDescriptor::Attach(KelCycleBuffer& readRing, KelCycleBuffer& writeRing, const KelPeerToken* token,
                               const KelCBHead* head) {
    m_rings[kRead] = &readRing;
    m_rings[kWrite] = &writeRing;
    m_token = token;
    m_head = head;
}

void KelPollDescriptor::Detach() {
    std::lock_guard<std::mutex> lock(m_ringMutex);
    m_head = nullptr;
    m_token = nullptr;
}

void KelPollDescriptor::RingHook(void* context, bool reader) {
    const Link& link = *static_cast<const Link*>(context);
    if (reader == (link.direction == kRead)) {
        link.owner->RingOwn();
    } else {
        link.owner->RingPeer();
    }
}

void KelPollDescriptor::RingOwn() {
    const int fd = m_wake.load(std::memory_order_acquire);
    if (fd < 0) return;
    if (m_type == Local) {
        RingEvent(fd);
    } else {
        KelPollFifo::Ring(fd);
    }
}

// Only while this end's peer polls, never on a flowing stream: a lock and a lookup are cheap beside the
// system call that rings.
void KelPollDescriptor::RingPeer() {
    if (m_type == Local) {
        const KelLocalPollRegistry::Event event = KelLocalPollRegistry::Find(m_name, Other(m_side));
        if (event) RingEvent(*event);
        return;
    }
    std::lock_guard<std::mutex> lock(m_ringMutex);
    // A new peer (a new announcement) has a FIFO of its own under the same name.
    const int32_t generation =
        m_head != nullptr ? PeerWord(KelPeerToken::kServerGeneration, KelPeerToken::kClientGeneration) : 0;
    if (m_peerFifo < 0 || (m_head != nullptr && generation != m_peerFifoGeneration)) {
        CloseFd(m_peerFifo, "RingPeer");
        m_peerFifo = KelPollFifo::OpenPeer(FifoPath(Other(m_side)), m_trust);
        m_peerFifoGeneration = generation;
    }
    if (m_peerFifo >= 0) KelPollFifo::Ring(m_peerFifo);
}

int KelPollDescriptor::Fd() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_active.load(std::memory_order_relaxed)) {
        if (m_rings[kRead] == nullptr) return IPC_ERR_NOT_OPENED;
        const int rc = m_type == Local ? CreateLocal() : CreateProcess();
        if (rc != IPC_OK) {
            Release();
            return rc;
        }
        m_active.store(true, std::memory_order_release);
        RingOwn();
    }
    return m_type == Local ? *m_event : m_epoll;
}

int KelPollDescriptor::CreateLocal() {
    const int fd = KelDescriptor::AboveStdio(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), kLogPath, "CreateLocal");
    if (fd < 0) {
        KEL_IPC_LOG(kLogPath, "CreateLocal", "eventfd fail, rc=%d, errno=%d", fd, errno);
        return IPC_ERR_FAILED;
    }
    m_event.reset(new int(fd), [](const int* event) {
        if (close(*event) != 0) KEL_IPC_LOG(kLogPath, "CreateLocal", "close fail, errno=%d", errno);
        delete event;
    });
    KelLocalPollRegistry::Publish(m_name, m_side, m_event);
    m_wake.store(fd, std::memory_order_release);
    return IPC_OK;
}

int KelPollDescriptor::CreateProcess() {
    m_epoll = KelDescriptor::AboveStdio(epoll_create1(EPOLL_CLOEXEC), kLogPath, "CreateProcess");
    if (m_epoll < 0) {
        KEL_IPC_LOG(kLogPath, "CreateProcess", "epoll_create1 fail, rc=%d, errno=%d", m_epoll, errno);
        return IPC_ERR_FAILED;
    }
    const int rc = m_fifo.Create(FifoPath(m_side), m_mode, m_trust);
    if (rc != IPC_OK) {
        KEL_IPC_LOG(kLogPath, "CreateProcess", "KelPollFifo Create fail, rc=%d", rc);
        return rc;
    }
    m_look = KelDescriptor::AboveStdio(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC), kLogPath,
                                       "CreateProcess");
    if (m_look < 0) {
        KEL_IPC_LOG(kLogPath, "CreateProcess", "timerfd_create fail, rc=%d, errno=%d", m_look, errno);
        return IPC_ERR_FAILED;
    }
    if (!Add(m_fifo.Fd(), kWake) || !Add(m_look, kLook)) return IPC_ERR_FAILED;
    m_wake.store(m_fifo.Fd(), std::memory_order_release);
    Follow();
    return IPC_OK;
}

bool KelPollDescriptor::Add(int fd, Member member) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = member;
    const int rc = epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event);
    if (rc != 0) KEL_IPC_LOG(kLogPath, "Add", "epoll_ctl fail, rc=%d, errno=%d", rc, errno);
    return rc == 0;
}

bool KelPollDescriptor::Wait(Direction direction, int need) {
    // Before the word, so that emptying the descriptor for the other direction never takes a ring that
    // nobody rings again (Settle).
    m_waiting[direction].store(true, std::memory_order_seq_cst);
    const bool fresh = Settle(direction);
    const bool ready = KelCycleBufferArm(*m_rings[direction], direction == kRead, need, fresh);
    if (ready) m_waiting[direction].store(false, std::memory_order_relaxed);
    return ready;
}

// Empties the descriptor before the word goes up: a ring after it stays. True when the peer's process
// has ended, so that its liveness is looked at afresh.
bool KelPollDescriptor::Settle(Direction direction) {
    bool fresh = m_type == Process && FollowPeer();
    const int wake = m_wake.load(std::memory_order_relaxed);
    const bool rung = m_type == Local ? DrainEvent(wake) : KelPollFifo::Drain(wake);
    // The other members matter only when nothing rang, or while the timer ticks and must be emptied.
    if (m_type == Process && (!rung || m_lookOn.load(std::memory_order_relaxed))) fresh = Members() || fresh;
    // The ring emptied here may have been the other direction's: its word, swapped to 0, tells.
    const Direction other = direction == kRead ? kWrite : kRead;
    if (m_waiting[other].load(std::memory_order_seq_cst) &&
        !KelCycleBufferArmed(*m_rings[other], other == kRead)) {
        RingOwn();
    }
    return fresh;
}

bool KelPollDescriptor::Members() {
    epoll_event events[3];
    int count;
    do {
        count = epoll_wait(m_epoll, events, 3, 0);
    } while (count < 0 && errno == EINTR);
    if (count < 0) KEL_IPC_LOG(kLogPath, "Members", "epoll_wait fail, rc=%d, errno=%d", count, errno);
    bool fresh = false;
    for (int i = 0; i < count; ++i) {
        if (events[i].data.u32 == kLook) {
            uint64_t ticks = 0;
            if (read(m_look, &ticks, sizeof ticks) < 0 && errno != EAGAIN)
                KEL_IPC_LOG(kLogPath, "Members", "read fail, errno=%d", errno);
        } else if (events[i].data.u32 == kPeerProcess) {
            fresh = true;
            std::lock_guard<std::mutex> lock(m_mutex);
            // The process ended, yet its token lives on in a child it forked: from here on, look.
            if (m_token != nullptr && m_token->Peer() != KelPeerToken::kDead) {
                DropPeerProcess();
                Look(true);
            }
        }
    }
    return fresh;
}

int32_t KelPollDescriptor::PeerWord(size_t serverOffset, size_t clientOffset) const {
    const char* const head = reinterpret_cast<const char*>(m_head);
    const size_t offset = m_side == Server ? clientOffset : serverOffset;
    return __atomic_load_n(reinterpret_cast<const int32_t*>(head + offset), __ATOMIC_ACQUIRE);
}

// The peer's announcement as one value: its generation, whether its token is up, whether the ring runs.
uint64_t KelPollDescriptor::PeerKey() const {
    const uint32_t generation =
        static_cast<uint32_t>(PeerWord(KelPeerToken::kServerGeneration, KelPeerToken::kClientGeneration));
    const bool held = PeerWord(KelPeerToken::kServerHeld, KelPeerToken::kClientHeld) != 0;
    const bool running = __atomic_load_n(&m_head->running, __ATOMIC_ACQUIRE) != 0;
    return (static_cast<uint64_t>(generation) << 2) | (held ? 2u : 0u) | (running ? 1u : 0u);
}

bool KelPollDescriptor::FollowPeer() {
    if (m_head == nullptr || PeerKey() == m_followed.load(std::memory_order_relaxed)) return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    return Follow();
}

// A peer that announces a token is watched through a pidfd of the process that announced it, confirmed
// after the open by the token itself (a reused pid holds no lock); one that announces none is looked at
// every kLookMs while the rings run. True when the peer is to be looked at afresh. m_mutex is held.
bool KelPollDescriptor::Follow() {
    if (m_head == nullptr) return false;
    const uint64_t key = PeerKey();
    if (key == m_followed.load(std::memory_order_relaxed)) return false;
    DropPeerProcess();
    bool fresh = false;
    uint64_t followed = key;
    const pid_t pid = PeerWord(KelPeerToken::kServerPid, KelPeerToken::kClientPid);
    if ((key & 2u) != 0 && pid <= 0) {
        followed = kUnfollowed;  // the pid is stored after the token word: the next look finds it
    } else if ((key & 2u) != 0) {
        int fd =
            KelDescriptor::AboveStdio(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), kLogPath, "Follow");
        if (fd < 0) {
            KEL_IPC_LOG(kLogPath, "Follow", "pidfd_open fail, rc=%d, errno=%d", fd, errno);
            fresh = true;
        } else if (m_token->Peer() == KelPeerToken::kAlive && PeerKey() == key &&
                   PeerWord(KelPeerToken::kServerPid, KelPeerToken::kClientPid) == pid &&
                   Add(fd, kPeerProcess)) {
            m_peerProcess = fd;
        } else {
            CloseFd(fd, "Follow");
            fresh = true;
        }
    }
    Look(m_peerProcess < 0 && (key & 1u) != 0);
    m_followed.store(followed, std::memory_order_relaxed);
    return fresh;
}

void KelPollDescriptor::DropPeerProcess() {
    if (m_peerProcess < 0) return;
    if (epoll_ctl(m_epoll, EPOLL_CTL_DEL, m_peerProcess, nullptr) != 0)
        KEL_IPC_LOG(kLogPath, "DropPeerProcess", "epoll_ctl fail, errno=%d", errno);
    CloseFd(m_peerProcess, "DropPeerProcess");
}

void KelPollDescriptor::Look(bool on) {
    if (m_look < 0 || on == m_lookOn.load(std::memory_order_relaxed)) return;
    itimerspec period{};
    if (on) {
        period.it_interval.tv_nsec = kLookMs * 1000000L;
        period.it_value.tv_nsec = kLookMs * 1000000L;
    }
    if (timerfd_settime(m_look, 0, &period, nullptr) != 0) {
        KEL_IPC_LOG(kLogPath, "Look", "timerfd_settime fail, errno=%d", errno);
        return;
    }
    m_lookOn.store(on, std::memory_order_relaxed);
}

std::string KelPollDescriptor::FifoPath(KelSide side) const {
    const size_t first = m_name.find_first_not_of('/');
    return "/dev/shm/" + (first == std::string::npos ? std::string() : m_name.substr(first)) +
           (side == Server ? "_XS_poll" : "_XC_poll");
}

void KelPollDescriptor::Release() {
    m_wake.store(-1, std::memory_order_release);
    if (m_event) {
        KelLocalPollRegistry::Withdraw(m_name, m_side, m_event);
        m_event.reset();
    }
    DropPeerProcess();
    CloseFd(m_look, "Release");
    m_lookOn.store(false, std::memory_order_relaxed);
    m_fifo.Close();
    CloseFd(m_epoll, "Release");
    m_followed.store(kUnfollowed, std::memory_order_relaxed);
}

void KelPollDescriptor::Close() {
    m_active.store(false, std::memory_order_release);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Release();
        m_rings[kRead] = nullptr;
        m_rings[kWrite] = nullptr;
        m_waiting[kRead].store(false, std::memory_order_relaxed);
        m_waiting[kWrite].store(false, std::memory_order_relaxed);
    }
    std::lock_guard<std::mutex> lock(m_ringMutex);
    CloseFd(m_peerFifo, "Close");
    m_head = nullptr;
    m_token = nullptr;
}
