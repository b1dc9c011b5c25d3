#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "KelCycleBuffer.h"
#include "KelIpc.h"
#include "KelShareMemory.h"
#include "KelSystemSemaphore.h"
#include "TestSupport.h"
#include "unix/KelPeerToken.h"

namespace {

constexpr int kBlock = 65536;                   // small rings: even a short stream wraps them many times
constexpr int kBound = 10000;                   // ms for any wait on another thread or process
constexpr int64_t kEndless = int64_t{1} << 40;  // a stream that only a kill or a stop ends
constexpr uint64_t kRBase = uint64_t{1} << 32;  // R carries another stretch of the pattern than L
constexpr int kShortStream = 40000;             // fits a ring whole: each end writes all, then reads
const char* const kObjects[] = {"_XL_shm", "_XR_shm", "_XL_ssm", "_XR_ssm"};

int OpenEnd(KelIpcSocket& socket, KelSide side, const std::string& name,
            const KelSecurity* security = nullptr) {
    int size = kBlock;
    socket.SetOption(LBufferSize, &size);
    socket.SetOption(RBufferSize, &size);
    return socket.Open(Process, side, name.c_str(), security);
}

// A server end written from the published format alone, holding no token; each step false on a failure.
struct BareServer {
    KelShareMemory memory[2];
    KelSystemSemaphore sem[2];
    KelCycleBuffer ring[2];
    bool Open(const std::string& name) {
        for (int i = 0; i < 2; ++i) {
            const std::string channel = name + (i == 0 ? "_XL" : "_XR");
            if (memory[i].Open((channel + "_shm").c_str(), kBlock, Server, nullptr) != IPC_OK ||
                sem[i].Open((channel + "_ssm").c_str(), Server, nullptr) != IPC_OK)
                return false;
        }
        return true;
    }
    bool SetUpRings() {
        return ring[0].AttachIpc(memory[0].Data(), kBlock, Server, Block, &sem[0]) == IPC_OK &&
               ring[1].AttachIpc(memory[1].Data(), kBlock, Server, Block, &sem[1]) == IPC_OK;
    }
};

// The permission bits of a segment or semaphore set; -1 when it is missing.
int ModeOf(const std::string& object) {
    struct stat st {};
    struct semid_ds ds {};
    if (object.compare(object.size() - 4, 4, "_shm") == 0)
        return stat(("/dev/shm/" + object).c_str(), &st) == 0 ? int(st.st_mode & 0777) : -1;
    const int id = semget(kt::Djb2Key(object), 1, 0);
    return id >= 0 && semctl(id, 0, IPC_STAT, &ds) == 0 ? int(ds.sem_perm.mode & 0777) : -1;
}

struct Flow {
    int64_t bytes = 0;
    bool intact = true;
    int code = IPC_OK;  // the failing transfer's result; IPC_OK when the whole stream passed
};

// Sends, or receives and checks, total bytes of the pattern from base on. A receiver ends at the first
// wrong byte, so that a child that is killed later has already told.
Flow Transfer(KelIpcSocket& socket, bool sending, uint64_t base, int piece, int64_t total) {
    Flow flow;
    while (flow.bytes < total && flow.intact) {
        const int n = static_cast<int>(std::min<int64_t>(piece, total - flow.bytes));
        std::vector<char> bytes = sending ? kt::Pattern(n, base + flow.bytes) : std::vector<char>(n);
        const int rc = sending ? socket.Write(bytes.data(), n) : socket.Read(bytes.data(), n);
        if (rc <= 0) {
            flow.code = rc;
            break;
        }
        // A short count ends a call early: the bytes it moved count, the next call tells why.
        const int64_t wrong = sending ? -1 : kt::FirstWrong(bytes.data(), rc, base + flow.bytes);
        flow.intact = wrong < 0;
        flow.bytes += flow.intact ? rc : wrong;
    }
    return flow;
}

// A transfer thread of this process that nothing releases would hang the suite: after the bound a Stop
// of its socket is tried once, and a thread still blocked after that ends the run.
template <typename T>
T Settle(std::future<T>& transfer, KelIpcSocket* socket, const char* what) {
    if (!kt::Ready(transfer, kBound)) {
        ADD_FAILURE() << what << " did not return in time";
        if (socket != nullptr) socket->Stop();
        if (!kt::Ready(transfer, kBound)) {
            std::fprintf(stderr, "%s is still blocked; aborting\n", what);
            std::abort();
        }
    }
    return transfer.get();
}

// What a forked child tells the test process; a killed child cannot report through its exit code.
struct Notes {
    std::atomic<int64_t> written{0};  // bytes of the stream connection's completed writes
};

template <typename T>
struct Unmap {
    void operator()(T* shared) const { munmap(shared, sizeof(T)); }
};

// A T that forked children share with the test process.
template <typename T>
std::unique_ptr<T, Unmap<T>> Shared() {
    void* at = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return std::unique_ptr<T, Unmap<T>>(at == MAP_FAILED ? nullptr : new (at) T);
}

// One kill ends four connections, each with the survivor in another state: blocked in Read, blocked in
// Write on a full ring, idle, and streaming both ways.
enum Connection { kReading, kFull, kIdle, kStreaming, kConnections };

// The end that will be killed: holds the four connections and streams on the last until the kill.
int HoldUntilKilled(const std::vector<std::string>& names, KelSide side, Notes* notes) {
    std::vector<KelIpcSocket> sockets(kConnections);
    for (int i = 0; i < kConnections; ++i) {
        if (OpenEnd(sockets[i], side, names[i]) != IPC_OK) return 2;
    }
    kt::TellReady();
    KelIpcSocket& stream = sockets[kStreaming];
    std::thread reader([&] { Transfer(stream, false, side == Server ? 0 : kRBase, 3000, kEndless); });
    for (int64_t done = 0;; done += 3000) {
        const uint64_t at = (side == Server ? kRBase : 0) + done;
        const std::vector<char> piece = kt::Pattern(3000, at);
        if (stream.Write(piece.data(), 3000) != 3000) break;
        notes->written.store(done + 3000);
    }
    reader.join();
    return 0;
}

// Reads or writes until a call fails; a short count is a normal end of a call before the code.
int UntilFailure(KelIpcSocket& socket, bool writing) {
    std::vector<char> bytes(3 * kBlock);
    for (;;) {
        const int rc = writing ? socket.Write(bytes.data(), 3 * kBlock) : socket.Read(bytes.data(), 100);
        if (rc <= 0) return rc;
    }
}

void KillTrial(KelSide killed, std::mt19937& random, Notes* notes) {
    std::vector<std::string> names;
    for (int i = 0; i < kConnections; ++i) names.push_back(kt::UniqueName("kill"));
    notes->written.store(0);
    const KelSide kept = killed == Server ? Client : Server;
    std::vector<KelIpcSocket> survivor(kConnections);
    if (kept == Server) {
        for (int i = 0; i < kConnections; ++i) ASSERT_EQ(IPC_OK, OpenEnd(survivor[i], Server, names[i]));
    }
    kt::Child child([&] { return HoldUntilKilled(names, killed, notes); });
    ASSERT_TRUE(child.WaitReady(kBound));
    if (kept == Client) {
        for (int i = 0; i < kConnections; ++i) ASSERT_EQ(IPC_OK, OpenEnd(survivor[i], Client, names[i]));
    }
    auto reading = std::async(std::launch::async, [&] { return UntilFailure(survivor[kReading], false); });
    auto full = std::async(std::launch::async, [&] { return UntilFailure(survivor[kFull], true); });
    KelIpcSocket& stream = survivor[kStreaming];
    const uint64_t in = kept == Server ? 0 : kRBase;
    auto sent =
        std::async(std::launch::async, [&] { return Transfer(stream, true, kRBase - in, 2000, kEndless); });
    auto received =
        std::async(std::launch::async, [&] { return Transfer(stream, false, in, 2000, kEndless); });
    std::this_thread::sleep_for(std::chrono::milliseconds(std::uniform_int_distribution<int>(5, 40)(random)));
    child.Kill();
    const int64_t writtenBeforeDeath = notes->written.load();
    auto idle = std::async(std::launch::async, [&] {
        return kt::WaitUntil([&] { return survivor[kIdle].DataSize() == IPC_ERR_PEER_GONE; }, kBound);
    });
    EXPECT_EQ(IPC_ERR_PEER_GONE, Settle(reading, &survivor[kReading], "the blocked read"));
    EXPECT_EQ(IPC_ERR_PEER_GONE, Settle(full, &survivor[kFull], "the blocked write"));
    EXPECT_TRUE(Settle(idle, nullptr, "the idle end's DataSize"));
    char byte = 0;
    EXPECT_EQ(IPC_ERR_PEER_GONE, survivor[kIdle].Read(&byte, 1));
    int wrote = 1;  // a writer that finds room asks every sixteenth call
    for (int call = 0; call < 16 && wrote == 1; ++call) wrote = survivor[kIdle].Write(&byte, 1);
    EXPECT_EQ(IPC_ERR_PEER_GONE, wrote);
    EXPECT_EQ(IPC_ERR_PEER_GONE, survivor[kIdle].SpaceSize());
    const Flow out = Settle(sent, &stream, "the streaming write");
    const Flow got = Settle(received, &stream, "the streaming read");
    EXPECT_EQ(IPC_ERR_PEER_GONE, out.code);
    EXPECT_EQ(IPC_ERR_PEER_GONE, got.code);
    EXPECT_TRUE(got.intact) << "wrong byte at " << got.bytes;
    EXPECT_LE(writtenBeforeDeath, got.bytes) << "bytes the dead end had written were lost";
    for (KelIpcSocket& socket : survivor) EXPECT_EQ(IPC_OK, socket.Close());
    if (killed == Server) {
        // The dead server's objects are reclaimed by the next server of each name.
        for (const std::string& name : names) {
            KelIpcSocket next;
            EXPECT_EQ(IPC_OK, OpenEnd(next, Server, name));
        }
    }
    for (const std::string& name : names) EXPECT_EQ(0, kt::ChannelObjects(name));
}

void RunKillTrials(KelSide killed, uint32_t seed) {
    constexpr int kKills = 100;
    kt::LogCapture log;
    const auto notes = Shared<Notes>();
    ASSERT_NE(nullptr, notes);
    std::mt19937 random(seed);
    for (int trial = 0; trial < kKills && !testing::Test::HasFailure(); ++trial) {
        SCOPED_TRACE("trial " + std::to_string(trial));
        KillTrial(killed, random, notes.get());
    }
    // A peer's death is no failure of the survivor's calls: none of them has anything to log.
    for (const KelLogRecord& record : log.Records()) ADD_FAILURE() << "logged: " << record.message;
}

}  // namespace

