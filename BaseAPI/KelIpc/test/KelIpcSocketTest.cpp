#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "KelIpc.h"
#include "KelSemaphore.h"
#include "KelSystemSemaphore.h"
#include "TestSupport.h"

namespace {

constexpr int kBlock = 262144;            // a direction's block unless set
constexpr int kRoom = kBlock - 9024 - 1;  // an empty ring takes one byte less than its data area
constexpr int kWaitMs = 10000;
constexpr int64_t kStream = 4LL * kRoom + 12345;
// Pieces larger than the data area, of one byte, and neither dividing the other side's pieces.
const std::vector<int> kWritePieces = {1, 4000, 300000, 333, 65537};
const std::vector<int> kReadPieces = {5000, 17, 260000, 120000};

enum Form { kModeForm, kBlockForm, kNonBlockForm };

int Send(KelIpcSocket& s, Form form, const char* data, int n) {
    if (form == kModeForm) return s.Write(data, n);
    return form == kBlockForm ? s.BlockWrite(data, n) : s.NonBlockWrite(data, n);
}

int Receive(KelIpcSocket& s, Form form, char* buffer, int n) {
    if (form == kModeForm) return s.Read(buffer, n);
    return form == kBlockForm ? s.BlockRead(buffer, n) : s.NonBlockRead(buffer, n);
}

// One message of n bytes and a marker byte. The writer sends the marker only after checking its room and
// the reader takes nothing before the marker, so both ends see exact counts. 0, or the failed step.
int Talk(KelIpcSocket& s, bool writing, Form form, uint64_t offset, int n) {
    const std::vector<char> sent = kt::Pattern(n + 1, offset);
    if (writing) {
        if (Send(s, form, sent.data(), n) != n) return 1;
        if (s.SpaceSize() != kRoom - n) return 2;
        if (s.DataSize() != 0) return 3;  // nothing went into the direction this end reads
        return Send(s, form, sent.data() + n, 1) == 1 ? 0 : 4;
    }
    if (!kt::WaitUntil([&] { return s.DataSize() == n + 1; }, kWaitMs)) return 5;
    std::vector<char> got(n + 2);
    if (s.NonBlockRead(got.data(), n + 2) != 0) return 6;  // one byte short: nothing moves
    if (Receive(s, form, got.data(), n + 1) != n + 1) return 7;
    got.resize(n + 1);
    if (got != sent) return 8;
    return s.DataSize() == 0 ? 0 : 9;
}

// One end's part of a conversation in which every form carries a message each way, the client first.
int Converse(KelIpcSocket& s, KelSide side) {
    uint64_t offset = 0;
    int step = 0;
    for (Form form : {kModeForm, kBlockForm, kNonBlockForm}) {
        for (KelSide writer : {Client, Server}) {
            const int n = 1000 + 37 * step;
            const int rc = Talk(s, writer == side, form, offset, n);
            if (rc != 0) return 10 * (step + 1) + rc;
            offset += n + 1;
            ++step;
        }
    }
    return 0;
}

// Pieces of both forms take turns; the reader checks every byte against its offset in the stream.
bool Stream(KelIpcSocket& s, bool sending) {
    const std::vector<int>& pieces = sending ? kWritePieces : kReadPieces;
    int64_t done = 0;
    for (size_t i = 0; done < kStream; ++i) {
        const int n = static_cast<int>(std::min<int64_t>(pieces[i % pieces.size()], kStream - done));
        std::vector<char> bytes = kt::Pattern(n, done);
        const Form form = i % 2 == 0 ? kModeForm : kBlockForm;
        if (sending ? Send(s, form, bytes.data(), n) != n
                    : Receive(s, form, bytes.data(), n) != n || bytes != kt::Pattern(n, done)) {
            return false;
        }
        done += n;
    }
    return true;
}

// The non-blocking forms go first: on a ring that still runs, the others could wait for ever.
bool AllTransfersRefused(KelIpcSocket& s) {
    char buf[4] = {'a', 'b', 'c', 'd'};
    const int no = IPC_ERR_NOT_OPENED;
    return s.NonBlockRead(buf, 4) == no && s.NonBlockWrite(buf, 4) == no && s.Read(buf, 4) == no &&
           s.BlockRead(buf, 4) == no && s.Write(buf, 4) == no && s.BlockWrite(buf, 4) == no;
}

// Reads n bytes that are due; fails instead of waiting for ever when they do not come.
int ReadArrived(KelIpcSocket& s, char* buffer, int n) {
    return kt::WaitUntil([&] { return s.DataSize() >= n; }, kWaitMs) ? s.Read(buffer, n) : IPC_ERR_FAILED;
}

// Waits for every part; on a timeout stops the connection so that the blocked transfers return.
template <typename... Futures>
bool Finish(KelIpcSocket& end, Futures&... futures) {
    const bool ready = (kt::Ready(futures, 60000) && ...);
    if (!ready) end.Stop();
    return ready;
}

// Gives a peer that has announced a wait the time to enter it; the outcome is the same if it has not.
void LetPeerBlock() {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// A client in another process, blocked in a Read that only the server's end can release. 0, or the step
// that failed.
int BlockedClientIsReleased(KelIpcSocket& client, const std::string& name) {
    char buf[16];
    if (client.Open(Process, Client, name.c_str(), nullptr) != IPC_OK) return 1;
    if (client.Write("r", 1) != 1) return 2;  // about to wait on R
    if (client.Read(buf, 16) != IPC_ERR_NOT_OPENED) return 3;
    return client.Running() || !AllTransfersRefused(client) ? 4 : 0;
}

// Runs the server's part in a thread and the client's in a forked child (Process) or in a second thread
// (Local); stops the connection when a part outlasts the bound. 0, or the first failure (server's + 100).
int Pair(KelIpcType type, KelIpcSocket& server, const std::function<int()>& serverPart,
         const std::function<int()>& clientPart) {
    std::unique_ptr<kt::Child> child;
    std::future<int> clientRun;
    if (type == Process) {
        child = std::make_unique<kt::Child>(clientPart);  // forked before this test starts any thread
    } else {
        clientRun = std::async(std::launch::async, clientPart);
    }
    auto serverRun = std::async(std::launch::async, serverPart);
    const bool ready = kt::Ready(serverRun, 60000) && (child || kt::Ready(clientRun, 60000));
    if (!ready) server.Stop();
    const int serverResult = serverRun.get();
    const int clientResult = child ? child->Wait(kWaitMs) : clientRun.get();
    return serverResult != 0 ? 100 + serverResult : clientResult;
}

const char* TypeName(KelIpcType type) {
    return type == Process ? "Process" : "Local";
}

}  // namespace

// A conversation in every form, then long streams each way on the same connection.
TEST(KelIpcSocketTransfer, EveryFormCarriesBothWaysAndStreamsOfSeveralRingsArriveInOrder) {
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        const std::string name = kt::UniqueName("forms");
        KelIpcSocket server;
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
        const int rc = Pair(
            type, server,
            [&] {
                if (const int talked = Converse(server, Server)) return talked;
                // Closing stops the rings: keep them until the client has taken the tail (or has closed).
                const auto drained = [&] { return !server.Running() || server.SpaceSize() == kRoom; };
                return Stream(server, false) && Stream(server, true) && kt::WaitUntil(drained, kWaitMs) ? 0
                                                                                                        : 1;
            },
            [&] {
                KelIpcSocket client;
                if (client.Open(type, Client, name.c_str(), nullptr) != IPC_OK) return 1;
                if (const int talked = Converse(client, Client)) return talked;
                if (!Stream(client, true)) return 2;
                return Stream(client, false) ? 0 : 3;  // the server read everything before it sent
            });
        EXPECT_EQ(0, rc);
    }
}

