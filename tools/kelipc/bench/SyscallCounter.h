#ifndef KELIPC_TOOL_SYSCALL_COUNTER_H
#define KELIPC_TOOL_SYSCALL_COUNTER_H

#include <string>

// Counts the system calls of the calling thread through the raw_syscalls:sys_enter tracepoint (a perf
// event), a clock-free measure of how often a transfer needs the kernel. Needs tracefs mounted (it is
// looked for, never mounted) and the privilege to open tracepoint events.
class SyscallCounter {
public:
    SyscallCounter() = default;
    ~SyscallCounter();
    SyscallCounter(const SyscallCounter&) = delete;
    SyscallCounter& operator=(const SyscallCounter&) = delete;

    // Whether counting works here; if not, why, in a few words.
    static bool Available(std::string& why);

    // Opens the counter for the calling thread, disabled; false when counting is not possible.
    bool Open();
    void Begin();
    // The calls since Begin, or -1 when the counter is not open.
    long long End();

private:
    int m_fd = -1;
};

#endif  // KELIPC_TOOL_SYSCALL_COUNTER_H
