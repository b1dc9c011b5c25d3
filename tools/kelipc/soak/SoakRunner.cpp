#include "SoakRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>

#include "common/Arguments.h"
#include "common/Commands.h"
#include "common/StopSignal.h"
#include "common/TransferSupervisor.h"

using namespace std::chrono_literals;

namespace {

// A stream that moves no byte for this long has hung; on a loaded machine a healthy one moves every
// millisecond or so.
constexpr auto kStallLimit = 60s;
// Bounds the waits between the two processes around a run: for the start, the client's result, the exit.
constexpr auto kHandshakeLimit = 60s;

uint64_t Mix(uint64_t z) {
    z += 0x9E3779B97F4A7C15ULL;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

// True once fd is readable (data or end of file); false at the deadline, or on a signal unless told to
// wait through it.
bool WaitReadable(int fd, std::chrono::steady_clock::time_point deadline, bool throughSignal = false) {
    while ((throughSignal || !StopSignal::Requested()) && std::chrono::steady_clock::now() < deadline) {
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, 50) > 0) return true;
    }
    return false;
}

std::string RunName(const char* transport, bool nonBlock) {
    return std::string(transport) + (nonBlock ? "/NonBlock" : "/Block");
}

SoakResult MissingResult(const char* why) {
    SoakResult result{};
    result.verdict = kSoakFailed;
    std::snprintf(result.detail, sizeof result.detail, "%s", why);
    return result;
}

}  // namespace

SoakRunner::SoakRunner(Config config)
    : m_config(std::move(config)), m_name("kelipc_soak_" + std::to_string(getpid())) {}

int SoakRunner::Run() {
    char limit[64] = "";
    if (m_config.seconds > 0) std::snprintf(limit, sizeof limit, " or %g s", m_config.seconds);
    std::printf("kelipc soak: %llu bytes%s each way per run, block %d bytes (chunk %d), seed %llu\n",
                static_cast<unsigned long long>(m_config.size), limit, m_config.block, m_config.block / 50,
                static_cast<unsigned long long>(m_config.seed));
    const auto begin = Clock::now();
    // This process sees both directions of its own end: twice the size per Process run, and both ends'
    // four times per Local run.
    ProgressLine progress("kelipc soak");
    m_progress = &progress;
    m_progressTotal = 2 * 2 * m_config.size * ((m_config.process ? 1 : 0) + (m_config.local ? 2 : 0));
    bool ok = true;
    int index = 0;
    for (const bool process : {true, false}) {
        if (process ? !m_config.process : !m_config.local) continue;
        for (const bool nonBlock : {false, true}) {
            if (StopSignal::Requested()) break;
            ok = (process ? RunProcess(index, nonBlock) : RunLocal(index, nonBlock)) && ok;
            m_progressBase += (process ? 2 : 4) * m_config.size;
            ++index;
        }
    }
    m_progress = nullptr;
    std::printf("total: %d runs, %llu bytes client->server, %llu bytes server->client, %.3f s\n", index,
                static_cast<unsigned long long>(m_bytesL), static_cast<unsigned long long>(m_bytesR),
                std::chrono::duration<double>(Clock::now() - begin).count());
    if (StopSignal::Requested()) {
        std::printf("verdict: INTERRUPTED\n");
        return kExitSignalBase + StopSignal::Number();
    }
    std::printf("verdict: %s\n", ok ? "OK" : "FAILED");
    return ok ? kExitOk : kExitFailure;
}