// A client before its server, a server block below the ring's minimum, then a client that wants another R
// size than the server's: each fails, and nothing of the name stays taken or stopped.
TEST(KelIpcSocketOpen, OpensThatFailLeaveNothingAndAFailedClientLeavesTheServerRunning) {
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        const std::string name = kt::UniqueName("size");
        kt::LogCapture quiet;  // the refused opens log their chain
        KelIpcSocket server, client;
        EXPECT_EQ(type == Process ? IPC_ERR_FAILED : IPC_ERR_NOT_OPENED,
                  client.Open(type, Client, name.c_str(), nullptr));
        EXPECT_EQ(0, kt::ChannelObjects(name));
        int small = 16384;
        ASSERT_EQ(IPC_OK, server.SetOption(LBufferSize, &small));
        EXPECT_EQ(IPC_ERR_PARAM, server.Open(type, Server, name.c_str(), nullptr));
        EXPECT_FALSE(server.Opened());
        EXPECT_EQ(0, kt::ChannelObjects(name));
        int proper = kBlock;
        ASSERT_EQ(IPC_OK, server.SetOption(LBufferSize, &proper));
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));

        int other = kBlock / 2;
        ASSERT_EQ(IPC_OK, client.SetOption(RBufferSize, &other));
        EXPECT_EQ(type == Process ? IPC_ERR_FAILED : IPC_ERR_PARAM,
                  client.Open(type, Client, name.c_str(), nullptr));
        EXPECT_FALSE(client.Opened());
        EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Close());
        EXPECT_EQ(type == Process ? 4 : 0, kt::ChannelObjects(name));
        // The failed client's clean-up leaves the L ring it had attached running for the server.
        EXPECT_TRUE(server.Running());
        char byte = 0;
        KelIpcSocket matching;
        ASSERT_EQ(IPC_OK, matching.Open(type, Client, name.c_str(), nullptr));
        EXPECT_EQ(1, matching.Write("x", 1));
        EXPECT_EQ(1, ReadArrived(server, &byte, 1));
        EXPECT_EQ('x', byte);
    }
}

