#include "KelDateTime.h"

#include <cerrno>
#include <ctime>

void KelSleep(int milliseconds) {
    if (milliseconds <= 0) return;
    timespec left{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
    const int savedErrno = errno;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    errno = savedErrno;
}
