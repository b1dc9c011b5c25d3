#include "KelLocalSemaphore.h"

#include <map>
#include <mutex>

#include "KelIpcLog.h"

namespace {

const char kLogPath[] = "BaseAPI/KelIpc/src/KelLocalSemaphore";

struct KelSemaphoreEntry {
    KelSemaphore* sem;
    int32_t refCount;
};

std::map<std::string, KelSemaphoreEntry> g_localSemaphoreMap;
std::mutex g_localSemaphoreMutex;

}  // namespace

KelLocalSemaphore::~KelLocalSemaphore() {
    Close();
}

int KelLocalSemaphore::Open(const char* name, KelSide side) {
    if (name == nullptr) return IPC_ERR_NULL;
    if (m_sem != nullptr) return IPC_ERR_OPENED;
    m_side = side;
    if (side == Server) return ServerOpen(name);
    if (side == Client) return ClientOpen(name);
    return IPC_ERR_PARAM;
}

int KelLocalSemaphore::ServerOpen(const char* name) {
    std::lock_guard<std::mutex> lock(g_localSemaphoreMutex);
    m_name = name;
    if (g_localSemaphoreMap.count(m_name) != 0) return IPC_ERR_OPENED;
    KelSemaphore* sem = new KelSemaphore();
    try {
        g_localSemaphoreMap.emplace(m_name, KelSemaphoreEntry{sem, 1});
    } catch (...) {
        delete sem;
        throw;
    }
    m_sem = sem;
    return IPC_OK;
}

int KelLocalSemaphore::ClientOpen(const char* name) {
    std::lock_guard<std::mutex> lock(g_localSemaphoreMutex);
    m_name = name;
    auto it = g_localSemaphoreMap.find(m_name);
    if (it == g_localSemaphoreMap.end()) return IPC_ERR_NOT_OPENED;
    m_sem = it->second.sem;
    ++it->second.refCount;
    return IPC_OK;
}

int KelLocalSemaphore::Close() {
    if (m_sem == nullptr) return IPC_OK;
    m_sem = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_localSemaphoreMutex);
        auto it = g_localSemaphoreMap.find(m_name);
        if (it == g_localSemaphoreMap.end()) {
            KEL_IPC_LOG(kLogPath, "Close", "Semaphore not exist name=[%s]", m_name.c_str());
        } else if (--it->second.refCount == 0) {
            delete it->second.sem;
            g_localSemaphoreMap.erase(it);
        }
    }
    m_name.clear();
    return IPC_OK;
}
