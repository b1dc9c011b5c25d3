#include "BusyLoad.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

bool BusyLoad::Start(int count, std::string& error) {
    const pid_t parent = getpid();
    for (int i = 0; i < count; ++i) {
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid < 0) {
            error = std::string("fork: ") + std::strerror(errno);
            Stop();
            return false;
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) std::_Exit(0);
            // The inherited handlers only raise a flag: a Ctrl-C must end a loop at once.
            signal(SIGINT, SIG_DFL);
            signal(SIGTERM, SIG_DFL);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            for (volatile unsigned long spin = 0;; spin = spin + 1) {
            }
        }
        m_children.push_back(pid);
    }
    return true;
}

void BusyLoad::Stop() {
    for (const pid_t pid : m_children) kill(pid, SIGKILL);
    for (const pid_t pid : m_children)
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    m_children.clear();
}
