#ifndef KEL_LOCAL_MEMORY_H
#define KEL_LOCAL_MEMORY_H

#include <string>

#include "KelIpcDefine.h"

// Handle on a memory pool registered by name in this process: the in-process stand-in for a shared
// segment. The server end allocates and registers the block, client ends of the same size find it; the
// last handle to close frees it. One owner per handle.
class KelLocalMemory {
public:
    KelLocalMemory() = default;
    ~KelLocalMemory();
    KelLocalMemory(const KelLocalMemory&) = delete;
    KelLocalMemory& operator=(const KelLocalMemory&) = delete;

    // IPC_ERR_NULL (null name or size below 1), IPC_ERR_OPENED (handle open, or a server finds the name
    // registered), IPC_ERR_NOT_OPENED (a client finds no such name), IPC_ERR_PARAM (unknown side, or a
    // client size that differs from the pool's). A client's size 0 takes the pool's.
    int Open(const char* name, int size, KelSide side);
    int Close();  // always IPC_OK
    char* Data() { return m_data; }
    int Size() const { return m_size; }

private:
    int ServerOpen(const char* name, int size);
    int ClientOpen(const char* name, int size);

    KelSide m_side = Server;
    char* m_data = nullptr;
    std::string m_name;
    int32_t m_size = 0;
};

#endif  // KEL_LOCAL_MEMORY_H
