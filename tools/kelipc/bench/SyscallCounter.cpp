#include "SyscallCounter.h"

#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace {

const char* const kIdFiles[] = {"/sys/kernel/tracing/events/raw_syscalls/sys_enter/id",
                                "/sys/kernel/debug/tracing/events/raw_syscalls/sys_enter/id"};

long long TracepointId() {
    for (const char* path : kIdFiles) {
        std::ifstream file(path);
        long long id = -1;
        if (file >> id) return id;
    }
    return -1;
}

int OpenEvent(long long id) {
    perf_event_attr attr;
    std::memset(&attr, 0, sizeof attr);
    attr.type = PERF_TYPE_TRACEPOINT;
    attr.size = sizeof attr;
    attr.config = static_cast<unsigned long long>(id);
    attr.disabled = 1;
    // This thread only (pid 0), on whatever CPU it runs (-1).
    return static_cast<int>(syscall(SYS_perf_event_open, &attr, 0, -1, -1, PERF_FLAG_FD_CLOEXEC));
}

}  // namespace

SyscallCounter::~SyscallCounter() {
    if (m_fd >= 0) close(m_fd);
}

bool SyscallCounter::Available(std::string& why) {
    const long long id = TracepointId();
    if (id < 0) {
        why =
            "no raw_syscalls:sys_enter tracepoint under /sys/kernel/tracing or /sys/kernel/debug/tracing "
            "(tracefs not mounted?)";
        return false;
    }
    const int fd = OpenEvent(id);
    if (fd < 0) {
        why = std::string("perf_event_open of raw_syscalls:sys_enter: ") + std::strerror(errno) +
              " (needs privilege, or a lower /proc/sys/kernel/perf_event_paranoid)";
        return false;
    }
    close(fd);
    return true;
}

bool SyscallCounter::Open() {
    const long long id = TracepointId();
    if (id >= 0 && m_fd < 0) m_fd = OpenEvent(id);
    return m_fd >= 0;
}

void SyscallCounter::Begin() {
    if (m_fd < 0) return;
    ioctl(m_fd, PERF_EVENT_IOC_RESET, 0);
    ioctl(m_fd, PERF_EVENT_IOC_ENABLE, 0);
}

long long SyscallCounter::End() {
    if (m_fd < 0) return -1;
    ioctl(m_fd, PERF_EVENT_IOC_DISABLE, 0);
    long long count = 0;
    // The disabling call was counted on its way in; it is not the transfer's.
    if (read(m_fd, &count, sizeof count) != static_cast<ssize_t>(sizeof count)) return -1;
    return count > 0 ? count - 1 : 0;
}
