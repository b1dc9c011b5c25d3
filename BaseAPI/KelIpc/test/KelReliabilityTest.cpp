#include <grp.h>
#include <pthread.h>
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

#include "KelIpc.h"
#include "TestSupport.h"

namespace {

constexpr int kBlock = 65536;  // small rings: even a short stream wraps them many times
constexpr int kTrials = 50;
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

bool IsSegment(const std::string& object) {
    return object.compare(object.size() - 4, 4, "_shm") == 0;
}

bool Exists(const std::string& object) {
    return IsSegment(object) ? kt::ShmExists(object) : kt::SemExists(object);
}

// What identifies an object (segment inode, set id; -1 when missing) and its permission bits.
struct Facts {
    long id = -1;
    int mode = -1;
};

Facts Examine(const std::string& object) {
    Facts facts;
    struct stat st {};
    struct semid_ds ds {};
    const int id = IsSegment(object) ? -1 : semget(kt::Djb2Key(object), 1, 0);
    if (IsSegment(object) && stat(("/dev/shm/" + object).c_str(), &st) == 0) {
        facts = {static_cast<long>(st.st_ino), int(st.st_mode & 0777)};
    } else if (id >= 0 && semctl(id, 0, IPC_STAT, &ds) == 0) {
        facts = {id, int(ds.sem_perm.mode & 0777)};
    }
    return facts;
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
        if (rc != n) {
            flow.code = rc;
            break;
        }
        const int64_t wrong = sending ? -1 : kt::FirstWrong(bytes.data(), n, base + flow.bytes);
        flow.intact = wrong < 0;
        flow.bytes += flow.intact ? n : wrong;
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
    std::atomic<int> ready{0};
    std::atomic<int> corrupt{0};
};

struct Unmap {
    void operator()(Notes* notes) const { munmap(notes, sizeof(Notes)); }
};

std::unique_ptr<Notes, Unmap> SharedNotes() {
    void* at = mmap(nullptr, sizeof(Notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return std::unique_ptr<Notes, Unmap>(at == MAP_FAILED ? nullptr : new (at) Notes);
}

// The end that will be killed: streams both ways, with a thread per direction, until the kill.
int StreamUntilKilled(const std::string& name, KelSide side, int piece, Notes* notes) {
    KelIpcSocket socket;
    if (OpenEnd(socket, side, name) != IPC_OK) return 2;
    notes->ready.store(1);
    const uint64_t in = side == Server ? 0 : kRBase;
    std::thread reader([&] {
        if (!Transfer(socket, false, in, piece, kEndless).intact) notes->corrupt.store(1);
    });
    Transfer(socket, true, in == 0 ? kRBase : 0, piece, kEndless);
    reader.join();
    return 0;
}

// A new pair on the name of a crashed one, the client in a new child: a short stream each way must
// arrive whole whatever the crash left behind. The new server replaces the segments that a dead server
// left and reuses its sets.
void ServeFreshPair(const std::string& name, const std::vector<Facts>& left) {
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name));
    for (size_t i = 0; i < left.size(); ++i) {
        EXPECT_EQ(IsSegment(kObjects[i]), Examine(name + kObjects[i]).id != left[i].id) << kObjects[i];
    }
    kt::Child client([&] {
        KelIpcSocket socket;
        if (OpenEnd(socket, Client, name) != IPC_OK) return 2;
        if (Transfer(socket, true, 0, 4000, kShortStream).code != IPC_OK) return 3;
        const Flow in = Transfer(socket, false, kRBase, 4000, kShortStream);
        if (in.code != IPC_OK || !in.intact) return 4;
        // Closing stops and empties both rings: wait until the server has read everything.
        char done = 0;
        if (socket.Read(&done, 1) != 1) return 5;
        return socket.Close() == IPC_OK ? 0 : 6;
    });
    auto served = std::async(std::launch::async, [&] {
        const Flow out = Transfer(server, true, kRBase, 4000, kShortStream);
        const Flow in = Transfer(server, false, 0, 4000, kShortStream);
        const char done = 1;
        return out.code == IPC_OK && in.code == IPC_OK && in.intact && server.Write(&done, 1) == 1;
    });
    EXPECT_EQ(0, client.Wait(kBound));
    EXPECT_TRUE(Settle(served, &server, "the new server's stream"));
    EXPECT_EQ(IPC_OK, server.Close());
}

void CrashTrial(KelSide killed, std::mt19937& random, Notes* notes) {
    const std::string name = kt::UniqueName("crash");
    const int piece = std::uniform_int_distribution<int>(512, 8192)(random);
    const int delayUs = std::uniform_int_distribution<int>(0, 15000)(random);
    SCOPED_TRACE("piece " + std::to_string(piece) + ", kill after " + std::to_string(delayUs) + " us");
    notes->ready.store(0);
    notes->corrupt.store(0);
    const KelSide kept = killed == Server ? Client : Server;
    KelIpcSocket survivor;
    std::unique_ptr<kt::Child> child;
    if (kept == Server) {
        ASSERT_EQ(IPC_OK, OpenEnd(survivor, Server, name));
    }
    child.reset(new kt::Child([&] { return StreamUntilKilled(name, killed, piece, notes); }));
    if (kept == Client) {
        ASSERT_TRUE(kt::WaitUntil([&] { return notes->ready.load() == 1; }, kBound));
        ASSERT_EQ(IPC_OK, OpenEnd(survivor, Client, name));
    }
    const uint64_t in = kept == Server ? 0 : kRBase;
    auto sent = std::async(std::launch::async,
                           [&] { return Transfer(survivor, true, in == 0 ? kRBase : 0, piece, kEndless); });
    auto received =
        std::async(std::launch::async, [&] { return Transfer(survivor, false, in, piece, kEndless); });
    std::this_thread::sleep_for(std::chrono::microseconds(delayUs));
    child->Kill();
    // With the peer gone nothing wakes the survivor's reader or drains its writer's ring: only a Stop.
    auto watchdog = std::async(std::launch::async, [&] { return survivor.Stop(); });
    EXPECT_EQ(IPC_OK, Settle(watchdog, nullptr, "the watchdog's Stop"));
    const Flow out = Settle(sent, &survivor, "the survivor's write");
    const Flow got = Settle(received, &survivor, "the survivor's read");
    EXPECT_EQ(IPC_ERR_NOT_OPENED, out.code);
    EXPECT_EQ(IPC_ERR_NOT_OPENED, got.code);
    EXPECT_TRUE(got.intact) << "wrong byte at " << got.bytes;
    EXPECT_EQ(0, notes->corrupt.load()) << "the killed end had received a wrong byte";
    EXPECT_EQ(IPC_OK, survivor.Close());
    // A killed server never removed its objects; a surviving server did.
    std::vector<Facts> left;
    for (const char* suffix : kObjects) {
        EXPECT_EQ(killed == Server, Exists(name + suffix)) << suffix;
        if (killed == Server) left.push_back(Examine(name + suffix));
    }
    ServeFreshPair(name, left);
    for (const char* suffix : kObjects) EXPECT_FALSE(Exists(name + suffix)) << suffix;
}

void RunCrashTrials(KelSide killed, uint32_t seed) {
    kt::LogCapture log;
    const auto notes = SharedNotes();
    ASSERT_NE(nullptr, notes);
    std::mt19937 random(seed);
    for (int trial = 0; trial < kTrials && !testing::Test::HasFailure(); ++trial) {
        SCOPED_TRACE("trial " + std::to_string(trial) + " of seed " + std::to_string(seed));
        CrashTrial(killed, random, notes.get());
    }
    // A peer's crash is no failure of the survivor's calls: none of them has anything to log.
    for (const KelLogRecord& record : log.Records()) ADD_FAILURE() << "logged: " << record.message;
}

}  // namespace