bool SoakRunner::RunProcess(int index, bool nonBlock) {
    const std::string run = RunName("process", nonBlock);
    int toChild[2];
    int toParent[2];
    if (pipe2(toChild, O_CLOEXEC) != 0) {
        std::perror("kelipc soak: pipe");
        return false;
    }
    if (pipe2(toParent, O_CLOEXEC) != 0) {
        std::perror("kelipc soak: pipe");
        close(toChild[0]);
        close(toChild[1]);
        return false;
    }
    std::fflush(nullptr);
    const pid_t parent = getpid();
    m_child = fork();
    if (m_child == 0) {
        close(toChild[1]);
        close(toParent[0]);
        std::_Exit(RunClientProcess(index, nonBlock, parent, toChild[0], toParent[1]));
    }
    close(toChild[0]);
    close(toParent[1]);
    if (m_child < 0) {
        std::perror("kelipc soak: fork");
        close(toChild[1]);
        close(toParent[0]);
        return false;
    }
    KelIpcSocket server;
    const int rc = OpenSocket(server, Process, Server, nonBlock, SocketName(index));
    if (rc != IPC_OK)
        std::fprintf(stderr, "kelipc soak: server Open failed, rc=%d (%s)\n", rc, KelIpcStrError(rc));
    bool ok = rc == IPC_OK && write(toChild[1], "r", 1) == 1;
    SoakResult fromClient = MissingResult("the server did not start");
    SoakResult fromServer = MissingResult("no result from the client process");
    bool gotChild = false;
    if (ok) {
        SoakStream stream(server, StreamSettings(index, nonBlock, Server));
        stream.Start();
        // The child holds the write end of toParent until it exits, so a hang-up there means it is gone.
        const int resultFd = toParent[0];
        ok = Supervise({&stream}, {&server}, [resultFd] {
            pollfd entry{resultFd, POLLIN, 0};
            return poll(&entry, 1, 0) > 0 && (entry.revents & POLLHUP) != 0;
        });
        fromClient = stream.Received();
        const ssize_t resultSize = sizeof fromServer;
        // Stopped, the client reports at once; after a signal, wait only briefly for that.
        const auto limit = StopSignal::Requested() ? Clock::duration(5s) : Clock::duration(kHandshakeLimit);
        gotChild = WaitReadable(resultFd, Clock::now() + limit, true) &&
                   read(resultFd, &fromServer, resultSize) == resultSize;
        if (!gotChild) fromServer = MissingResult("no result from the client process");
    }
    close(toChild[1]);  // the client's cue to close its end and exit
    close(toParent[0]);
    if (StopSignal::Requested()) kill(m_child, SIGTERM);
    const bool childOk = ReapChild();
    server.Close();
    ok = Report(run, "client->server", fromClient) && ok;
    ok = Report(run, "server->client", fromServer) && ok;
    if (!childOk && gotChild && fromServer.verdict == kSoakOk) {
        std::printf("      the client process failed after its check\n");
        std::fflush(stdout);
    }
    return ok && gotChild && childOk;
}

int SoakRunner::RunClientProcess(int index, bool nonBlock, pid_t parent, int fromParent, int toParent) {
    m_role = " (client process)";
    m_progress = nullptr;
    // The client must not outlive the soak: the parent's death sends SIGTERM, which takes the stop path.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) return kExitFailure;
    char ready = 0;
    if (!WaitReadable(fromParent, Clock::now() + kHandshakeLimit) || read(fromParent, &ready, 1) != 1)
        return kExitFailure;
    KelIpcSocket client;
    const int rc = OpenSocket(client, Process, Client, nonBlock, SocketName(index));
    if (rc != IPC_OK) {
        std::fprintf(stderr, "kelipc soak: client Open failed, rc=%d (%s)\n", rc, KelIpcStrError(rc));
        return kExitFailure;
    }
    SoakStream stream(client, StreamSettings(index, nonBlock, Client));
    stream.Start();
    // After the start byte the parent only closes the pipe: readable again means it is done or gone.
    const bool ok = Supervise({&stream}, {&client}, [fromParent] {
        pollfd entry{fromParent, POLLIN, 0};
        return poll(&entry, 1, 0) > 0;
    });
    const SoakResult result = stream.Received();
    const bool sent = write(toParent, &result, sizeof result) == static_cast<ssize_t>(sizeof result);
    // Closing stops the rings of both ends: wait until the server has read everything and lets go.
    WaitReadable(fromParent, Clock::now() + kHandshakeLimit);
    client.Close();
    return ok && sent && result.verdict == kSoakOk ? kExitOk : kExitFailure;
}