TEST(KelReliabilityCrash, EveryStateOfAServerLearnsOfItsKilledClientAfterEveryByteItHadWritten) {
    RunKillTrials(Client, 20240611u);
}

TEST(KelReliabilityCrash, EveryStateOfAClientLearnsOfItsKilledServerAfterEveryByteItHadWritten) {
    RunKillTrials(Server, 20240612u);
}

namespace {

constexpr int kStormBytes = 8 << 20;
constexpr int64_t kStretch = 256 << 10;  // the far end pauses after each, so that this end waits

std::atomic<int> g_signals{0};
static_assert(std::atomic<int>::is_always_lock_free, "counted inside a signal handler");

void CountSignal(int) {
    g_signals.fetch_add(1, std::memory_order_relaxed);
}

// One end streams kStormBytes to the other in a single blocking call under the storm; the far end, in a
// child, moves them in stretches with pauses, so that the storm's end waits and is interrupted there.
void StormTrial(bool reading) {
    const std::string name = kt::UniqueName("storm");
    kt::LogCapture log;  // an interrupted wait is the library's own to retry: nothing to log
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
    const uint64_t base = reading ? 0 : kRBase;
    kt::Child far([&] {
        KelIpcSocket client;
        if (OpenEnd(client, Client, name) != IPC_OK) return 2;
        for (int64_t done = 0; done < kStormBytes; done += kStretch) {
            const Flow flow = Transfer(client, reading, base + done, 4000, kStretch);
            if (flow.code != IPC_OK || !flow.intact) return 3;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        char done = 0;  // the storm's end has taken every byte before the client closes
        return !reading || client.Read(&done, 1) == 1 ? 0 : 4;
    });
    std::vector<char> bytes = reading ? std::vector<char>(kStormBytes) : kt::Pattern(kStormBytes, base);
    // SIGUSR1 to the transfer's thread every millisecond; without SA_RESTART every wait of that thread may
    // end early with EINTR.
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = CountSignal;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
    g_signals.store(0);
    std::packaged_task<int()> task([&] {
        return reading ? server.BlockRead(bytes.data(), kStormBytes)
                       : server.BlockWrite(bytes.data(), kStormBytes);
    });
    std::future<int> result = task.get_future();
    std::thread worker(std::move(task));
    std::atomic<bool> calm{false};
    std::thread storm([&] {
        for (; !calm.load(); std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
            pthread_kill(worker.native_handle(), SIGUSR1);
        }
    });
    const int rc = Settle(result, &server, reading ? "the blocking read" : "the blocking write");
    calm.store(true);
    storm.join();
    worker.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_GT(g_signals.load(), 0) << "no signal reached the transfer";
    EXPECT_EQ(kStormBytes, rc);
    EXPECT_EQ(-1, kt::FirstWrong(bytes.data(), bytes.size(), base));
    // The writer's pauses put the reader to sleep on the semaphore, where the signals cut its waits short.
    for (const KelLogRecord& record : log.Records()) ADD_FAILURE() << "logged: " << record.message;
    if (reading) {
        EXPECT_EQ(1, server.Write("x", 1));
    }
    EXPECT_EQ(0, far.Wait(kBound));
    EXPECT_EQ(IPC_OK, server.Close());
    EXPECT_EQ(0, kt::ChannelObjects(name));
}

}  // namespace

// A non-blocking caller learns of a death as surely as a blocking one: a read gets what the dead writer
// left as a short count, then the code; a write into the dead reader's full ring gets the code from then
// on, not only at the cadence at which a writer with room asks.
TEST(KelReliabilityCrash, NonBlockingCallsLearnOfAKilledPeerAfterWhatItLeft) {
    const std::string name = kt::UniqueName("nbdead");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
    const std::vector<char> bytes = kt::Pattern(kBlock);
    const int room = kBlock - 9024 - 1;
    ASSERT_EQ(room, server.NonBlockWrite(bytes.data(), room));
    kt::Child client([&] {
        KelIpcSocket end;
        if (OpenEnd(end, Client, name) != IPC_OK || end.Write(bytes.data(), 10) != 10) return 1;
        kt::TellReady();
        for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
    });
    ASSERT_TRUE(client.WaitReady(kBound));
    client.Kill();
    client.Wait(kBound);
    std::vector<char> got(64);
    int rc = 0;
    EXPECT_TRUE(kt::WaitUntil([&] { return (rc = server.NonBlockRead(got.data(), 64)) != 0; }, kBound));
    EXPECT_EQ(10, rc);
    EXPECT_EQ(-1, kt::FirstWrong(got.data(), 10, 0));
    EXPECT_EQ(IPC_ERR_PEER_GONE, server.NonBlockRead(got.data(), 64));
    EXPECT_EQ(IPC_ERR_PEER_GONE, server.DataSize());
    EXPECT_TRUE(
        kt::WaitUntil([&] { return server.NonBlockWrite(bytes.data(), 1) == IPC_ERR_PEER_GONE; }, kBound));
    for (int call = 0; call < 32; ++call) EXPECT_EQ(IPC_ERR_PEER_GONE, server.NonBlockWrite(bytes.data(), 1));
}

// Write, then Close, as with a socket: with a linger a slow reader in the other process still gets every
// byte, then the end of the stream, in either direction; a linger that runs out closes all the same, says
// so, and does not let the reader take the lost tail for a clean end.
TEST(KelReliabilityLinger, WriteThenCloseWithALingerLosesNothingToASlowReader) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr int64_t kTotal = int64_t{64} << 20;  // instrumented builds move bytes many times slower
#else
    constexpr int64_t kTotal = int64_t{1} << 30;
#endif
    for (KelSide writer : {Client, Server}) {
        SCOPED_TRACE(writer == Client ? "the client writes" : "the server writes");
        const std::string name = kt::UniqueName("linger");
        KelIpcSocket server;
        int linger = 60000;
        ASSERT_EQ(IPC_OK, server.SetOption(CloseLinger, &linger));
        ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
        // The reader starts late and takes small pieces: the writer's Close finds most of a ring unread.
        auto transfer = [&](KelIpcSocket& end, bool sending) {
            if (sending) {
                const Flow sent = Transfer(end, true, 0, 1 << 20, kTotal);
                return sent.bytes == kTotal && end.Close() == IPC_OK ? 0 : 1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            const Flow got = Transfer(end, false, 0, 4096, kEndless);
            return got.bytes == kTotal && got.intact && got.code == IPC_ERR_PEER_CLOSED ? 0 : 2;
        };
        kt::Child client([&] {
            KelIpcSocket end;
            if (end.SetOption(CloseLinger, &linger) != IPC_OK || OpenEnd(end, Client, name) != IPC_OK)
                return 3;
            return transfer(end, writer == Client);
        });
        EXPECT_EQ(0, transfer(server, writer == Server));
        EXPECT_EQ(0, client.Wait(60000));
    }
    const std::string name = kt::UniqueName("linger");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
    kt::Child client([&] {
        KelIpcSocket end;
        int brief = 100;
        const std::vector<char> bytes = kt::Pattern(kBlock);
        if (end.SetOption(CloseLinger, &brief) != IPC_OK || OpenEnd(end, Client, name) != IPC_OK) return 1;
        if (end.NonBlockWrite(bytes.data(), 1000) != 1000) return 2;
        return end.Close() == IPC_ERR_TIMEOUT ? 0 : 3;
    });
    EXPECT_EQ(0, client.Wait(kBound));
    char byte;
    EXPECT_EQ(IPC_ERR_NOT_OPENED, server.Read(&byte, 1)) << "a stream that lost its tail ended cleanly";
}

TEST(KelReliabilitySignals, BlockingReadsAndWritesInterruptedEveryMillisecondStillMoveEveryByte) {
    StormTrial(true);
    StormTrial(false);
}

TEST(KelReliabilityPermissions, ServerObjectsGetMode0660WithoutSecurityAndExactlyAGivenMode) {
    const mode_t previous = umask(077);  // a restrictive mask must not narrow the mode asked for
    const KelSecurity ownerOnly{0600};
    for (const KelSecurity* security : {static_cast<const KelSecurity*>(nullptr), &ownerOnly}) {
        const std::string name = kt::UniqueName("perm");
        KelIpcSocket server;
        EXPECT_EQ(IPC_OK, OpenEnd(server, Server, name, security));
        for (const char* suffix : kObjects) {
            EXPECT_EQ(security == nullptr ? 0660 : 0600, ModeOf(name + suffix)) << suffix;
        }
        EXPECT_EQ(IPC_OK, server.Close());
        EXPECT_EQ(077u, umask(077)) << "the open changed the process umask";
    }
    umask(previous);
}

TEST(KelReliabilityPermissions, AClientWithoutAccessToAnOwnerOnlyServerFailsAtOnceInsteadOfWaiting) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client as another user";
    constexpr int kNoPrivileges = 77;
    const std::string name = kt::UniqueName("perm");
    kt::LogCapture log;  // the refused opens log their chain
    const KelSecurity ownerOnly{0600};
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name, &ownerOnly));
    kt::Child stranger([&] {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) return kNoPrivileges;
        KelIpcSocket client;
        if (OpenEnd(client, Client, name) != IPC_ERR_FAILED) return 2;
        return client.Opened() ? 3 : 0;
    });
    const int code = stranger.Wait(kBound);
    if (code == kNoPrivileges) GTEST_SKIP() << "cannot switch to user nobody here";
    EXPECT_EQ(0, code);
    // The refused client touched nothing of the server's.
    EXPECT_TRUE(server.Running());
    EXPECT_EQ(IPC_OK, server.Close());
    EXPECT_EQ(0, kt::ChannelObjects(name));
}

