#ifndef KELIPC_TOOL_DEMO_RUNNER_H
#define KELIPC_TOOL_DEMO_RUNNER_H

#include <KelIpc.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/ProgressLine.h"

class DemoEndpoint;
struct DirectionResult;

// Runs the demo: the payload both ways between a server (this process) and a client in a forked child
// over transport Process, then between two threads over transport Local. Every wait is bounded, and a
// signal, a timeout or a lost peer stops the sockets and releases everything before returning.
class DemoRunner {
public:
    struct Config {
        uint64_t size = 0;
        std::string name;
        int block = 262144;
        bool process = true;
        bool local = true;
    };

    explicit DemoRunner(Config config);
    int Run();  // the exit code

private:
    using Clock = std::chrono::steady_clock;

    bool RunProcess();
    bool RunLocal();
    int RunClientProcess(pid_t parent, int fromParent, int toParent);
    int OpenSocket(KelIpcSocket& socket, KelIpcType type, KelSide side) const;
    // progress: the bytes this process has moved so far, of 2 * size per transport.
    bool Supervise(const std::vector<DemoEndpoint*>& ends, const std::vector<KelIpcSocket*>& sockets,
                   Clock::time_point deadline, const std::function<bool()>& peerLost,
                   const std::function<uint64_t()>& progress);
    bool ReapChild() const;
    // A row of the table. A direction that did not move every byte is never OK; why names the cause
    // when no result exists.
    bool Report(const char* transport, const char* direction, const DirectionResult* result,
                const std::string& why = "") const;

    Config m_config;
    Clock::duration m_timeout;
    const char* m_role = "";
    pid_t m_child = -1;
    ProgressLine* m_progress = nullptr;
    uint64_t m_progressBase = 0;  // bytes of the transports already done
    uint64_t m_progressTotal = 0;
    std::string m_stopReason;  // why the last supervision stopped the sockets; empty if it did not
};

#endif  // KELIPC_TOOL_DEMO_RUNNER_H
