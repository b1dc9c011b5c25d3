#include "KelDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "KelIpcLog.h"

int KelDescriptor::AboveStdio(int fd, const char* source, const char* function) {
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int high = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int err = errno;
    if (high < 0) KEL_IPC_LOG(source, function, "fcntl F_DUPFD_CLOEXEC fail, rc=%d, errno=%d", high, err);
    close(fd);
    errno = err;
    return high;
}