TEST(KelIpcSocketOptions, ClientLNonBlockWritesAllOrNothingWhileTheServersReadStillWaits) {
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        const std::string name = kt::UniqueName("nonblock");
        KelIpcSocket server, client;
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
        ASSERT_EQ(IPC_OK, client.SetOption(LNonBlock, nullptr));
        ASSERT_EQ(IPC_OK, client.Open(type, Client, name.c_str(), nullptr));
        const std::vector<char> bytes = kt::Pattern(kRoom + 1);
        // A Write that ignored the option would wait here for ever; one byte more than the ring can ever
        // hold is refused at once instead of returning 0 for ever.
        auto oversized =
            std::async(std::launch::async, [&] { return client.Write(bytes.data(), kRoom + 1); });
        EXPECT_TRUE(Finish(server, oversized));
        EXPECT_EQ(IPC_ERR_PARAM, oversized.get());
        EXPECT_EQ(kRoom, client.SpaceSize());
        EXPECT_EQ(10, client.Write(bytes.data(), 10));
        EXPECT_EQ(0, client.Write(bytes.data(), kRoom));  // fits the ring, not now: nothing passes

        std::vector<char> got(20);
        auto read = std::async(std::launch::async, [&] { return server.Read(got.data(), 20); });
        EXPECT_FALSE(kt::Ready(read, 50)) << "the server's Read returned before its count had arrived";
        // A non-blocking write signals nobody; the blocking form wakes the waiting reader.
        EXPECT_EQ(10, client.BlockWrite(bytes.data() + 10, 10));
        EXPECT_TRUE(Finish(server, read));
        EXPECT_EQ(20, read.get());
        EXPECT_TRUE(std::equal(got.begin(), got.end(), bytes.begin()));
    }
}