namespace {

// A child holding a server on name that writes what it is told through notes->written, then waits.
int ServeUntilKilled(const std::string& name, Notes* notes) {
    KelIpcSocket server;
    if (OpenEnd(server, Server, name) != IPC_OK) return 2;
    kt::TellReady();
    for (int64_t sent = 0;; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
        for (; sent < notes->written.load(); ++sent) {
            if (server.Write("s", 1) != 1) return 3;
        }
    }
}

// A short stream each way between two fresh ends on name; 0, or the failed step.
int StreamBothWays(KelIpcSocket& socket, bool serving) {
    const Flow out = Transfer(socket, true, serving ? kRBase : 0, 4000, kShortStream);
    const Flow in = Transfer(socket, false, serving ? 0 : kRBase, 4000, kShortStream);
    return out.code == IPC_OK && in.code == IPC_OK && in.intact ? 0 : 1;
}

}  // namespace

TEST(KelReliabilityRestart, AServerStartedAgainAfterItsClientDiedServesTheNextClient) {
    const std::string name = kt::UniqueName("again");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
    kt::Child first([&] {
        KelIpcSocket client;
        if (OpenEnd(client, Client, name) != IPC_OK) return 2;
        client.Write("last", 4);
        for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
    });
    char got[8] = {};
    ASSERT_EQ(4, server.Read(got, 4));
    first.Kill();
    first.Wait(kBound);
    EXPECT_EQ(IPC_ERR_PEER_GONE, server.Read(got, 4));
    // Until the server gives the dead client's place up, a new client would mix into the old stream.
    KelIpcSocket early;
    EXPECT_EQ(IPC_ERR_NOT_OPENED, OpenEnd(early, Client, name));
    EXPECT_TRUE(server.Running()) << "the refused client stopped the server's rings";
    ASSERT_EQ(IPC_OK, server.Start());
    kt::Child next([&] {
        KelIpcSocket client;
        if (OpenEnd(client, Client, name) != IPC_OK) return 2;
        if (StreamBothWays(client, false) != 0) return 3;
        char done = 0;
        return client.Read(&done, 1) == 1 ? 0 : 4;
    });
    auto served =
        std::async(std::launch::async, [&] { return StreamBothWays(server, true) + server.Write("d", 1); });
    EXPECT_EQ(1, Settle(served, &server, "the stream with the next client"));
    EXPECT_EQ(0, next.Wait(kBound));
}

