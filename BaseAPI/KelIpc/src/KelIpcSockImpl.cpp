#include "KelIpcSockImpl.h"

#include <string>

#include "KelIpcLog.h"
#include "unix/KelShareMemoryDescriptor.h"

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
                         const KelSecurity* security, KelMode mode, KelRingWatch watch) {
    if (m_ring.Opened()) return IPC_ERR_OPENED;
    if (name == nullptr) return IPC_ERR_NULL;
    const std::string base(name);
    int rc = m_memory.Open((base + "_shm").c_str(), size, side, security);
    if (rc != IPC_OK) {
        KEL_IPC_LOG(kLogPath, "Open", "KelShareMemory Open fail, rc=%d", rc);
        CleanResource();
        return rc;
    }
    const int fd = KelShareMemoryDescriptor(m_memory);
    KelCBHead* const head = reinterpret_cast<KelCBHead*>(m_memory.Data());
    if (side == Client) {
        // Attaching beside a dead server's ring would wait for ever; beside a dead client's, the server
        // would read the old stream's tail and the new one as one.
        rc = KelPeerToken::Of(fd, head, Server) == KelPeerToken::kDead   ? IPC_ERR_PEER_GONE
             : KelPeerToken::Of(fd, head, Client) == KelPeerToken::kDead ? IPC_ERR_NOT_OPENED
                                                                         : IPC_OK;
        if (rc != IPC_OK) {
            CleanResource();
            return rc;
        }
    }
    if (semaphore == nullptr) {
        rc = m_semaphore.Open((base + "_ssm").c_str(), side, security);
        if (rc != IPC_OK) {
            KEL_IPC_LOG(kLogPath, "Open", "KelSystemSemaphore Open fail, rc=%d", rc);
            CleanResource();
            return rc;
        }
        semaphore = &m_semaphore;
    }
    rc = m_ring.Buffer().AttachIpc(m_memory.Data(), size, side, mode, semaphore);
    if (rc != IPC_OK) {
        KEL_IPC_LOG(kLogPath, "Open", "KelCycleBuffer AttachIpc fail, rc=%d", rc);
        CleanResource();
        return rc;
    }
    // A second client finds the token taken and goes on without one: nobody learns of its death.
    m_token.Hold(fd, side, head);
    watch.peerGone = PeerGone;
    watch.restarted = Restarted;
    watch.context = &m_token;
    KelCycleBufferWatch(m_ring.Buffer(), watch);
    m_ring.MarkOpened();
    return IPC_OK;
}

int KelIpcSockImpl::Close(bool stop) {
    if (!m_ring.Close(kLogPath, stop)) return IPC_ERR_NOT_OPENED;
    CleanResource();
    return IPC_OK;
}

void KelIpcSockImpl::CleanResource() {
    m_token.Release();
    if (m_memory.Data() != nullptr) {
        const int rc = m_memory.Close();
        if (rc != IPC_OK) KEL_IPC_LOG(kLogPath, "CleanResource", "KelShareMemory Close fail, rc=%d", rc);
    }
    if (m_semaphore.Opened()) {
        const int rc = m_semaphore.Close();
        if (rc != IPC_OK) KEL_IPC_LOG(kLogPath, "CleanResource", "KelSystemSemaphore Close fail, rc=%d", rc);
    }
}
