#include "KelIpc.h"

#include "KelIpcSocketPrivate.h"

KelIpcSocket::KelIpcSocket() : m_private(new KelIpcSocketPrivate) {}

KelIpcSocket::~KelIpcSocket() {
    m_private->Shut();
    delete m_private;
}

bool KelIpcSocket::Opened() {
    return m_private->Opened();
}

int KelIpcSocket::SetOption(KelIpcOptionName name, void* value) {
    return m_private->SetOption(name, value);
}

int KelIpcSocket::Open(KelIpcType type, KelSide side, const char* name, const KelSecurity* security) {
    if (name == nullptr) return IPC_ERR_NULL;
    if ((type != Process && type != Local) || (side != Server && side != Client)) return IPC_ERR_PARAM;
    if (m_private->Opened()) return IPC_ERR_OPENED;
    return type == Process ? m_private->OpenIpc(side, name, security) : m_private->OpenLocal(side, name);
}

namespace {

// Which calls the descriptor of PollFd serves: those that return at once when they cannot move their
// bytes, and what they need to move (ReadSome: any byte).
enum Polled { kNotPolled, kPolled, kPolledInNonBlockMode, kSomePolledInNonBlockMode };

// One test of the channels and the side, then one call into the ring of the chosen direction; a call
// that could not move its bytes and whose caller may wait on the descriptor arms it.
template <typename Buffer>
int Transfer(KelIpcSocketPrivate* socket, KelIpcSocketPrivate::Direction direction,
             int (KelChannelRing::*op)(Buffer, int), Buffer buffer, int length, Polled polled) {
    const KelIpcSocketPrivate::Call call(*socket);
    if (!call.Admitted()) return IPC_ERR_NOT_OPENED;
    KelChannelRing* ring = nullptr;
    int rc = socket->Select(direction, ring);
    if (rc != IPC_OK) return rc;
    // An end that shut its writing down writes no more.
    if (direction == KelIpcSocketPrivate::kWrite && socket->m_shut.load(std::memory_order_acquire)) {
        return IPC_ERR_NOT_OPENED;
    }
    KelPollDescriptor& poll = socket->m_poll;
    const KelPollDescriptor::Direction way =
        direction == KelIpcSocketPrivate::kRead ? KelPollDescriptor::kRead : KelPollDescriptor::kWrite;
    poll.Begin(way);
    rc = (ring->*op)(buffer, length);
    if (rc != 0 || polled == kNotPolled || !poll.Active() ||
        (polled != kPolled && !KelCycleBufferNonBlocking(ring->Buffer()))) {
        return rc;
    }
    const int need = polled == kSomePolledInNonBlockMode ? 1 : length;
    if (!KelCycleBufferSoon(ring->Buffer(), way == KelPollDescriptor::kRead, need) && !poll.Wait(way, need))
        return 0;
    rc = (ring->*op)(buffer, length);
    // Ready, yet held back (another thread has the direction's turn): the caller looks again soon.
    if (rc == 0) poll.RingOwn();
    return rc;
}

int Size(KelIpcSocketPrivate* socket, KelIpcSocketPrivate::Direction direction, int (KelChannelRing::*op)()) {
    const KelIpcSocketPrivate::Call call(*socket);
    if (!call.Admitted()) return IPC_ERR_NOT_OPENED;
    KelChannelRing* ring = nullptr;
    const int rc = socket->Select(direction, ring);
    return rc != IPC_OK ? rc : (ring->*op)();
}

// Start and Reset, which run beside the transfers.
int Restart(KelIpcSocketPrivate* socket, int (KelChannelRing::*op)(), const char* function) {
    const KelIpcSocketPrivate::Call call(*socket);
    if (!call.Admitted() || !socket->Opened()) return IPC_ERR_NOT_OPENED;
    socket->ForEachChannel(op, function);
    return IPC_OK;
}

}  // namespace

int KelIpcSocket::Write(const char* data, int length) {
    return Transfer(m_private, KelIpcSocketPrivate::kWrite, &KelChannelRing::Write, data, length,
                    kPolledInNonBlockMode);
}

int KelIpcSocket::BlockWrite(const char* data, int length) {
    return Transfer(m_private, KelIpcSocketPrivate::kWrite, &KelChannelRing::BlockWrite, data, length,
                    kNotPolled);
}

int KelIpcSocket::NonBlockWrite(const char* data, int length) {
    return Transfer(m_private, KelIpcSocketPrivate::kWrite, &KelChannelRing::NonBlockWrite, data, length,
                    kPolled);
}

int KelIpcSocket::Read(char* buffer, int length) {
    return Transfer(m_private, KelIpcSocketPrivate::kRead, &KelChannelRing::Read, buffer, length,
                    kPolledInNonBlockMode);
}

int KelIpcSocket::BlockRead(char* buffer, int length) {
    return Transfer(m_private, KelIpcSocketPrivate::kRead, &KelChannelRing::BlockRead, buffer, length,
                    kNotPolled);
}

int KelIpcSocket::NonBlockRead(char* buffer, int length) {
    return Transfer(m_private, KelIpcSocketPrivate::kRead, &KelChannelRing::NonBlockRead, buffer, length,
                    kPolled);
}

int KelIpcSocket::ReadSome(char* buffer, int length) {
    return Transfer(m_private, KelIpcSocketPrivate::kRead, &KelChannelRing::ReadSome, buffer, length,
                    kSomePolledInNonBlockMode);
}

int KelIpcSocket::PollFd() {
    const KelIpcSocketPrivate::Call call(*m_private);
    if (!call.Admitted() || !m_private->Opened()) return IPC_ERR_NOT_OPENED;
    return m_private->m_poll.Fd();
}

int KelIpcSocket::Shutdown() {
    return m_private->Shutdown();
}

int KelIpcSocket::DataSize() {
    return Size(m_private, KelIpcSocketPrivate::kRead, &KelChannelRing::DataSize);
}

int KelIpcSocket::SpaceSize() {
    return Size(m_private, KelIpcSocketPrivate::kWrite, &KelChannelRing::SpaceSize);
}

bool KelIpcSocket::Running() {
    const KelIpcSocketPrivate::Call call(*m_private);
    return call.Admitted() && m_private->Running();
}

int KelIpcSocket::Start() {
    return Restart(m_private, &KelChannelRing::Start, "Start");
}

int KelIpcSocket::Reset() {
    return Restart(m_private, &KelChannelRing::Reset, "Reset");
}

int KelIpcSocket::Stop() {
    std::lock_guard<std::mutex> lock(m_private->m_mutex);
    if (!m_private->Opened()) return IPC_ERR_NOT_OPENED;
    m_private->ForEachChannel(&KelChannelRing::Stop, "Stop");
    return IPC_OK;
}

int KelIpcSocket::Close() {
    return m_private->Shut();
}
