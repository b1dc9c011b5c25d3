#include "DemoRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "common/Arguments.h"
#include "common/Commands.h"
#include "common/FastHash.h"
#include "common/ResultText.h"
#include "common/StopSignal.h"
#include "common/TransferSupervisor.h"
#include "demo/DemoEndpoint.h"

using namespace std::chrono_literals;

namespace {

constexpr uint64_t kSeedL = 0x4B656C49706300A1ULL;  // what the client writes
constexpr uint64_t kSeedR = 0x4B656C49706300B2ULL;  // what the server writes

// True once fd is readable (data or end of file); false on a signal or at the deadline.
bool WaitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
    while (!StopSignal::Requested() && std::chrono::steady_clock::now() < deadline) {
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, 50) > 0) return true;
    }
    return false;
}

}  // namespace

DemoRunner::DemoRunner(Config config) : m_config(std::move(config)) {
    // Generous enough for a slow, shared machine: 10 s plus 4 MiB/s, plus the setup of large blocks.
    m_timeout = 10s + std::chrono::seconds(m_config.size / (4 << 20)) +
                std::chrono::seconds(static_cast<uint64_t>(m_config.block) / (32 << 20));
}

int DemoRunner::Run() {
    const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    std::printf("kelipc demo: socket \"%s\", %s each way, block %s\n", m_config.name.c_str(),
                Arguments::SizeText(m_config.size).c_str(), Arguments::SizeText(m_config.block).c_str());
    std::printf(
        "  per direction a writer thread copies 64 KiB chunks of a prepared payload into the socket and a\n"
        "  reader thread checks every chunk by XXH3 (%.1f GB/s on one core here); both directions run at\n"
        "  once, so four busy threads share %ld CPU%s. MiB/s: bytes received over the time from the "
        "reader's\n"
        "  start to its last byte, the check included.\n",
        FastHash::Speed() / 1e9, cpus, cpus == 1 ? "" : "s");
    std::fflush(stdout);
    ProgressLine progress("kelipc demo");
    m_progress = &progress;
    m_progressTotal = 2 * m_config.size * ((m_config.process ? 1 : 0) + (m_config.local ? 1 : 0));
    bool ok = true;
    if (m_config.process) ok = RunProcess() && ok;
    m_progressBase = m_config.process ? 2 * m_config.size : 0;
    if (m_config.local && !StopSignal::Requested()) ok = RunLocal() && ok;
    m_progress = nullptr;
    if (StopSignal::Requested()) {
        std::printf("verdict: INTERRUPTED\n");
        return kExitSignalBase + StopSignal::Number();
    }
    std::printf("verdict: %s\n", ok ? "OK" : "FAILED");
    return ok ? kExitOk : kExitFailure;
}

bool DemoRunner::RunProcess() {
    int toChild[2];
    int toParent[2];
    if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(toParent, O_CLOEXEC) != 0) {
        const std::string why = std::string("pipe: ") + std::strerror(errno);
        return Report("process", "both", nullptr, why);
    }
    std::fflush(nullptr);
    const pid_t parent = getpid();
    m_child = fork();
    if (m_child < 0) return Report("process", "both", nullptr, std::string("fork: ") + std::strerror(errno));
    if (m_child == 0) {
        close(toChild[1]);
        close(toParent[0]);
        std::_Exit(RunClientProcess(parent, toChild[0], toParent[1]));
    }
    close(toChild[0]);
    close(toParent[1]);
    KelIpcSocket server;
    const int rc = OpenSocket(server, Process, Server);
    const auto deadline = Clock::now() + m_timeout;
    std::string why;
    if (rc != IPC_OK)
        why = "the server's Open failed, rc=" + ResultText(rc);
    else if (write(toChild[1], "r", 1) != 1)
        why = "the client process exited before the server was open";
    DirectionResult fromClient{};
    DirectionResult fromServer{};
    bool gotChild = false;
    const bool started = why.empty();
    bool ok = started;
    if (started) {
        DemoEndpoint end(server, m_config.size);
        end.Start(kSeedR, kSeedL);
        // The child holds the write end of toParent until it exits, so a hang-up there means it is gone.
        const int resultFd = toParent[0];
        ok = Supervise(
            {&end}, {&server}, deadline,
            [resultFd] {
                pollfd entry{resultFd, POLLIN, 0};
                return poll(&entry, 1, 0) > 0 && (entry.revents & POLLHUP) != 0;
            },
            [&end] { return end.Sent() + end.ReceivedBytes(); });
        fromClient = end.Received();
        const ssize_t resultSize = sizeof fromServer;
        gotChild = WaitReadable(resultFd, deadline) && read(resultFd, &fromServer, resultSize) == resultSize;
        if (!gotChild) why = "no result from the client process";
    }
    close(toChild[1]);  // the client's cue to close its end and exit
    close(toParent[0]);
    if (StopSignal::Requested()) kill(m_child, SIGTERM);
    const bool childOk = ReapChild();
    server.Close();
    if (!started) {
        Report("process", "client->server", nullptr, why);
        return Report("process", "server->client", nullptr, why);
    }
    ok = Report("process", "client->server", &fromClient) && ok;
    ok = Report("process", "server->client", gotChild ? &fromServer : nullptr, why) && ok;
    return ok && gotChild && childOk;
}