TEST(KelReliabilityCrash, AClientKilledMidStreamIsSurvivedAndTheNameServesANewPair) {
    RunCrashTrials(Client, 20240611u);
}

TEST(KelReliabilityCrash, AServerKilledMidStreamIsSurvivedAndANewServerTakesOverWhatItLeft) {
    RunCrashTrials(Server, 20240612u);
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
    kt::LogCapture log;  // every interrupted semaphore wait is logged
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
    if (reading) {
        // The writer's pauses put the reader to sleep on the semaphore, where the signals cut its waits
        // short.
        EXPECT_GT(log.Count("semop fail, rc=-1, errno=" + std::to_string(EINTR)), 0u);
        EXPECT_EQ(1, server.Write("x", 1));
    }
    EXPECT_EQ(0, far.Wait(kBound));
    EXPECT_EQ(IPC_OK, server.Close());
    for (const char* suffix : kObjects) EXPECT_FALSE(Exists(name + suffix)) << suffix;
}

}  // namespace

TEST(KelReliabilitySignals, ABlockingReadInterruptedEveryMillisecondStillGetsEveryByte) {
    StormTrial(true);
}

TEST(KelReliabilitySignals, ABlockingWriteInterruptedEveryMillisecondStillDeliversEveryByte) {
    StormTrial(false);
}

TEST(KelReliabilityPermissions, ServerObjectsGetMode0660WithoutSecurityAndExactlyAGivenMode) {
    const mode_t previous = umask(0);
    const KelSecurity ownerOnly{0600};
    for (const KelSecurity* security : {static_cast<const KelSecurity*>(nullptr), &ownerOnly}) {
        umask(077);  // a restrictive mask must not narrow the mode asked for
        const std::string name = kt::UniqueName("perm");
        KelIpcSocket server;
        EXPECT_EQ(IPC_OK, OpenEnd(server, Server, name, security));
        for (const char* suffix : kObjects) {
            EXPECT_EQ(security == nullptr ? 0660 : 0600, Examine(name + suffix).mode) << suffix;
        }
        EXPECT_EQ(IPC_OK, server.Close());
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
    for (const char* suffix : kObjects) EXPECT_FALSE(Exists(name + suffix)) << suffix;
}