bool SoakRunner::RunLocal(int index, bool nonBlock) {
    const std::string run = RunName("local", nonBlock);
    KelIpcSocket server;
    KelIpcSocket client;
    int rc = OpenSocket(server, Local, Server, nonBlock, SocketName(index));
    if (rc == IPC_OK) rc = OpenSocket(client, Local, Client, nonBlock, SocketName(index));
    if (rc != IPC_OK) {
        std::fprintf(stderr, "kelipc soak: local Open failed, rc=%d (%s)\n", rc, KelIpcStrError(rc));
        server.Close();
        Report(run, "client->server", MissingResult("the sockets did not open"));
        return false;
    }
    SoakStream serverEnd(server, StreamSettings(index, nonBlock, Server));
    SoakStream clientEnd(client, StreamSettings(index, nonBlock, Client));
    serverEnd.Start();
    clientEnd.Start();
    bool ok = Supervise({&serverEnd, &clientEnd}, {&server, &client}, nullptr);
    client.Close();
    server.Close();
    ok = Report(run, "client->server", serverEnd.Received()) && ok;
    return Report(run, "server->client", clientEnd.Received()) && ok;
}

// Every run and direction gets its own seeds, all derived from the one given.
SoakStream::Settings SoakRunner::StreamSettings(int index, bool nonBlock, KelSide side) const {
    const uint64_t base = Mix(m_config.seed) ^ (static_cast<uint64_t>(index) << 8);
    const uint64_t clientWrites = Mix(base + 1);
    const uint64_t serverWrites = Mix(base + 2);
    SoakStream::Settings settings;
    settings.size = m_config.size;
    if (m_config.seconds > 0)
        settings.deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                               std::chrono::duration<double>(m_config.seconds));
    settings.chunk = m_config.block / 50;
    settings.nonBlock = nonBlock;
    settings.sendSeed = side == Server ? serverWrites : clientWrites;
    settings.recvSeed = side == Server ? clientWrites : serverWrites;
    settings.readSeed = Mix(base + (side == Server ? 3 : 4));
    return settings;
}

std::string SoakRunner::SocketName(int index) const {
    return m_name + "_" + std::to_string(index);
}

// Only a Process client retries: it fails until its server has created the shared objects.
int SoakRunner::OpenSocket(KelIpcSocket& socket, KelIpcType type, KelSide side, bool nonBlock,
                           const std::string& name) const {
    int block = m_config.block;
    int rc = socket.SetOption(LBufferSize, &block);
    if (rc == IPC_OK) rc = socket.SetOption(RBufferSize, &block);
    int unused = 1;
    if (rc == IPC_OK && nonBlock) rc = socket.SetOption(LNonBlock, &unused);
    if (rc == IPC_OK && nonBlock) rc = socket.SetOption(RNonBlock, &unused);
    if (rc != IPC_OK) return rc;
    const auto giveUp = Clock::now() + 5s;
    for (;;) {
        rc = socket.Open(type, side, name.c_str(), nullptr);
        if (rc == IPC_OK || type != Process || side != Client) return rc;
        if (StopSignal::Requested() || Clock::now() > giveUp) return rc;
        std::this_thread::sleep_for(10ms);
    }
}