// A transfer of ours that could not run through a Stop and a Start (held by SIGSTOP) ends when it resumes:
// a writer parked for room puts no tail of its old message into the new stream, and a reader part-way
// through its count returns no mix of old bytes and new.
TEST(KelReliabilityRestart, ATransferThatSleptThroughStopAndStartEndsInsteadOfJoiningTheNewStream) {
    constexpr int kRoom = kBlock - 9024 - 1;
    constexpr int kPiece = kBlock / 50;
    for (bool writerParked : {true, false}) {
        SCOPED_TRACE(writerParked ? "a writer parked for room" : "a reader part-way through its count");
        const std::string name = kt::UniqueName("restart");
        KelIpcSocket server;
        ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
        kt::Child client([&] {
            KelIpcSocket end;
            if (OpenEnd(end, Client, name) != IPC_OK) return 1;
            kt::TellReady();
            std::vector<char> old = kt::Pattern(3 * kRoom);
            const int rc = writerParked ? end.Write(old.data(), 3 * kRoom) : end.Read(old.data(), 3 * kPiece);
            if (rc != IPC_ERR_NOT_OPENED) return 2;
            std::vector<char> fresh = writerParked ? kt::Pattern(100, kRBase) : std::vector<char>(100);
            if ((writerParked ? end.Write(fresh.data(), 100) : end.Read(fresh.data(), 100)) != 100) return 3;
            char byte;
            // A writer stays until the server's Stop: its Close would empty the ring under the server's read.
            if (writerParked && end.Read(&byte, 1) != IPC_ERR_NOT_OPENED) return 4;
            return kt::FirstWrong(fresh.data(), 100, kRBase) == -1 ? 0 : 5;
        });
        ASSERT_TRUE(client.WaitReady(kBound));
        if (writerParked) {
            // Less than a piece free: the writer waits for room.
            ASSERT_TRUE(kt::WaitUntil([&] { return server.DataSize() > kRoom - kPiece; }, kBound));
        } else {
            const std::vector<char> old = kt::Pattern(kPiece + kPiece / 2);
            ASSERT_EQ(static_cast<int>(old.size()), server.Write(old.data(), static_cast<int>(old.size())));
            // One piece taken, too little for the next: the reader sleeps with part of its count.
            ASSERT_TRUE(kt::WaitUntil([&] { return server.SpaceSize() == kRoom - kPiece / 2; }, kBound));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // past its spin, into its wait
        ASSERT_EQ(0, kill(client.Pid(), SIGSTOP));
        EXPECT_EQ(IPC_OK, server.Stop());
        EXPECT_EQ(IPC_OK, server.Start());
        const std::vector<char> fresh = kt::Pattern(3 * kPiece, kRBase);
        if (!writerParked) {
            EXPECT_EQ(3 * kPiece, server.Write(fresh.data(), 3 * kPiece));
        }
        ASSERT_EQ(0, kill(client.Pid(), SIGCONT));
        if (writerParked) {
            std::vector<char> got(100);
            auto read = std::async(std::launch::async, [&] { return server.Read(got.data(), 100); });
            EXPECT_EQ(100, Settle(read, &server, "the server's read of the new stream"));
            EXPECT_EQ(-1, kt::FirstWrong(got.data(), 100, kRBase)) << "the old message's tail came first";
            EXPECT_EQ(IPC_OK, server.Stop());
        }
        EXPECT_EQ(0, client.Wait(kBound));
    }
}

TEST(KelReliabilityRestart, AStoppedServerIsWaitedForAndADeadOnesNameIsReclaimedWhileItsClientIsTold) {
    const std::string name = kt::UniqueName("owner");
    const auto notes = Shared<Notes>();
    ASSERT_NE(nullptr, notes);
    kt::Child first([&] { return ServeUntilKilled(name, notes.get()); });
    ASSERT_TRUE(first.WaitReady(kBound));
    // A second server beside a live one is the race tests' part.
    KelIpcSocket client, second;
    ASSERT_EQ(IPC_OK, OpenEnd(client, Client, name));
    // SIGSTOP is no death: a stopped server is waited for.
    kill(first.Pid(), SIGSTOP);
    char byte = 0;
    auto stopped = std::async(std::launch::async, [&] { return client.Read(&byte, 1); });
    EXPECT_FALSE(kt::Ready(stopped, 1000)) << "a stopped server was taken for dead";
    kill(first.Pid(), SIGCONT);
    notes->written.store(1);
    EXPECT_EQ(1, Settle(stopped, &client, "the read from the continued server"));

    first.Kill();
    first.Wait(kBound);
    EXPECT_EQ(IPC_ERR_PEER_GONE, client.Read(&byte, 1));
    ASSERT_EQ(IPC_OK, OpenEnd(second, Server, name));
    EXPECT_EQ(IPC_ERR_PEER_GONE, client.Read(&byte, 1)) << "the old client reads the old, dead ring";
    EXPECT_EQ(IPC_OK, client.Close());
    ASSERT_EQ(IPC_OK, OpenEnd(client, Client, name));
    auto served = std::async(std::launch::async, [&] { return StreamBothWays(second, true); });
    EXPECT_EQ(0, StreamBothWays(client, false));
    EXPECT_EQ(0, Settle(served, &second, "the new server's stream"));
}

namespace {

constexpr int kSlowStretch = 40000;  // sixteen of them overfill the default ring
constexpr int kSlowStretches = 16;

// The far end of a bounded call: moves kSlowStretches stretches with a pause after each, longer than the
// bound, so that the bounded end sees both timeouts and short counts.
int SlowPeer(KelIpcType type, const std::string& name, bool writing) {
    KelIpcSocket socket;
    if (socket.Open(type, Client, name.c_str(), nullptr) != IPC_OK) return 2;
    for (int i = 0; i < kSlowStretches; ++i) {
        const Flow flow = Transfer(socket, writing, uint64_t(i) * kSlowStretch, 3000, kSlowStretch);
        if (flow.code != IPC_OK || !flow.intact) return 3;
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    char done = 0;
    return writing ? 0 : socket.Read(&done, 1) == 1 ? 0 : 4;
}

}  // namespace

TEST(KelReliabilityTimeout, BoundedCallsEndWithAShortCountOrTimeoutAndResumeWithoutLossOrRepeat) {
    for (KelIpcType type : {Process, Local}) {
        for (bool reading : {true, false}) {
            SCOPED_TRACE(std::string(type == Process ? "Process" : "Local") + (reading ? " Read" : " Write"));
            const std::string name = kt::UniqueName("bound");
            KelIpcSocket server;
            int bound = 10;
            ASSERT_EQ(IPC_OK, server.SetOption(reading ? ReadTimeout : WriteTimeout, &bound));
            ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
            std::unique_ptr<kt::Child> child;
            std::future<int> thread;
            if (type == Process) {
                child = std::make_unique<kt::Child>([&] { return SlowPeer(type, name, reading); });
            } else {
                thread = std::async(std::launch::async, [&] { return SlowPeer(type, name, reading); });
            }
            // Calls larger than a stretch and than the ring, so that each must wait for the far end.
            const int64_t total = int64_t{kSlowStretches} * kSlowStretch;
            std::vector<char> bytes = reading ? std::vector<char>(total) : kt::Pattern(total);
            int timeouts = 0, shorts = 0;
            const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBound);
            for (int64_t done = 0; done < total && std::chrono::steady_clock::now() < giveUp;) {
                const int n = static_cast<int>(std::min<int64_t>(3 * kBlock, total - done));
                const int rc =
                    reading ? server.Read(bytes.data() + done, n) : server.Write(bytes.data() + done, n);
                ASSERT_TRUE(rc > 0 || rc == IPC_ERR_TIMEOUT) << rc;
                timeouts += rc == IPC_ERR_TIMEOUT;
                shorts += rc > 0 && rc < n;
                done += std::max(rc, 0);
            }
            EXPECT_GT(timeouts, 0);
            EXPECT_GT(shorts, 0);
            if (reading) {
                EXPECT_EQ(-1, kt::FirstWrong(bytes.data(), bytes.size(), 0));
            } else {
                EXPECT_EQ(1, server.Write("d", 1));
            }
            EXPECT_EQ(0, child ? child->Wait(kBound) : Settle(thread, &server, "the slow peer"));
        }
    }
}

// An end that follows only the ring protocol holds no token: its death goes unnoticed, as before.
TEST(KelReliabilityTimeout, AServerWithoutATokenIsNeverTakenForDead) {
    const std::string name = kt::UniqueName("bare");
    kt::Child bare([&] {
        BareServer server;
        if (!server.Open(name) || !server.SetUpRings()) return 2;
        kt::TellReady();
        for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
    });
    ASSERT_TRUE(bare.WaitReady(kBound));
    KelIpcSocket client;
    int bound = 300;
    ASSERT_EQ(IPC_OK, client.SetOption(ReadTimeout, &bound));
    ASSERT_EQ(IPC_OK, OpenEnd(client, Client, name));
    bare.Kill();
    bare.Wait(kBound);
    char byte = 0;
    EXPECT_EQ(IPC_ERR_TIMEOUT, client.Read(&byte, 1));
    EXPECT_EQ(0, client.DataSize());
    // Nor does a server of ours take the bare server's leftovers for a live one.
    EXPECT_EQ(IPC_OK, client.Close());
    KelIpcSocket next;
    EXPECT_EQ(IPC_OK, OpenEnd(next, Server, name));
}

namespace {

constexpr int kRacers = 4;

// Racers forked from the test process open one name and side at the same moment.
struct Race {
    std::atomic<int> ready{0};
    std::atomic<int> go{0};
    std::atomic<int> done{0};
    std::atomic<int> results[kRacers];  // each racer's Open result; 1 until it is known
};

// A racer that wins echoes one byte, so that the far end learns both directions reach it, then holds
// its end until the test is done.
int Racer(const std::string& name, KelSide side, Race* race, int i) {
    race->ready.fetch_add(1);
    while (race->go.load() == 0) sched_yield();
    KelIpcSocket socket;
    int bound = kBound;
    socket.SetOption(ReadTimeout, &bound);
    const int rc = OpenEnd(socket, side, name);
    race->results[i].store(rc);
    if (rc != IPC_OK) return 0;
    char byte = 0;
    if (socket.Read(&byte, 1) != 1 || socket.Write(&byte, 1) != 1) return 2;
    return kt::WaitUntil([&] { return race->done.load() == 1; }, kBound) && socket.Close() == IPC_OK ? 0 : 3;
}

// A header word of a ring segment, read through a mapping of its own; -1 when the segment is missing.
int32_t HeaderWord(const std::string& segment, size_t offset) {
    const int fd = shm_open(segment.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return -1;
    void* at = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (at == MAP_FAILED) return -1;
    const int32_t word =
        __atomic_load_n(reinterpret_cast<int32_t*>(static_cast<char*>(at) + offset), __ATOMIC_ACQUIRE);
    munmap(at, 4096);
    return word;
}

// A name whose channel's semaphore key, the djb2 hash of name + suffix, is 0 (IPC_PRIVATE): seven
// letters after prefix chosen so. The hash is affine in each byte, and 33 is invertible modulo 2^32.
std::string NameOfKeyZero(const std::string& prefix, const std::string& suffix) {
    uint32_t power = 1, tail = 0;
    for (char c : suffix) {
        power *= 33;
        tail = tail * 33 + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
    }
    uint32_t inverse = power;  // Newton's step doubles the correct low bits
    for (int i = 0; i < 5; ++i) inverse *= 2 - power * inverse;
    uint32_t power7 = 1, ones = 0;
    for (int i = 0; i < 7; ++i) {
        ones += power7;
        power7 *= 33;
    }
    // The seven letters 'A' + d add sum(d * 33^k) + 'A' * ones to the prefix's hash times 33^7.
    const uint64_t digits =
        uint32_t(0) - tail * inverse - static_cast<uint32_t>(kt::Djb2Key(prefix)) * power7 - 'A' * ones;
    std::string name = prefix;
    for (uint64_t place = uint64_t{42618442977} / 33; place > 0; place /= 33) {  // 33^6 down to 1
        name += static_cast<char>('A' + digits / place % 33);
    }
    return name;
}

void RaceOpens(KelSide side) {
    for (int round = 0; round < 8 && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::string name = kt::UniqueName("race");
        const auto race = Shared<Race>();
        ASSERT_NE(nullptr, race);
        for (std::atomic<int>& result : race->results) result.store(1);
        KelIpcSocket far;
        int bound = kBound;
        far.SetOption(ReadTimeout, &bound);
        if (side == Client) {
            ASSERT_EQ(IPC_OK, OpenEnd(far, Server, name));
        }
        std::vector<std::unique_ptr<kt::Child>> racers;
        for (int i = 0; i < kRacers; ++i) {
            racers.emplace_back(new kt::Child([&, i] { return Racer(name, side, race.get(), i); }));
        }
        ASSERT_TRUE(kt::WaitUntil([&] { return race->ready.load() == kRacers; }, kBound));
        race->go.store(1);
        ASSERT_TRUE(kt::WaitUntil(
            [&] {
                return std::none_of(race->results, race->results + kRacers, [](auto& r) { return r == 1; });
            },
            kBound));
        int winners = 0;
        for (int i = 0; i < kRacers; ++i) {
            const int rc = race->results[i].load();
            winners += rc == IPC_OK;
            // The losers have left: what they did is done.
            if (rc != IPC_OK) {
                EXPECT_EQ(IPC_ERR_OPENED, rc);
                EXPECT_EQ(0, racers[i]->Wait(kBound));
            }
        }
        ASSERT_EQ(1, winners);
        if (side == Server) {
            ASSERT_EQ(IPC_OK, OpenEnd(far, Client, name));
        }
        // Both directions reach the one winner.
        char byte = 'e';
        EXPECT_EQ(1, far.Write(&byte, 1));
        byte = 0;
        EXPECT_EQ(1, far.Read(&byte, 1));
        EXPECT_EQ('e', byte);
        EXPECT_EQ(4, kt::ChannelObjects(name));
        race->done.store(1);
        for (auto& racer : racers) racer->Wait(kBound);
        EXPECT_EQ(IPC_OK, far.Close());
        EXPECT_EQ(0, kt::ChannelObjects(name));
    }
}

}  // namespace

TEST(KelReliabilityOwnership, OfServersOpeningOneNameTogetherExactlyOneGoesOnAndOwnsBothDirections) {
    RaceOpens(Server);
}

// A second client beside a live one would merge its stream into the first one's.
TEST(KelReliabilityOwnership, OfClientsOpeningTogetherExactlyOneTakesPartAndTheOthersChangeNothing) {
    RaceOpens(Client);
}

TEST(KelReliabilityOwnership, ASetMadeForAnotherNameIsRefusedWhileItsServerLivesAndReclaimedAfterItDied) {
    // "ab" and "bA" hash alike, so the two names' channels get the same semaphore keys.
    const std::string first = kt::UniqueName("ab");
    const std::string second = first.substr(0, first.size() - 2) + "bA";
    kt::Track(second);
    ASSERT_EQ(kt::Djb2Key(first + "_XL_ssm"), kt::Djb2Key(second + "_XL_ssm"));
    const auto notes = Shared<Notes>();
    ASSERT_NE(nullptr, notes);
    kt::Child owner([&] { return ServeUntilKilled(first, notes.get()); });
    ASSERT_TRUE(owner.WaitReady(kBound));
    KelIpcSocket client;
    ASSERT_EQ(IPC_OK, OpenEnd(client, Client, first));
    KelIpcSocket other;
    EXPECT_EQ(IPC_ERR_ACCESS, OpenEnd(other, Server, second));
    other.Close();
    notes->written.store(1);
    char byte = 0;
    EXPECT_EQ(1, client.Read(&byte, 1)) << "the refused server took the live one's wake-ups";
    EXPECT_EQ(4, kt::ChannelObjects(first));
    owner.Kill();
    owner.Wait(kBound);
    EXPECT_EQ(IPC_OK, OpenEnd(other, Server, second));
    EXPECT_EQ(IPC_OK, other.Close());
    EXPECT_EQ(IPC_OK, client.Close());

    // Key 0 makes every semget a new private set: server and client would never meet.
    const std::string zero = NameOfKeyZero(kt::UniqueName("zero"), "_XL_ssm");
    ASSERT_EQ(0, kt::Djb2Key(zero + "_XL_ssm"));
    EXPECT_EQ(IPC_ERR_PARAM, OpenEnd(other, Server, zero));
    EXPECT_FALSE(kt::ShmExists(zero + "_XL_shm"));
}

TEST(KelReliabilityOwnership, AClientTakesNoPartInARingThatNoServerHasInitialisedYet) {
    // A server caught between creating its objects and setting its rings up.
    const std::string name = kt::UniqueName("early");
    BareServer server;
    ASSERT_TRUE(server.Open(name));
    KelIpcSocket client;
    EXPECT_EQ(IPC_ERR_FAILED, OpenEnd(client, Client, name));
    EXPECT_EQ(0, HeaderWord(name + "_XL_shm", KelPeerToken::kClientHeld)) << "announced in a ring not set up";
    ASSERT_TRUE(server.SetUpRings());
    EXPECT_EQ(IPC_OK, OpenEnd(client, Client, name));
    EXPECT_EQ(1, HeaderWord(name + "_XL_shm", KelPeerToken::kClientHeld));
}

TEST(KelReliabilityOwnership, EndsClosedInAForkedChildLeaveTheParentsChannelWhole) {
    const std::string name = kt::UniqueName("fork");
    KelIpcSocket server, client;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
    ASSERT_EQ(IPC_OK, OpenEnd(client, Client, name));
    // As the child's destructors at its exit would.
    EXPECT_EQ(0,
              kt::RunInChild([&] { return server.Close() == IPC_OK && client.Close() == IPC_OK ? 0 : 1; }));
    EXPECT_TRUE(server.Running());
    EXPECT_TRUE(client.Running());
    EXPECT_EQ(4, kt::ChannelObjects(name));
    for (const char* segment : {"_XL_shm", "_XR_shm"}) {
        // Still announced, so that the parent's death would be reported.
        EXPECT_EQ(1, HeaderWord(name + segment, KelPeerToken::kServerHeld)) << segment;
        EXPECT_EQ(1, HeaderWord(name + segment, KelPeerToken::kClientHeld)) << segment;
    }
    char byte = 0;
    EXPECT_EQ(1, client.Write("c", 1));
    EXPECT_EQ(1, server.Read(&byte, 1));
    EXPECT_EQ(1, server.Write("s", 1));
    EXPECT_EQ(1, client.Read(&byte, 1));
    EXPECT_EQ(IPC_OK, client.Close());
    EXPECT_EQ(IPC_OK, server.Close());
    EXPECT_EQ(0, kt::ChannelObjects(name));
}

TEST(KelReliabilityOwnership, ASetRemovedUnderAWaitingReaderEndsItsReadAsNotOpened) {
    const std::string name = kt::UniqueName("rmid");
    kt::LogCapture log;  // the removal fails the wait and the server's own removal
    KelIpcSocket server, client;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
    ASSERT_EQ(IPC_OK, OpenEnd(client, Client, name));
    char byte = 0;
    auto read = std::async(std::launch::async, [&] { return client.Read(&byte, 1); });
    const int set = semget(kt::Djb2Key(name + "_XR_ssm"), 0, 0);
    ASSERT_TRUE(kt::WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; }, kBound));
    kt::RemoveSem(name + "_XR_ssm");
    EXPECT_EQ(IPC_ERR_NOT_OPENED, Settle(read, &client, "the read on a removed set"));
}

