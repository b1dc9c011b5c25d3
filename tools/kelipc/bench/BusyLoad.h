#ifndef KELIPC_TOOL_BUSY_LOAD_H
#define KELIPC_TOOL_BUSY_LOAD_H

#include <sys/types.h>

#include <string>
#include <vector>

// Busy loops in child processes, not pinned, that keep the CPUs busy beside a measurement: a loaded
// machine, where a transport's waiting side may lose its CPU. They die with this process (a parent-death
// signal) however it ends, and Stop kills and reaps them.
class BusyLoad {
public:
    BusyLoad() = default;
    ~BusyLoad() { Stop(); }
    BusyLoad(const BusyLoad&) = delete;
    BusyLoad& operator=(const BusyLoad&) = delete;

    bool Start(int count, std::string& error);
    void Stop();
    int Count() const { return static_cast<int>(m_children.size()); }

private:
    std::vector<pid_t> m_children;
};

#endif  // KELIPC_TOOL_BUSY_LOAD_H