TEST(KelIpcSocketOptions, SuppliedSemaphoreIsSignalledAndNoneOfTheChannelNameIsMade) {
    const std::string name = kt::UniqueName("sem");
    const std::string semName = kt::UniqueName("own");
    KelSystemSemaphore serverSem;
    KelSystemSemaphore clientSem;  // the other process's handle on the same set
    ASSERT_EQ(IPC_OK, serverSem.Open(semName.c_str(), Server, nullptr));
    ASSERT_EQ(IPC_OK, clientSem.Open(semName.c_str(), Client, nullptr));
    KelSemaphore localSem;
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        KelIpcSocket server, client;
        void* serverOwn = type == Process ? static_cast<void*>(&serverSem) : &localSem;
        ASSERT_EQ(IPC_OK, server.SetOption(LSemaphore, serverOwn));
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
        EXPECT_FALSE(kt::SemExists(name + "_XL_ssm"));
        EXPECT_EQ(type == Process, kt::SemExists(name + "_XR_ssm"));  // R still makes its own
        ASSERT_EQ(IPC_OK,
                  client.SetOption(LSemaphore, type == Process ? static_cast<void*>(&clientSem) : serverOwn));
        ASSERT_EQ(IPC_OK, client.Open(type, Client, name.c_str(), nullptr));
        ASSERT_EQ(IPC_OK, serverSem.Reset());
        char got[4] = {};
        if (type == Process) {
            EXPECT_EQ(4, client.Write("ping", 4));  // signals after the piece
            EXPECT_EQ(IPC_OK, serverSem.AcquireFor(kWaitMs));
            EXPECT_EQ(4, ReadArrived(server, got, 4));
        } else {
            // In-process writers signal only a reader that may be asleep: one waits on the supplied
            // semaphore, which nothing but the client's write can release.
            auto read = std::async(std::launch::async, [&] { return server.Read(got, 4); });
            EXPECT_FALSE(kt::Ready(read, 50));
            EXPECT_EQ(4, client.Write("ping", 4));
            EXPECT_TRUE(Finish(server, read));
            EXPECT_EQ(4, read.get());
        }
        EXPECT_EQ(std::string("ping"), std::string(got, 4));
    }
    EXPECT_TRUE(serverSem.Opened());  // not the sockets' to close
    EXPECT_EQ(IPC_OK, serverSem.Close());
}

TEST(KelIpcSocketLifecycle, StopByEitherEndIsSeenByTheOtherProcessAndReleasesItsRead) {
    const std::string name = kt::UniqueName("stop");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));
    // Each end checks the stopped state only while the other cannot restart: the client restarts after
    // its checks, and nobody restarts after the client's Stop.
    kt::Child child([&] {
        KelIpcSocket client;
        if (const int rc = BlockedClientIsReleased(client, name)) return rc;
        if (client.Start() != IPC_OK) return 5;
        if (!kt::WaitUntil([&] { return client.DataSize() == 1; }, kWaitMs)) return 6;
        LetPeerBlock();
        return client.Stop() == IPC_OK ? 0 : 7;
    });
    char byte = 0;
    ASSERT_TRUE(kt::WaitUntil([&] { return server.DataSize() == 1; }, kWaitMs));
    ASSERT_EQ(1, server.Read(&byte, 1));
    LetPeerBlock();
    EXPECT_EQ(IPC_OK, server.Stop());

    ASSERT_TRUE(kt::WaitUntil([&] { return server.Running(); }, kWaitMs)) << "the client's Start";
    EXPECT_EQ(0, server.DataSize());
    EXPECT_EQ(1, server.Write("w", 1));  // about to wait on L
    auto read = std::async(std::launch::async, [&] { return server.Read(&byte, 1); });
    EXPECT_TRUE(Finish(server, read));
    EXPECT_EQ(IPC_ERR_NOT_OPENED, read.get());
    EXPECT_FALSE(server.Running());
    EXPECT_EQ(0, child.Wait(kWaitMs));
    // Only now has the client's Stop come past R as well: it stops L first, and that released the Read.
    EXPECT_TRUE(AllTransfersRefused(server));
}

