#ifndef KEL_PROCESS_MUTEX_H
#define KEL_PROCESS_MUTEX_H

#include <string>

#include "KelIpcDefine.h"

// The process-mutex type with the standard lockable interface. It excludes nothing: lock and unlock
// return 0 at once, in any thread or process, and the constructor keeps neither argument.
class KELIPC_API KelProcessMutex {
public:
    KelProcessMutex(const std::string& name, void* attributes);
    ~KelProcessMutex();
    KelProcessMutex(const KelProcessMutex&) = delete;
    KelProcessMutex& operator=(const KelProcessMutex&) = delete;

    int lock();
    int unlock();

private:
    void* m_handle;
    std::string m_name;
};

#endif  // KEL_PROCESS_MUTEX_H
