#include "KelIpcSocketPrivate.h"

#include <string>

#include "KelDateTime.h"
#include "KelIpcLog.h"

namespace {
const char kLogPath[] = "BaseAPI/KelIpc/src/KelIpc/KelIpcSocketPrivate";
const char kSocketLogPath[] = "BaseAPI/KelIpc/src/KelIpc/KelIpc";
}  // namespace

int KelIpcSocketPrivate::SetOption(KelIpcOptionName name, void* value) {
    if (Opened()) return IPC_ERR_OPENED;
    if (static_cast<uint32_t>(name) > static_cast<uint32_t>(TrustedUid)) return IPC_ERR_PARAM;
    switch (name) {
        case LBufferSize:
        case RBufferSize: {
            if (value == nullptr) return IPC_ERR_NULL;
            const int size = *static_cast<const int*>(value);
            if (size < 1) return IPC_ERR_PARAM;
            (name == LBufferSize ? m_lSize : m_rSize) = size;
            break;
        }
        case LSemaphore:
            m_lSemaphore = value;
            break;
        case RSemaphore:
            m_rSemaphore = value;
            break;
        case LNonBlock:
            m_lMode = NonBlock;
            break;
        case RNonBlock:
            m_rMode = NonBlock;
            break;
        case ReadTimeout:
        case WriteTimeout:
        case CloseLinger: {
            if (value == nullptr) return IPC_ERR_NULL;
            const int ms = *static_cast<const int*>(value);
            if (ms < 0) return IPC_ERR_PARAM;
            (name == ReadTimeout    ? m_watch.readTimeoutMs
             : name == WriteTimeout ? m_watch.writeTimeoutMs
                                    : m_lingerMs) = ms;
            break;
        }
        case TrustedUid: {
            if (value == nullptr) return IPC_ERR_NULL;
            const int uid = *static_cast<const int*>(value);
            if (uid < -1) return IPC_ERR_PARAM;
            m_trustedUid = uid;
            break;
        }
        default:
            return IPC_ERR_PARAM;
    }
    return IPC_OK;
}

int KelIpcSocketPrivate::OpenIpc(KelSide side, const char* name, const KelSecurity* security) {
    const std::string base(name);
    m_side = side;
    m_ipcL.reset(new KelIpcSockImpl);
    m_ipcR.reset(new KelIpcSockImpl);
    // L decides between ends of one side opening at once (a server's claim of the name, a client's
    // token); R follows L's winner, so the two directions never go to two ends.
    m_shut.store(false, std::memory_order_relaxed);
    KelRingWatch lWatch = m_watch;
    KelRingWatch rWatch = m_watch;
    HookPoll(Process, base, security != nullptr ? static_cast<mode_t>(security->mode) : 0660, lWatch, rWatch);
    int rc =
        m_ipcL->Open(side, (base + "_XL").c_str(), BlockFor(m_lSize),
                     static_cast<KelSystemSemaphore*>(m_lSemaphore), security, m_lMode, lWatch, m_trustedUid);
    if (rc == IPC_OK) {
        rc = m_ipcR->Open(side, (base + "_XR").c_str(), BlockFor(m_rSize),
                          static_cast<KelSystemSemaphore*>(m_rSemaphore), security, m_rMode, rWatch,
                          m_trustedUid);
    }
    if (rc != IPC_OK) {
        CleanResource(false);
        return rc;
    }
    AttachPoll(&m_ipcL->Token(), m_ipcL->Ring().Buffer().KelCBHeadPtr());
    return rc;
}

int KelIpcSocketPrivate::OpenLocal(KelSide side, const char* name) {
    m_side = side;
    m_localL.reset(new KelLocalSockImpl);
    m_localR.reset(new KelLocalSockImpl);
    const std::string base(name);
    m_shut.store(false, std::memory_order_relaxed);
    KelRingWatch lWatch = m_watch;
    KelRingWatch rWatch = m_watch;
    HookPoll(Local, base, 0, lWatch, rWatch);
    int rc = m_localL->Open(side, (base + "_OL").c_str(), BlockFor(m_lSize),
                            static_cast<KelSemaphore*>(m_lSemaphore), m_lMode, lWatch);
    if (rc == IPC_OK) {
        rc = m_localR->Open(side, (base + "_OR").c_str(), BlockFor(m_rSize),
                            static_cast<KelSemaphore*>(m_rSemaphore), m_rMode, rWatch);
    }
    if (rc != IPC_OK) {
        CleanResource(false);
        return rc;
    }
    AttachPoll(nullptr, nullptr);
    return rc;
}

// The server reads L and writes R, the client the reverse.
void KelIpcSocketPrivate::HookPoll(KelIpcType type, const std::string& name, mode_t mode,
                                   KelRingWatch& lWatch, KelRingWatch& rWatch) {
    m_poll.Bind(type, m_side, name, mode, KelTrust(m_trustedUid));
    const bool server = m_side == Server;
    m_poll.Hook(lWatch, server ? KelPollDescriptor::kRead : KelPollDescriptor::kWrite);
    m_poll.Hook(rWatch, server ? KelPollDescriptor::kWrite : KelPollDescriptor::kRead);
}