TEST(KelIpcSocketLifecycle, StopReleasesAReaderInAnotherThreadAndStartOrResetEmptyBothDirections) {
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        const std::string name = kt::UniqueName("reset");
        KelIpcSocket server, client;
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
        ASSERT_EQ(IPC_OK, client.Open(type, Client, name.c_str(), nullptr));
        char buf[64] = {};
        auto blocked = std::async(std::launch::async, [&] { return client.Read(buf, 64); });
        EXPECT_FALSE(kt::Ready(blocked, 20));
        EXPECT_EQ(IPC_OK, server.Stop());
        EXPECT_TRUE(Finish(client, blocked)) << "the server's Stop did not release the client's Read";
        EXPECT_EQ(IPC_ERR_NOT_OPENED, blocked.get());
        EXPECT_FALSE(client.Running());
        EXPECT_TRUE(AllTransfersRefused(client));
        EXPECT_EQ(IPC_OK, client.Reset());
        EXPECT_FALSE(server.Running());  // Reset does not restart

        EXPECT_EQ(IPC_OK, client.Start());
        ASSERT_TRUE(server.Running());
        for (int (KelIpcSocket::*empty)() : {&KelIpcSocket::Reset, &KelIpcSocket::Start}) {
            ASSERT_EQ(10, client.NonBlockWrite(buf, 10));
            ASSERT_EQ(20, server.NonBlockWrite(buf, 20));
            EXPECT_EQ(IPC_OK, (server.*empty)());
            EXPECT_EQ(0, server.DataSize());
            EXPECT_EQ(0, client.DataSize());
            EXPECT_EQ(kRoom, server.SpaceSize());
            EXPECT_EQ(kRoom, client.SpaceSize());
            EXPECT_TRUE(client.Running());
        }
        EXPECT_EQ(3, client.Write("abc", 3));
        EXPECT_EQ(3, ReadArrived(server, buf, 3));
    }
}

// Argument errors return before anything is created or logged; options refused or given too late change
// nothing, and those taken are kept across Close and Open.
TEST(KelIpcSocketLifecycle, ANewSocketRefusesEverythingAndOnlyValidOptionsSetWhileClosedAreKept) {
    const std::string name = kt::UniqueName("args");
    KelIpcSocket server;
    kt::LogCapture log;
    EXPECT_TRUE(AllTransfersRefused(server));
    EXPECT_EQ(IPC_ERR_NOT_OPENED, server.Write(nullptr, 0));  // the state is tested before the arguments
    for (int rc : {server.DataSize(), server.SpaceSize(), server.Close(), server.Stop(), server.Start(),
                   server.Reset()}) {
        EXPECT_EQ(IPC_ERR_NOT_OPENED, rc);
    }
    EXPECT_EQ(IPC_ERR_NULL, server.Open(static_cast<KelIpcType>(2), Server, nullptr, nullptr));
    EXPECT_EQ(IPC_ERR_PARAM, server.Open(static_cast<KelIpcType>(2), Server, name.c_str(), nullptr));
    EXPECT_EQ(IPC_ERR_PARAM, server.Open(Process, static_cast<KelSide>(2), name.c_str(), nullptr));
    EXPECT_EQ(IPC_ERR_PARAM, server.Open(Local, static_cast<KelSide>(-1), name.c_str(), nullptr));
    int zero = 0;
    int negative = -5;
    EXPECT_EQ(IPC_ERR_PARAM, server.SetOption(static_cast<KelIpcOptionName>(TrustedUid + 1), &zero));
    EXPECT_EQ(IPC_ERR_PARAM,
              server.SetOption(static_cast<KelIpcOptionName>(-1), &zero));  // compared unsigned
    for (KelIpcOptionName number :
         {LBufferSize, RBufferSize, ReadTimeout, WriteTimeout, CloseLinger, TrustedUid}) {
        EXPECT_EQ(IPC_ERR_NULL, server.SetOption(number, nullptr));
        EXPECT_EQ(IPC_ERR_PARAM, server.SetOption(number, &negative));
        // A size of 0 is refused; a timeout of 0 waits without limit, a linger of 0 closes at once.
        EXPECT_EQ(number <= RBufferSize ? IPC_ERR_PARAM : IPC_OK, server.SetOption(number, &zero));
    }
    int nobody = -1;  // the trusted user's default: none
    EXPECT_EQ(IPC_OK, server.SetOption(TrustedUid, &nobody));
    EXPECT_TRUE(log.Records().empty());
    EXPECT_EQ(0, kt::ChannelObjects(name));
    int r = 65536;
    ASSERT_EQ(IPC_OK, server.SetOption(RBufferSize, &r));
    ASSERT_EQ(IPC_OK, server.SetOption(LNonBlock, nullptr));
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));
    int small = 16384;
    EXPECT_EQ(IPC_ERR_OPENED, server.SetOption(LBufferSize, &small));
    EXPECT_EQ(IPC_ERR_OPENED, server.SetOption(RBufferSize, nullptr));  // the open test comes first
    EXPECT_EQ(IPC_ERR_OPENED, server.SetOption(LNonBlock, nullptr));
    EXPECT_EQ(IPC_ERR_OPENED, server.Open(Local, Client, name.c_str(), nullptr));

    EXPECT_EQ(IPC_OK, server.Close());
    EXPECT_EQ(IPC_ERR_NOT_OPENED, server.Close());
    EXPECT_EQ(0, kt::ChannelObjects(name));
    ASSERT_EQ(IPC_OK, server.Open(Process, Server, name.c_str(), nullptr));  // no refused size was taken
    EXPECT_EQ(65536 - 9024 - 1, server.SpaceSize());
    char buf[4];
    auto read = std::async(std::launch::async, [&] { return server.Read(buf, 4); });
    EXPECT_TRUE(Finish(server, read)) << "LNonBlock was lost: the Read waited";  // all or nothing at once
    EXPECT_EQ(0, read.get());
}

