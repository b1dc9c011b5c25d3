#include "KelLocalMemory.h"

#include <map>
#include <memory>
#include <mutex>

#include "KelIpcLog.h"

namespace {

const char kLogPath[] = "BaseAPI/KelIpc/src/KelLocalMemory";

struct KelMemoryPool {
    char* data;
    int32_t size;
    int32_t refCount;
};

std::map<std::string, KelMemoryPool> g_localMemoryMap;
std::mutex g_localMemoryMutex;

}  // namespace

KelLocalMemory::~KelLocalMemory() {
    Close();
}

int KelLocalMemory::Open(const char* name, int size, KelSide side) {
    if (name == nullptr || size < (side == Client ? 0 : 1)) return IPC_ERR_NULL;
    if (m_data != nullptr) return IPC_ERR_OPENED;
    m_side = side;
    if (side == Server) return ServerOpen(name, size);
    if (side == Client) return ClientOpen(name, size);
    return IPC_ERR_PARAM;
}

int KelLocalMemory::ServerOpen(const char* name, int size) {
    std::lock_guard<std::mutex> lock(g_localMemoryMutex);
    m_name = name;
    if (g_localMemoryMap.count(m_name) != 0) return IPC_ERR_OPENED;
    // Left uninitialised: the ring's server attach clears the whole block anyway.
    std::unique_ptr<char[]> block(new char[static_cast<size_t>(size)]);
    g_localMemoryMap.emplace(m_name, KelMemoryPool{block.get(), size, 1});
    m_data = block.release();
    m_size = size;
    return IPC_OK;
}

int KelLocalMemory::ClientOpen(const char* name, int size) {
    std::lock_guard<std::mutex> lock(g_localMemoryMutex);
    m_name = name;
    auto it = g_localMemoryMap.find(m_name);
    if (it == g_localMemoryMap.end()) return IPC_ERR_NOT_OPENED;
    if (size != 0 && it->second.size != size) return IPC_ERR_PARAM;
    m_data = it->second.data;
    m_size = it->second.size;
    ++it->second.refCount;
    return IPC_OK;
}

int KelLocalMemory::Close() {
    if (m_data == nullptr) return IPC_OK;
    m_data = nullptr;
    m_size = 0;
    {
        std::lock_guard<std::mutex> lock(g_localMemoryMutex);
        auto it = g_localMemoryMap.find(m_name);
        if (it == g_localMemoryMap.end()) {
            KEL_IPC_LOG(kLogPath, "Close", "Memory Pool not exist name=[%s]", m_name.c_str());
        } else if (--it->second.refCount == 0) {
            delete[] it->second.data;
            g_localMemoryMap.erase(it);
        }
    }
    m_name.clear();
    return IPC_OK;
}