int DemoRunner::RunClientProcess(pid_t parent, int fromParent, int toParent) {
    m_role = " (client process)";
    m_progress = nullptr;
    // The client must not outlive the demo: the parent's death sends SIGTERM, which takes the stop path.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) return kExitFailure;
    // The server's open of a large block takes a while: wait as long as the parent would.
    char ready = 0;
    if (!WaitReadable(fromParent, Clock::now() + m_timeout) || read(fromParent, &ready, 1) != 1)
        return kExitFailure;
    KelIpcSocket client;
    const int rc = OpenSocket(client, Process, Client);
    if (rc != IPC_OK) {
        std::fprintf(stderr, "kelipc demo: the client's Open failed, rc=%d (%s)\n", rc, KelIpcStrError(rc));
        return kExitFailure;
    }
    // A little later than the parent's deadline, so that the parent decides a timeout.
    const auto deadline = Clock::now() + m_timeout + 5s;
    DemoEndpoint end(client, m_config.size);
    end.Start(kSeedL, kSeedR);
    const bool ok = Supervise({&end}, {&client}, deadline, nullptr, nullptr);
    const DirectionResult result = end.Received();
    const bool sent = write(toParent, &result, sizeof result) == static_cast<ssize_t>(sizeof result);
    // Closing stops the rings of both ends: wait until the server has read everything and lets go.
    WaitReadable(fromParent, deadline);
    client.Close();
    return ok && sent && result.verdict == kVerdictOk ? kExitOk : kExitFailure;
}

bool DemoRunner::RunLocal() {
    m_stopReason.clear();
    KelIpcSocket server;
    KelIpcSocket client;
    int rc = OpenSocket(server, Local, Server);
    if (rc == IPC_OK) rc = OpenSocket(client, Local, Client);
    if (rc != IPC_OK) {
        server.Close();
        return Report("local", "both", nullptr, "Open failed, rc=" + std::to_string(rc));
    }
    DemoEndpoint serverEnd(server, m_config.size);
    DemoEndpoint clientEnd(client, m_config.size);
    serverEnd.Start(kSeedR, kSeedL);
    clientEnd.Start(kSeedL, kSeedR);
    bool ok = Supervise({&serverEnd, &clientEnd}, {&server, &client}, Clock::now() + m_timeout, nullptr,
                        [&] { return serverEnd.ReceivedBytes() + clientEnd.ReceivedBytes(); });
    client.Close();
    server.Close();
    ok = Report("local", "client->server", &serverEnd.Received()) && ok;
    return Report("local", "server->client", &clientEnd.Received()) && ok;
}

// Only a Process client retries: it fails until its server has created the shared objects.
int DemoRunner::OpenSocket(KelIpcSocket& socket, KelIpcType type, KelSide side) const {
    int block = m_config.block;
    if (block != 0) {
        int rc = socket.SetOption(LBufferSize, &block);
        if (rc == IPC_OK) rc = socket.SetOption(RBufferSize, &block);
        if (rc != IPC_OK) return rc;
    }
    const auto giveUp = Clock::now() + 5s;
    for (;;) {
        const int rc = socket.Open(type, side, m_config.name.c_str(), nullptr);
        if (rc == IPC_OK || type != Process || side != Client) return rc;
        if (StopSignal::Requested() || Clock::now() > giveUp) return rc;
        std::this_thread::sleep_for(10ms);
    }
}