TEST(KelIpcSocketLifecycle, DestroyingAnOpenServerRemovesItsObjectsAndStopsTheClientProcess) {
    const std::string name = kt::UniqueName("destroy");
    auto server = std::make_unique<KelIpcSocket>();
    ASSERT_EQ(IPC_OK, server->Open(Process, Server, name.c_str(), nullptr));
    kt::Child child([&] {
        KelIpcSocket client;
        if (const int rc = BlockedClientIsReleased(client, name)) return rc;
        return client.Close() == IPC_OK ? 0 : 5;  // a client only unmaps
    });
    ASSERT_TRUE(kt::WaitUntil([&] { return server->DataSize() == 1; }, kWaitMs));
    LetPeerBlock();
    server.reset();
    EXPECT_EQ(0, kt::ChannelObjects(name));
    EXPECT_EQ(0, child.Wait(kWaitMs));
}

// Every form takes its turn on a direction: three threads reading one stream with Read, BlockRead and
// NonBlockRead each get whole values, and together every value exactly once.
TEST(KelIpcSocketConcurrency, ReadersOfEveryFormOnOneDirectionShareTheStreamWithoutRepeats) {
    constexpr uint32_t kValues = 100000;
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        const std::string name = kt::UniqueName("share");
        KelIpcSocket server;
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
        KelIpcSocket client;
        auto clientPart = [&] {
            if (client.Open(type, Client, name.c_str(), nullptr) != IPC_OK) return 1;
            std::vector<uint32_t> values(kValues);
            for (uint32_t i = 0; i < kValues; ++i) values[i] = i;
            const int bytes = static_cast<int>(kValues * sizeof(uint32_t));
            if (client.BlockWrite(reinterpret_cast<const char*>(values.data()), bytes) != bytes) return 2;
            char byte;
            return client.Read(&byte, 1) == IPC_ERR_NOT_OPENED ? 0 : 3;  // until the server has all
        };
        std::vector<uint32_t> got[3];
        auto serverPart = [&] {
            std::atomic<uint32_t> total{0};
            auto reader = [&](Form form) {
                uint32_t value = 0;
                for (;;) {
                    const int rc = Receive(server, form, reinterpret_cast<char*>(&value), sizeof(value));
                    if (rc < 0) return;
                    if (rc == 0) continue;
                    got[form].push_back(value);
                    if (++total == kValues) server.Stop();
                }
            };
            std::thread readers[] = {std::thread(reader, kModeForm), std::thread(reader, kBlockForm),
                                     std::thread(reader, kNonBlockForm)};
            for (std::thread& thread : readers) thread.join();
            return total == kValues ? 0 : 1;
        };
        EXPECT_EQ(0, Pair(type, server, serverPart, clientPart));
        std::vector<uint32_t> all;
        for (const std::vector<uint32_t>& part : got) {
            EXPECT_TRUE(std::is_sorted(part.begin(), part.end()));
            all.insert(all.end(), part.begin(), part.end());
        }
        std::sort(all.begin(), all.end());
        ASSERT_EQ(kValues, all.size());
        for (uint32_t i = 0; i < kValues; ++i) ASSERT_EQ(i, all[i]);
    }
}