// A failed look, for instance on a descriptor being closed, tells nothing about the holder.
TEST(KelReliabilityOwnership, ALivenessLookThatFailsTakesNobodyForDead) {
    kt::LogCapture log;  // the failed look is logged
    std::vector<char> block(kBlock, 0);
    *reinterpret_cast<int32_t*>(block.data() + KelPeerToken::kServerHeld) = 1;
    EXPECT_EQ(KelPeerToken::kUnknown,
              KelPeerToken::Of(-1, reinterpret_cast<KelCBHead*>(block.data()), Server));
}

// An end that closes cleanly withdraws its word, then its lock goes: a look between the two must not
// report a death.
TEST(KelReliabilityOwnership, AnEndClosingCleanlyDuringALookIsNeverTakenForDead) {
    const std::string segment = kt::UniqueName("look") + "_XL_shm";
    KelShareMemory memory;
    ASSERT_EQ(IPC_OK, memory.Open(segment.c_str(), kBlock, Server, nullptr));
    KelCBHead* const head = reinterpret_cast<KelCBHead*>(memory.Data());
    const auto notes = Shared<Notes>();
    ASSERT_NE(nullptr, notes);
    kt::Child peer([&] {
        for (int cycle = 0; cycle < 3000; ++cycle) {
            const int fd = shm_open(segment.c_str(), O_RDWR | O_CLOEXEC, 0);
            KelPeerToken token;
            if (fd < 0 || token.Hold(fd, Client, head) != IPC_OK) return 2;
            std::this_thread::sleep_for(std::chrono::microseconds(50));
            token.Release();
            close(fd);
            notes->written.store(cycle + 1);
        }
        return 0;
    });
    const int fd = shm_open(segment.c_str(), O_RDONLY | O_CLOEXEC, 0);
    ASSERT_LE(0, fd);
    int dead = 0;
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBound);
    while (notes->written.load() < 3000 && std::chrono::steady_clock::now() < giveUp) {
        dead += KelPeerToken::Of(fd, head, Client) == KelPeerToken::kDead;
    }
    close(fd);
    EXPECT_EQ(0, dead);
    EXPECT_EQ(0, peer.Wait(kBound));
}
