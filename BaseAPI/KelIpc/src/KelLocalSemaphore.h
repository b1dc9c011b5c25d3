#ifndef KEL_LOCAL_SEMAPHORE_H
#define KEL_LOCAL_SEMAPHORE_H

#include <string>

#include "KelIpcDefine.h"
#include "KelSemaphore.h"

// Handle on a KelSemaphore registered by name in this process. The server end creates and registers it,
// client ends find it; the last handle to close destroys it. One owner per handle.
class KelLocalSemaphore {
public:
    KelLocalSemaphore() = default;
    ~KelLocalSemaphore();
    KelLocalSemaphore(const KelLocalSemaphore&) = delete;
    KelLocalSemaphore& operator=(const KelLocalSemaphore&) = delete;

    // IPC_ERR_NULL (null name), IPC_ERR_OPENED (handle open, or a server finds the name registered),
    // IPC_ERR_NOT_OPENED (a client finds no such name), IPC_ERR_PARAM (unknown side).
    int Open(const char* name, KelSide side);
    int Close();  // always IPC_OK
    KelSemaphore* Semaphore() { return m_sem; }

private:
    int ServerOpen(const char* name);
    int ClientOpen(const char* name);

    KelSide m_side = Server;
    KelSemaphore* m_sem = nullptr;
    std::string m_name;
};

#endif  // KEL_LOCAL_SEMAPHORE_H