// A non-blocking call never waits behind a parked call of its direction, nor takes its bytes; Close
// ends a call of another thread inside the ring and waits for it to leave before it unmaps.
TEST(KelIpcSocketConcurrency, ParkedCallsKeepTheirTurnAndCloseWaitsForThemToLeave) {
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        const std::string name = kt::UniqueName("parked");
        KelIpcSocket server, client;
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
        ASSERT_EQ(IPC_OK, client.Open(type, Client, name.c_str(), nullptr));
        const std::vector<char> bytes = kt::Pattern(100);
        std::vector<char> got(100);
        auto parked = std::async(std::launch::async, [&] { return server.BlockRead(got.data(), 100); });
        EXPECT_FALSE(kt::Ready(parked, 50));
        ASSERT_EQ(10, client.NonBlockWrite(bytes.data(), 10));
        char stolen[10];
        EXPECT_EQ(0, server.NonBlockRead(stolen, 10));
        ASSERT_EQ(90, client.BlockWrite(bytes.data() + 10, 90));
        ASSERT_TRUE(Finish(server, parked));
        EXPECT_EQ(100, parked.get());
        EXPECT_EQ(bytes, got);

        kt::SignalHold hold;
        std::promise<pthread_t> self;
        auto inside = std::async(std::launch::async, [&] {
            self.set_value(pthread_self());
            return server.BlockRead(got.data(), 100);
        });
        const pthread_t reader = self.get_future().get();
        EXPECT_FALSE(kt::Ready(inside, 50));
        ASSERT_TRUE(hold.Hold(reader));
        auto close = std::async(std::launch::async, [&] { return server.Close(); });
        EXPECT_FALSE(kt::Ready(close, 200)) << "Close returned while a read was inside the ring";
        hold.Release();
        ASSERT_TRUE(kt::Ready(close, kWaitMs));
        EXPECT_EQ(IPC_OK, close.get());
        ASSERT_TRUE(kt::Ready(inside, kWaitMs));
        EXPECT_EQ(IPC_ERR_NOT_OPENED, inside.get());
    }
}

