#include "KelLocalSockImpl.h"

#include <string>

#include "KelIpcLog.h"

namespace {
const char kLogPath[] = "BaseAPI/KelIpc/src/KelLocalSockImpl";
}

int KelLocalSockImpl::Open(KelSide side, const char* name, int size, KelSemaphore* semaphore, KelMode mode,
                           const KelRingWatch& watch) {
    if (m_ring.Opened()) return IPC_ERR_OPENED;
    if (name == nullptr) return IPC_ERR_NULL;
    const std::string base(name);
    int rc = m_memory.Open((base + "_lcm").c_str(), size, side);
    if (rc == IPC_OK) size = m_memory.Size();  // a client that set no size has the server's now
    if (rc != IPC_OK) {
        KEL_IPC_LOG(kLogPath, "Open", "KelLocalMemory Open fail, rc=%d", rc);
        CleanResource();
        return rc;
    }
    if (semaphore == nullptr) {
        rc = m_semaphore.Open((base + "_lsc").c_str(), side);
        if (rc != IPC_OK) {
            KEL_IPC_LOG(kLogPath, "Open", "KelLocalSemaphore Open fail, rc=%d", rc);
            CleanResource();
            return rc;
        }
        semaphore = m_semaphore.Semaphore();
    }
    rc = m_ring.Buffer().AttachLocal(m_memory.Data(), size, side, mode, semaphore);
    if (rc != IPC_OK) {
        KEL_IPC_LOG(kLogPath, "Open", "KelCycleBuffer AttachLocal fail, rc=%d", rc);
        CleanResource();
        return rc;
    }
    // As across processes: a stopped ring waits for its server's Start.
    if (side == Client && !m_ring.Buffer().Running()) {
        CleanResource();
        return IPC_ERR_NOT_OPENED;
    }
    KelCycleBufferWatch(m_ring.Buffer(), watch);
    m_ring.MarkOpened();
    return IPC_OK;
}

int KelLocalSockImpl::Close(bool stop) {
    if (!m_ring.Close(kLogPath, stop)) return IPC_ERR_NOT_OPENED;
    CleanResource();
    return IPC_OK;
}

void KelLocalSockImpl::CleanResource() {
    if (m_memory.Data() != nullptr) m_memory.Close();
    if (m_semaphore.Semaphore() != nullptr) m_semaphore.Close();
}