namespace {

// Whether lost turns true within a short grace.
bool SettlesTrue(const std::function<bool()>& lost) {
    for (int check = 0; check < 20; ++check) {
        if (lost()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace

// A signal, the deadline, a failed transfer or a lost peer stops the sockets, which makes every blocked
// transfer of both ends return; the result is false then.
bool DemoRunner::Supervise(const std::vector<DemoEndpoint*>& ends, const std::vector<KelIpcSocket*>& sockets,
                           Clock::time_point deadline, const std::function<bool()>& peerLost,
                           const std::function<uint64_t()>& progress) {
    auto allDone = [&ends] {
        for (DemoEndpoint* end : ends)
            if (!end->Done()) return false;
        return true;
    };
    auto anyFailed = [&ends] {
        for (DemoEndpoint* end : ends)
            if (end->Failed()) return true;
        return false;
    };
    const char* reason = nullptr;
    while (!reason && !allDone()) {
        // A lost peer first: the transfers it leaves fail with its death at about the same moment.
        if (StopSignal::Requested())
            reason = "interrupted";
        else if (peerLost && peerLost())
            reason = "the client process exited";
        else if (anyFailed())
            // A dead peer's descriptors close before its parent can reap it: give its exit a moment to
            // show, so that the row names the cause rather than its effect.
            reason = peerLost && SettlesTrue(peerLost) ? "the client process exited" : "a transfer failed";
        else if (Clock::now() > deadline)
            reason = "timed out";
        else
            std::this_thread::sleep_for(10ms);
        if (m_progress && progress) m_progress->Bytes(m_progressBase + progress(), m_progressTotal);
    }
    if (m_progress) m_progress->Clear();
    if (!reason && anyFailed()) reason = "a transfer failed";
    if (reason) {
        m_stopReason = reason;
        std::fprintf(stderr, "kelipc demo%s: %s, stopping the socket\n", m_role, reason);
        TransferSupervisor::StopAndDrain(sockets, allDone, std::string("kelipc demo") + m_role);
    }
    for (DemoEndpoint* end : ends) end->Join();
    return reason == nullptr;
}

// Waits up to 5 s for the child, then kills it. True when it exited with status 0.
bool DemoRunner::ReapChild() const {
    return TransferSupervisor::ReapChild(m_child, 5s, "kelipc demo");
}

bool DemoRunner::Report(const char* transport, const char* direction, const DirectionResult* result,
                        const std::string& why) const {
    const DirectionResult none{};
    const DirectionResult& r = result ? *result : none;
    std::string verdict = "OK";
    const std::string cause = !why.empty() ? why : m_stopReason;
    if (r.verdict == kVerdictMismatch)
        verdict = "MISMATCH at byte " + std::to_string(r.mismatchAt);
    else if (!cause.empty() && (r.verdict != kVerdictOk || result == nullptr || r.bytes != m_config.size))
        verdict = "FAILED: " + cause;
    else if (r.verdict == kVerdictFailed)
        verdict = "FAILED: a transfer returned rc=" + std::to_string(r.code);
    else if (result == nullptr || r.bytes != m_config.size)
        verdict = "FAILED: the stream ended early";
    std::printf("  %-8s %-15s %12llu bytes %9.3f s %10.1f MiB/s  %s\n", transport, direction,
                static_cast<unsigned long long>(r.bytes), r.seconds,
                r.bytes / 1048576.0 / std::max(r.seconds, 1e-9), verdict.c_str());
    return verdict == "OK";
}

CommandRun SetupDemo(CLI::App& command) {
    auto config = std::make_shared<DemoRunner::Config>();
    auto transport = std::make_shared<std::string>("both");
    config->size = 256 << 20;
    command.footer(
        "Streams a seeded payload both ways over one socket, between two processes (transport Process)\n"
        "and between two threads (transport Local), checks every byte, and reports bytes, time,\n"
        "throughput and a verdict per direction.");
    command.add_option("--size", config->size, "payload per direction, 1 to 16G (default 256M)")
        ->type_name("BYTES")
        ->transform(Arguments::Size(1, 16ULL << 30));
    Arguments::AddName(command, config->name, "socket name (default kelipc_demo_<pid>)");
    Arguments::AddBlock(command, config->block);
    command.add_option("--transport", *transport, "process, local or both (default both)")
        ->type_name("KIND")
        ->check(Arguments::OneOf({"process", "local", "both"}));
    return [config, transport] {
        if (config->name.empty()) config->name = "kelipc_demo_" + std::to_string(getpid());
        config->process = *transport != "local";
        config->local = *transport != "process";
        if (!StopSignal::Install()) {
            std::perror("kelipc demo: sigaction");
            return kExitFailure;
        }
        return DemoRunner(*config).Run();
    };
}