// The end of a stream as a socket gives it: every byte written before Shutdown, then IPC_ERR_PEER_CLOSED
// for a reader parked before it, for ReadSome and for a non-blocking reader; the shut end writes no more
// but still reads, and Start begins a stream without an end.
TEST(KelIpcSocketStreamEnd, ShutdownEndsTheStreamAfterEveryByteForEveryKindOfReader) {
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        const std::string name = kt::UniqueName("shut");
        KelIpcSocket server, client;
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
        ASSERT_EQ(IPC_OK, client.Open(type, Client, name.c_str(), nullptr));
        const std::vector<char> bytes = kt::Pattern(10);
        for (Form form : {kModeForm, kBlockForm, kNonBlockForm}) {
            ASSERT_EQ(10, client.Write(bytes.data(), 10));
            std::vector<char> got(100);
            // A blocking Read parks for all 100 bytes before the shutdown; the others come after it.
            const auto receive = [&] {
                return form == kBlockForm ? server.ReadSome(got.data(), 100)
                                          : Receive(server, form, got.data(), 100);
            };
            auto read = std::async(form == kModeForm ? std::launch::async : std::launch::deferred, receive);
            if (form == kModeForm) {
                EXPECT_FALSE(kt::Ready(read, 50)) << "parked for all 100 bytes";
            }
            ASSERT_EQ(IPC_OK, client.Shutdown());
            ASSERT_TRUE(form != kModeForm || Finish(server, read));
            EXPECT_EQ(10, read.get()) << "form " << form;
            EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), got.begin()));
            EXPECT_EQ(IPC_ERR_PEER_CLOSED, Receive(server, form, got.data(), 100));
            EXPECT_EQ(IPC_ERR_PEER_CLOSED, server.ReadSome(got.data(), 100));
            EXPECT_EQ(IPC_ERR_PEER_CLOSED, server.DataSize());
            EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Write(bytes.data(), 1));
            ASSERT_EQ(4, server.Write("back", 4));  // the other direction still flows
            EXPECT_EQ(4, ReadArrived(client, got.data(), 4));
            // The client leaves; until the server starts again, the next one finds no server.
            ASSERT_EQ(IPC_OK, client.Close());
            EXPECT_NE(IPC_OK, client.Open(type, Client, name.c_str(), nullptr));
            ASSERT_EQ(IPC_OK, server.Start());
            ASSERT_EQ(IPC_OK, client.Open(type, Client, name.c_str(), nullptr));
            EXPECT_EQ(0, server.NonBlockRead(got.data(), 1)) << "a restarted stream has no end yet";
        }
    }
}

// A reader that does not know the sender's sizes takes what is there; a client that sets no sizes takes
// the server's, while one that sets them must still match.
TEST(KelIpcSocketStreamEnd, ReadSomeTakesWhatIsThereAndAClientWithoutSizesTakesTheServers) {
    for (KelIpcType type : {Process, Local}) {
        SCOPED_TRACE(TypeName(type));
        const std::string name = kt::UniqueName("some");
        KelIpcSocket server, client;
        int big = 4 << 20;
        int bound = 100;
        ASSERT_EQ(IPC_OK, server.SetOption(LBufferSize, &big));
        ASSERT_EQ(IPC_OK, server.SetOption(RBufferSize, &big));
        ASSERT_EQ(IPC_OK, server.SetOption(ReadTimeout, &bound));
        ASSERT_EQ(IPC_OK, server.Open(type, Server, name.c_str(), nullptr));
        KelIpcSocket mismatched;
        kt::LogCapture quiet;
        int standard = 262144;
        ASSERT_EQ(IPC_OK, mismatched.SetOption(RBufferSize, &standard));
        EXPECT_EQ(type == Process ? IPC_ERR_FAILED : IPC_ERR_PARAM,
                  mismatched.Open(type, Client, name.c_str(), nullptr));
        ASSERT_EQ(IPC_OK, client.SetOption(RNonBlock, nullptr));
        ASSERT_EQ(IPC_OK, client.Open(type, Client, name.c_str(), nullptr));
        EXPECT_EQ(big - 9024 - 1, client.SpaceSize());

        char got[16];
        EXPECT_EQ(IPC_ERR_TIMEOUT, server.ReadSome(got, 16));
        ASSERT_EQ(5, client.Write("12345", 5));
        EXPECT_EQ(5, server.ReadSome(got, 16));
        EXPECT_EQ(0, std::memcmp(got, "12345", 5));
        auto waiting = std::async(std::launch::async, [&] { return server.ReadSome(got, 16); });
        ASSERT_EQ(3, client.Write("678", 3));
        ASSERT_TRUE(Finish(server, waiting));
        EXPECT_EQ(3, waiting.get());
        EXPECT_EQ(0, client.ReadSome(got, 2));  // a non-blocking reader: nothing there
        ASSERT_EQ(3, server.Write("abc", 3));
        EXPECT_EQ(2, client.ReadSome(got, 2));  // no more than asked
        EXPECT_EQ(1, client.ReadSome(got, 2));
    }
}
