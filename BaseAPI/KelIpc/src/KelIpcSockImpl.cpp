#include "KelIpcSockImpl.h"

#include <string>

#include "KelIpcLog.h"
#include "unix/KelShareMemoryDescriptor.h"
#include "unix/KelSystemSemaphoreChannel.h"

namespace {

const char kLogPath[] = "BaseAPI/KelIpc/src/KelIpcSockImpl";

bool PeerGone(void* token) {
    return static_cast<KelPeerToken*>(token)->Peer() == KelPeerToken::kDead;
}

void Restarted(void* token) {
    static_cast<KelPeerToken*>(token)->ForgetDeadPeer();
}

}  // namespace

int KelIpcSockImpl::Open(KelSide side, const char* name, int size, KelSystemSemaphore* semaphore,
                         const KelSecurity* security, KelMode mode, KelRingWatch watch, int trustedUid) {
    if (m_ring.Opened()) return IPC_ERR_OPENED;
    if (name == nullptr) return IPC_ERR_NULL;
    const std::string base(name);
    m_opener = getpid();
    // A server claims the name before it replaces anything: of servers opening it at once, one goes on.
    const std::string shm = base + "_shm";
    int rc = side == Server ? KelShareMemoryClaim(m_memory, shm.c_str(), size, security, trustedUid)
                            : KelShareMemoryAdopt(m_memory, shm.c_str(), size, trustedUid);
    if (rc != IPC_OK) {
        // A refusal is the answer, not a failure: nothing failed that a log line could help with.
        if (rc != IPC_ERR_OPENED && rc != IPC_ERR_ACCESS)
            KEL_IPC_LOG(kLogPath, "Open", "KelShareMemory Open fail, rc=%d", rc);
        CleanResource();
        return rc;
    }
    const int fd = KelShareMemoryDescriptor(m_memory);
    KelCBHead* const head = reinterpret_cast<KelCBHead*>(m_memory.Data());
    // Attaching beside a dead server's ring would wait for ever.
    if (side == Client && KelPeerToken::Of(fd, head, Server) == KelPeerToken::kDead) {
        CleanResource();
        return IPC_ERR_PEER_GONE;
    }
    if (semaphore == nullptr) {
        rc = KelSystemSemaphoreOpenChannel(m_semaphore, (base + "_ssm").c_str(), side, security, trustedUid);
        if (rc != IPC_OK) {
            if (rc != IPC_ERR_ACCESS)
                KEL_IPC_LOG(kLogPath, "Open", "KelSystemSemaphore Open fail, rc=%d", rc);
            CleanResource();
            return rc;
        }
        semaphore = &m_semaphore;
    }
    rc = KelCycleBufferAttachFresh(m_ring.Buffer(), m_memory.Data(), size, side, mode, semaphore);
    if (rc != IPC_OK) {
        KEL_IPC_LOG(kLogPath, "Open", "KelCycleBuffer AttachIpc fail, rc=%d", rc);
        CleanResource();
        return rc;
    }
    // A stopped ring has no server to talk to yet: the previous client's stream ended there, and until the
    // server's Start a new one would lose its first bytes to it, or read the old end-of-stream mark.
    if (side == Client && !m_ring.Buffer().Running()) {
        CleanResource();
        return IPC_ERR_FAILED;
    }
    // A client takes part only with its token: beside a live client it would merge its stream into the
    // other's, and beside a dead one not yet given up the new stream would join the old one's tail. The
    // client byte of L decides between clients opening at once; R follows L's winner.
    rc = m_token.Hold(fd, side, head);
    if (rc != IPC_OK) {
        CleanResource();
        return rc;
    }
    watch.peerGone = PeerGone;
    watch.restarted = Restarted;
    watch.context = &m_token;
    KelCycleBufferWatch(m_ring.Buffer(), watch);
    m_ring.MarkOpened();
    return IPC_OK;
}

int KelIpcSockImpl::Close(bool stop) {
    if (!m_ring.Close(kLogPath, stop && Opener())) return IPC_ERR_NOT_OPENED;
    CleanResource();
    return IPC_OK;
}

void KelIpcSockImpl::CleanResource() {
    const bool opener = Opener();
    if (opener) {
        m_token.Release();
    } else {
        m_token.Forget();
    }
    // A server removes its names only while they are still its own; its set goes with them. A published-
    // protocol server that replaced our segments uses the set under the same key.
    const bool removed = KelShareMemoryRelease(m_memory, opener);
    if (!m_semaphore.Opened()) return;
    if (!removed) {
        KelSystemSemaphoreAbandon(m_semaphore);
        return;
    }
    const int rc = m_semaphore.Close();
    if (rc != IPC_OK) KEL_IPC_LOG(kLogPath, "CleanResource", "KelSystemSemaphore Close fail, rc=%d", rc);
}
