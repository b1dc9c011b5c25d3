#ifndef KELIPC_TOOL_TRANSFER_SUPERVISOR_H
#define KELIPC_TOOL_TRANSFER_SUPERVISOR_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

class KelIpcSocket;

// The endgame shared by the commands that run transfer threads beside a child process.
class TransferSupervisor {
public:
    // Stops every socket, which makes every blocked transfer return, then waits up to ten seconds for
    // allDone. Closing while a thread is still inside a transfer would unmap memory under it, so a process
    // whose threads do not return exits at once instead.
    static void StopAndDrain(const std::vector<KelIpcSocket*>& sockets, const std::function<bool()>& allDone,
                             const std::string& who);
    // Waits up to `wait` for the child, then kills and reaps it. True when it exited with status 0.
    static bool ReapChild(pid_t child, std::chrono::seconds wait, const std::string& who);
};

#endif  // KELIPC_TOOL_TRANSFER_SUPERVISOR_H
