#include "common/TransferSupervisor.h"

#include <KelIpc.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "common/Commands.h"

using Clock = std::chrono::steady_clock;

void TransferSupervisor::StopAndDrain(const std::vector<KelIpcSocket*>& sockets,
                                      const std::function<bool()>& allDone, const std::string& who) {
    for (KelIpcSocket* socket : sockets) socket->Stop();
    const auto grace = Clock::now() + std::chrono::seconds(10);
    while (!allDone()) {
        if (Clock::now() > grace) {
            std::fprintf(stderr, "%s: transfers did not return after Stop\n", who.c_str());
            std::_Exit(kExitFailure);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool TransferSupervisor::ReapChild(pid_t child, std::chrono::seconds wait, const std::string& who) {
    int status = 0;
    for (const auto giveUp = Clock::now() + wait; Clock::now() < giveUp;
         std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        const pid_t rc = waitpid(child, &status, WNOHANG);
        if (rc == child) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
        if (rc < 0 && errno != EINTR) return false;
    }
    std::fprintf(stderr, "%s: the client process did not exit, killing it\n", who.c_str());
    kill(child, SIGKILL);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return false;
}