// A signal, a stall, a failed transfer or check, or a lost peer stops the sockets, which makes every
// blocked transfer of both ends return; the result is false then.
bool SoakRunner::Supervise(const std::vector<SoakStream*>& streams, const std::vector<KelIpcSocket*>& sockets,
                           const std::function<bool()>& peerLost) {
    auto allDone = [&streams] {
        return std::all_of(streams.begin(), streams.end(), [](SoakStream* stream) { return stream->Done(); });
    };
    auto anyFailed = [&streams] {
        return std::any_of(streams.begin(), streams.end(),
                           [](SoakStream* stream) { return stream->Failed(); });
    };
    auto progress = [&streams] {
        uint64_t sum = 0;
        for (SoakStream* stream : streams) sum += stream->Progress();
        return sum;
    };
    uint64_t lastProgress = progress();
    auto lastMove = Clock::now();
    const char* reason = nullptr;
    while (!reason && !allDone()) {
        const uint64_t now = progress();
        if (m_progress) m_progress->Bytes(m_progressBase + now, m_progressTotal);
        if (now != lastProgress) {
            lastProgress = now;
            lastMove = Clock::now();
        }
        if (StopSignal::Requested())
            reason = "interrupted";
        else if (anyFailed())
            reason = "a transfer or a check failed";
        else if (Clock::now() - lastMove > kStallLimit)
            reason = "no byte moved for 60 s";
        else if (peerLost && peerLost())
            reason = "the peer process is gone";
        else
            std::this_thread::sleep_for(10ms);
    }
    if (m_progress) m_progress->Clear();
    if (!reason && anyFailed()) reason = "a transfer or a check failed";
    if (reason) {
        std::fprintf(stderr, "kelipc soak%s: %s, stopping the socket\n", m_role, reason);
        TransferSupervisor::StopAndDrain(sockets, allDone, std::string("kelipc soak") + m_role);
    }
    for (SoakStream* stream : streams) {
        stream->Join();
        if (!stream->WriteError().empty())
            std::fprintf(stderr, "kelipc soak%s: writer: %s\n", m_role, stream->WriteError().c_str());
    }
    return reason == nullptr;
}

// Waits a while for the child, then kills it. True when it exited with status 0.
bool SoakRunner::ReapChild() const {
    return TransferSupervisor::ReapChild(m_child, 10s, "kelipc soak");
}

bool SoakRunner::Report(const std::string& run, const char* direction, const SoakResult& result) {
    const char* verdict = "OK";
    if (result.verdict == kSoakFailed && StopSignal::Requested())
        verdict = "INTERRUPTED";
    else if (result.verdict == kSoakFault)
        verdict = "FAILED (stream check)";
    else if (result.verdict != kSoakOk)
        verdict = "FAILED (transfer)";
    (direction[0] == 'c' ? m_bytesL : m_bytesR) += result.bytes;
    std::printf("  %-17s %-15s %12llu bytes %9llu records %9.3f s %8.1f MiB/s  %s\n", run.c_str(), direction,
                static_cast<unsigned long long>(result.bytes),
                static_cast<unsigned long long>(result.records), result.seconds,
                result.bytes / 1048576.0 / std::max(result.seconds, 1e-9), verdict);
    if (result.verdict != kSoakOk) std::printf("      %s\n", result.detail);
    std::fflush(stdout);
    return result.verdict == kSoakOk;
}

CommandRun SetupSoak(CLI::App& command) {
    auto config = std::make_shared<SoakRunner::Config>();
    auto transport = std::make_shared<std::string>("both");
    command.footer(
        "Long-run check of the byte stream: for each transport and for the Block and NonBlock modes,\n"
        "streams numbered, checksummed records both ways at once in writes and reads of random sizes,\n"
        "cycling through Write/BlockWrite/NonBlockWrite and Read/BlockRead/NonBlockRead, and stops at\n"
        "the first record lost, duplicated, reordered or corrupted. Reports each run and a verdict.");
    command
        .add_option("--size", config->size, "record bytes per direction per run, 1K to 1024G (default 1G)")
        ->type_name("BYTES")
        ->transform(Arguments::Size(1 << 10, 1ULL << 40));
    command
        .add_option("--time", config->seconds,
                    "end each run after this long if the size is not reached; 0: no limit (default)")
        ->type_name("SECONDS")
        ->check(Arguments::Seconds(0, 1e7));
    command.add_option("--transport", *transport, "process, local or both (default both)")
        ->type_name("KIND")
        ->check(Arguments::OneOf({"process", "local", "both"}));
    command
        .add_option("--seed", config->seed, "seed of record lengths, transfer sizes and payloads (default 1)")
        ->type_name("N")
        ->check(Arguments::Count(0, UINT64_MAX));
    Arguments::AddBlock(command, config->block);
    return [config, transport] {
        config->process = *transport != "local";
        config->local = *transport != "process";
        if (!StopSignal::Install()) {
            std::perror("kelipc soak: sigaction");
            return kExitFailure;
        }
        return SoakRunner(*config).Run();
    };
}
