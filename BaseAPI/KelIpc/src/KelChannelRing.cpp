#include "KelChannelRing.h"

#include "KelIpcLog.h"

bool KelChannelRing::Close(const char* logPath, bool stop) {
    if (!m_opened) return false;
    m_opened = false;
    if (stop && m_buffer.Running()) {
        const int rc = m_buffer.Stop();
        if (rc != IPC_OK) KEL_IPC_LOG(logPath, "Close", "KelCycleBuffer Stop fail, rc=%d", rc);
    }
    return true;
}