void KelIpcSocketPrivate::AttachPoll(const KelPeerToken* token, const KelCBHead* head) {
    KelChannelRing* read = nullptr;
    KelChannelRing* write = nullptr;
    if (Select(kRead, read) == IPC_OK && Select(kWrite, write) == IPC_OK)
        m_poll.Attach(read->Buffer(), write->Buffer(), token, head);
}

namespace {

template <typename Channel>
void CloseChannel(std::unique_ptr<Channel>& channel, const char* type, bool stop) {
    if (!channel) return;
    const int rc = channel->Close(stop);
    if (rc != IPC_OK) KEL_IPC_LOG(kLogPath, "CleanResource", "%s Close fail, rc=%d", type, rc);
    channel.reset();
}

}  // namespace

void KelIpcSocketPrivate::CleanResource(bool stop) {
    // The rings' stops still ring the descriptors; the header the descriptor follows goes with L.
    m_poll.Detach();
    CloseChannel(m_ipcL, "KelIpcSockImpl", stop);
    CloseChannel(m_ipcR, "KelIpcSockImpl", stop);
    CloseChannel(m_localL, "KelLocalSockImpl", stop);
    CloseChannel(m_localR, "KelLocalSockImpl", stop);
    m_poll.Close();
}

int KelIpcSocketPrivate::Select(Direction direction, KelChannelRing*& ring) {
    if (!Opened()) return IPC_ERR_NOT_OPENED;
    if (m_side != Server && m_side != Client) return IPC_ERR_PARAM;
    const bool useL = (direction == kRead) == (m_side == Server);
    if (m_ipcL) {
        ring = &(useL ? m_ipcL : m_ipcR)->Ring();
    } else {
        ring = &(useL ? m_localL : m_localR)->Ring();
    }
    return IPC_OK;
}

bool KelIpcSocketPrivate::Running() {
    if (m_ipcL && m_ipcR) return m_ipcL->Ring().Running() && m_ipcR->Ring().Running();
    if (m_localL && m_localR) return m_localL->Ring().Running() && m_localR->Ring().Running();
    return false;
}

namespace {

template <typename Channel>
void CallChannel(std::unique_ptr<Channel>& channel, int (KelChannelRing::*op)(), const char* type,
                 const char* function) {
    if (!channel) return;
    const int rc = (channel->Ring().*op)();
    // The line names the channel type and the operation, e.g. "KelIpcSockImpl Stop fail, rc=-10000".
    if (rc != IPC_OK) KEL_IPC_LOG(kSocketLogPath, function, "%s %s fail, rc=%d", type, function, rc);
}

}  // namespace

namespace {

template <typename Channel>
void Detach(std::unique_ptr<Channel>& channel) {
    if (channel) KelCycleBufferDetach(channel->Ring().Buffer());
}

// How often a Close that waits for calls to leave wakes them again: one may have tested the ring just
// before the first wake-up and gone to sleep after it.
constexpr int kRewakeRounds = 10;

}  // namespace

int KelIpcSocketPrivate::Shutdown() {
    const Call call(*this);
    KelChannelRing* ring = nullptr;
    const int rc = call.Admitted() ? Select(kWrite, ring) : IPC_ERR_NOT_OPENED;
    if (rc != IPC_OK) return rc;
    m_shut.store(true, std::memory_order_release);
    return KelCycleBufferShutdown(ring->Buffer());
}

int KelIpcSocketPrivate::Shut() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!Opened()) return IPC_ERR_NOT_OPENED;
    int result = IPC_OK;
    KelChannelRing* ring = nullptr;
    if (m_lingerMs > 0 && Select(kWrite, ring) == IPC_OK && Shutdown() == IPC_OK) {
        // Only bytes left unread when the linger ran out make the close an error: a peer that died or a
        // channel stopped took them already.
        if (KelCycleBufferDrain(ring->Buffer(), m_lingerMs) == IPC_ERR_TIMEOUT) {
            // The stream loses its tail: the peer must not take the stop for its clean end.
            KelCycleBufferShutdown(ring->Buffer(), false);
            result = IPC_ERR_TIMEOUT;
        }
    }
    m_closing.store(true, std::memory_order_seq_cst);
    for (int round = 0; round == 0 || m_calls.load(std::memory_order_seq_cst) != 0; ++round) {
        if (round % kRewakeRounds == 0) {
            Detach(m_ipcL);
            Detach(m_ipcR);
            Detach(m_localL);
            Detach(m_localR);
        }
        if (m_calls.load(std::memory_order_seq_cst) != 0) KelSleep(1);
    }
    CleanResource();
    // Release: a call that sees the socket open again also sees the channels gone.
    m_closing.store(false, std::memory_order_release);
    return result;
}

void KelIpcSocketPrivate::ForEachChannel(int (KelChannelRing::*op)(), const char* function) {
    CallChannel(m_ipcL, op, "KelIpcSockImpl", function);
    CallChannel(m_ipcR, op, "KelIpcSockImpl", function);
    CallChannel(m_localL, op, "KelLocalSockImpl", function);
    CallChannel(m_localR, op, "KelLocalSockImpl", function);
}
