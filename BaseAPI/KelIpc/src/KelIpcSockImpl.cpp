#include "KelIpcSockImpl.h"

#include <string>

#include "KelIpcLog.h"

namespace {
const char kLogPath[] = "BaseAPI/KelIpc/src/KelIpcSockImpl";
}

int KelIpcSockImpl::Open(KelSide side, const char* name, int size, KelSystemSemaphore* semaphore,
                         const KelSecurity* security, KelMode mode) {
    if (m_ring.Opened()) return IPC_ERR_OPENED;
    if (name == nullptr) return IPC_ERR_NULL;
    const std::string base(name);
    int rc = m_memory.Open((base + "_shm").c_str(), size, side, security);
    if (rc != IPC_OK) {
        KEL_IPC_LOG(kLogPath, "Open", "KelShareMemory Open fail, rc=%d", rc);
        CleanResource();
        return rc;
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
    m_ring.MarkOpened();
    return IPC_OK;
}

int KelIpcSockImpl::Close() {
    if (!m_ring.Close(kLogPath)) return IPC_ERR_NOT_OPENED;
    CleanResource();
    return IPC_OK;
}

void KelIpcSockImpl::CleanResource() {
    if (m_memory.Data() != nullptr) {
        const int rc = m_memory.Close();
        if (rc != IPC_OK) KEL_IPC_LOG(kLogPath, "CleanResource", "KelShareMemory Close fail, rc=%d", rc);
    }
    if (m_semaphore.Opened()) {
        const int rc = m_semaphore.Close();
        if (rc != IPC_OK) KEL_IPC_LOG(kLogPath, "CleanResource", "KelSystemSemaphore Close fail, rc=%d", rc);
    }
}
