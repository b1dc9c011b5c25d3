#ifndef KELIPC_TOOL_SOAK_RUNNER_H
#define KELIPC_TOOL_SOAK_RUNNER_H

#include <KelIpc.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "SoakStream.h"
#include "common/ProgressLine.h"

// Runs the soak: for each transport asked for (Process: server here, client in a forked child; Local: two
// threads' sockets in this process) and for each mode (Block, then NonBlock on both directions of both
// ends), records stream both ways at once until the size or the time limit is reached, and every record
// is checked on arrival. A signal, a stalled stream, a failure or a lost peer stops the sockets, and every
// run releases its sockets and reaps its child before the next starts.
class SoakRunner {
public:
    struct Config {
        uint64_t size = 1ULL << 30;  // record bytes per direction per run
        double seconds = 0;          // per run; 0: no limit
        uint64_t seed = 1;
        int block = 262144;
        bool process = true;
        bool local = true;
    };

    explicit SoakRunner(Config config);
    int Run();  // the exit code

private:
    using Clock = std::chrono::steady_clock;

    bool RunProcess(int index, bool nonBlock);
    bool RunLocal(int index, bool nonBlock);
    int RunClientProcess(int index, bool nonBlock, pid_t parent, int fromParent, int toParent);
    SoakStream::Settings StreamSettings(int index, bool nonBlock, KelSide side) const;
    std::string SocketName(int index) const;
    int OpenSocket(KelIpcSocket& socket, KelIpcType type, KelSide side, bool nonBlock,
                   const std::string& name) const;
    bool Supervise(const std::vector<SoakStream*>& streams, const std::vector<KelIpcSocket*>& sockets,
                   const std::function<bool()>& peerLost);
    bool ReapChild() const;
    bool Report(const std::string& run, const char* direction, const SoakResult& result);

    Config m_config;
    const std::string m_name;  // of the parent, so that the child finds its server's sockets
    const char* m_role = "";
    pid_t m_child = -1;
    uint64_t m_bytesL = 0;  // totals over the runs, client->server
    uint64_t m_bytesR = 0;  // and server->client
    ProgressLine* m_progress = nullptr;
    uint64_t m_progressBase = 0;  // bytes of the runs already done
    uint64_t m_progressTotal = 0;
};

#endif  // KELIPC_TOOL_SOAK_RUNNER_H
