#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <vector>

#include <gtest/gtest.h>

#include "KelCycleBuffer.h"
#include "KelSemaphore.h"
#include "KelSystemSemaphore.h"
#include "TestSupport.h"

namespace {

constexpr int kMinBlock = 32768;
constexpr int kHead = 9024;

// A zeroed heap block with a server ring and a client ring attached to it.
struct RingPair {
    explicit RingPair(int length = kMinBlock, KelMode mode = NonBlock) : block(length, 0) {
        EXPECT_EQ(IPC_OK, server.AttachLocal(block.data(), length, Server, mode, &sem));
        EXPECT_EQ(IPC_OK, client.AttachLocal(block.data(), length, Client, mode, &sem));
    }
    int DataLen() { return server.KelCBHeadPtr()->dataLen; }

    std::vector<char> block;
    KelSemaphore sem;
    KelCycleBuffer server;  // writes
    KelCycleBuffer client;  // reads
};

}  // namespace

TEST(KelCycleBufferAttach, AClientAloneDoesNotRunAndAServerClearsTheWholeBlockForTheNextClient) {
    std::vector<char> block(kMinBlock, 0);
    KelCycleBuffer client;
    ASSERT_EQ(IPC_OK, client.Attach(block.data(), kMinBlock, Client, Block));
    char byte = 0;
    EXPECT_FALSE(client.Running());
    for (int rc : {client.NonblockWrite(&byte, 1), client.NonblockRead(&byte, 1), client.Reset()}) {
        EXPECT_EQ(IPC_ERR_NOT_OPENED, rc);
    }
    EXPECT_EQ(0, client.DataSize() + client.SpaceSize());
    // Start sets the flag, yet a block that no server initialised still does not run.
    EXPECT_EQ(IPC_OK, client.Start());
    EXPECT_EQ(1, client.KelCBHeadPtr()->running);
    EXPECT_FALSE(client.Running());

    std::fill(block.begin(), block.end(), 'x');
    KelCycleBuffer server;
    EXPECT_EQ(IPC_ERR_PARAM, server.Attach(block.data(), kMinBlock - 1, Server, Block));
    EXPECT_EQ(IPC_ERR_PARAM, server.Attach(nullptr, kMinBlock, Server, Block));
    EXPECT_EQ(IPC_ERR_PARAM, server.Attach(block.data(), kMinBlock, static_cast<KelSide>(2), Block));
    EXPECT_EQ(nullptr, server.KelCBHeadPtr());
    ASSERT_EQ(IPC_OK, server.Attach(block.data(), kMinBlock, Server, Block));
    KelCBHead* head = server.KelCBHeadPtr();
    ASSERT_EQ(reinterpret_cast<KelCBHead*>(block.data()), head);
    EXPECT_EQ(kMinBlock - kHead, head->dataLen);
    EXPECT_EQ(1, head->running);
    // Every other byte of the block, data area included, is cleared.
    head->dataLen = 0;
    head->running = 0;
    EXPECT_EQ(static_cast<size_t>(kMinBlock), static_cast<size_t>(std::count(block.begin(), block.end(), 0)));
    head->dataLen = kMinBlock - kHead;
    head->running = 1;

    KelCycleBuffer next;
    ASSERT_EQ(IPC_OK, next.Attach(block.data(), kMinBlock, Client, Block));
    EXPECT_EQ(3, server.NonblockWrite("abc", 3));
    EXPECT_EQ(3, next.DataSize());
}

// Random traffic in KelCycleBufferModelTest crosses the end; ending exactly on it is too rare to rely on.
TEST(KelCycleBufferTransfer, AWriteEndingAtTheEndOfTheDataAreaWrapsThePositionToZero) {
    RingPair ring;
    KelCBHead* head = ring.server.KelCBHeadPtr();
    const int len = ring.DataLen();
    std::vector<char> out(len);
    const std::vector<char> first = kt::Pattern(len - 100);
    ASSERT_EQ(len - 100, ring.server.NonblockWrite(first.data(), len - 100));
    ASSERT_EQ(len - 100, ring.client.NonblockRead(out.data(), len - 100));
    const std::vector<char> tail = kt::Pattern(100, 1);
    ASSERT_EQ(100, ring.server.NonblockWrite(tail.data(), 100));
    EXPECT_EQ(0, head->writePos);
    ASSERT_EQ(100, ring.client.NonblockRead(out.data(), 100));
    EXPECT_EQ(0, head->readPos);
    EXPECT_TRUE(std::equal(tail.begin(), tail.end(), out.begin()));
}

TEST(KelCycleBufferTransfer, RingLargerThanTheL2CacheKeepsEveryByteOfSteppedCopies) {
    // Writes into a data area above the L2 size are copied in steps: sizes around the step, laps that
    // wrap mid-step, and a refused copy must all behave as in a small ring.
    const long l2 = sysconf(_SC_LEVEL2_CACHE_SIZE);
    RingPair ring(static_cast<int>(std::max<long>(l2, 1 << 20) + (1 << 20)));
    const int64_t total = 5 * static_cast<int64_t>(ring.DataLen()) / 2;
    const std::vector<int> sizes = {100003, 8191, 16385, 1, 24577, 8192};
    std::vector<char> out(100003);
    int64_t done = 0;
    for (size_t i = 0; done < total; ++i) {
        const int n = sizes[i % sizes.size()];
        const std::vector<char> piece = kt::Pattern(n, done);
        ASSERT_EQ(n, ring.server.NonblockWrite(piece.data(), n));
        ASSERT_EQ(n, ring.client.NonblockRead(out.data(), n));
        ASSERT_TRUE(std::equal(piece.begin(), piece.end(), out.begin())) << "at " << done;
        done += n;
    }
    EXPECT_EQ(IPC_ERR_FAILED, ring.server.NonblockWrite(nullptr, 20000));
    EXPECT_EQ(0, ring.server.DataSize());
}

// Bad counts of the non-blocking forms are the model test's part.
TEST(KelCycleBufferTransfer, BadCountsPointersAndHeaderWordsNeverMoveBytes) {
    RingPair ring;
    char byte = 'a';
    EXPECT_EQ(IPC_ERR_FAILED, ring.server.NonblockWrite(nullptr, 5));
    EXPECT_EQ(0, ring.client.NonblockRead(nullptr, 5));  // not there: nothing to copy into
    EXPECT_EQ(0, ring.server.DataSize());
    EXPECT_EQ(IPC_ERR_NULL, ring.server.Write(nullptr, 1));
    EXPECT_EQ(IPC_ERR_NULL, ring.server.Write(&byte, 0));
    EXPECT_EQ(IPC_ERR_NULL, ring.client.Read(&byte, -1));
    EXPECT_EQ(0, ring.server.BlockWrite(&byte, 0));
    EXPECT_EQ(IPC_ERR_FAILED, ring.server.BlockWrite(&byte, -1));
    EXPECT_EQ(0, ring.client.BlockRead(&byte, 0));
    EXPECT_EQ(IPC_ERR_FAILED, ring.client.BlockRead(&byte, -1));

    // Positions outside the data area, as a corrupt or hostile header holds them.
    KelCBHead* head = ring.server.KelCBHeadPtr();
    const int len = ring.DataLen();
    std::vector<char> bytes = kt::Pattern(64);
    for (int32_t value : {-1, len, len + 5000, INT32_MIN, INT32_MAX}) {
        head->writePos = value;
        head->readPos = 0;
        EXPECT_GE(0, ring.server.NonblockWrite(bytes.data(), 8)) << value;
        EXPECT_GE(0, ring.client.NonblockRead(bytes.data(), 8)) << value;
        head->writePos = 0;
        head->readPos = value;
        EXPECT_GE(0, ring.server.NonblockWrite(bytes.data(), 8)) << value;
        EXPECT_GE(0, ring.client.NonblockRead(bytes.data(), 8)) << value;
    }
    // A data length larger than the block this side attached is refused too.
    head->readPos = 0;
    head->writePos = 60;
    head->dataLen = len * 4;
    EXPECT_EQ(IPC_ERR_FAILED, ring.client.NonblockRead(bytes.data(), 8));
    head->dataLen = len;
    head->writePos = 0;
    EXPECT_EQ(8, ring.server.NonblockWrite(bytes.data(), 8));
}

TEST(KelCycleBufferSideData, SurvivesStopAndStartAndIsClearedByServerAttach) {
    RingPair ring;
    std::vector<char> gcm = kt::Pattern(512);
    std::vector<char> out(512, 'z');
    ASSERT_EQ(IPC_OK, ring.client.GetGcmData(out.data(), 512));
    EXPECT_EQ(512, std::count(out.begin(), out.end(), 0));
    ASSERT_EQ(IPC_OK, ring.server.SetGcmData(gcm.data(), 512));
    EXPECT_EQ(IPC_ERR_FAILED, ring.server.SetGcmData(out.data(), 511));
    EXPECT_EQ(IPC_ERR_FAILED, ring.client.GetGcmData(out.data(), 513));
    ASSERT_EQ(IPC_OK, ring.server.SetWyTransCounter(5, 7));
    ASSERT_EQ(IPC_OK, ring.client.SetWyTransCounter(3, 2));
    std::memset(ring.server.KelCBHeadPtr()->ipcStatus.bytes, 0x5a, sizeof(KelIpcStatus));

    ASSERT_EQ(IPC_OK, ring.server.Stop());
    ASSERT_EQ(IPC_OK, ring.server.Start());
    ASSERT_EQ(IPC_OK, ring.client.GetGcmData(out.data(), 512));
    EXPECT_EQ(gcm, out);
    uint64_t total = 0;
    uint64_t latest = 0;
    ASSERT_EQ(IPC_OK, ring.client.GetWyTransCounter(total, latest));
    EXPECT_EQ(8u, total);
    EXPECT_EQ(2u, latest);
    KelIpcStatus status;
    ASSERT_EQ(IPC_OK, ring.client.GetIpcStatus(status));
    EXPECT_EQ(0x5a, status.bytes[287]);

    // A rejected copy clears the stored block; the counter wraps at 2^64.
    EXPECT_EQ(IPC_ERR_FAILED, ring.server.SetGcmData(nullptr, 512));
    ring.client.GetGcmData(out.data(), 512);
    EXPECT_EQ(512, std::count(out.begin(), out.end(), 0));
    ring.server.ResetWyTransCounter();
    ring.server.SetWyTransCounter(UINT64_MAX, 1);
    ring.server.SetWyTransCounter(1, 9);
    ring.client.GetWyTransCounter(total, latest);
    EXPECT_EQ(0u, total);
    EXPECT_EQ(9u, latest);

    ring.server.SetGcmData(gcm.data(), 512);
    ASSERT_EQ(IPC_OK, ring.server.Attach(ring.block.data(), kMinBlock, Server, Block));
    ring.client.GetGcmData(out.data(), 512);
    EXPECT_EQ(512, std::count(out.begin(), out.end(), 0));
    EXPECT_EQ(IPC_OK, ring.client.EraseGcmData());
}

TEST(KelCycleBufferSideData, UnattachedRingRefusesEverythingAndZeroesOutputs) {
    KelCycleBuffer ring;
    uint64_t total = 1;
    uint64_t latest = 1;
    KelIpcStatus status;
    std::memset(&status, 1, sizeof(status));
    char gcm[512];
    EXPECT_EQ(IPC_ERR_FAILED, ring.GetWyTransCounter(total, latest));
    EXPECT_EQ(0u, total + latest);
    EXPECT_EQ(IPC_ERR_FAILED, ring.GetIpcStatus(status));
    EXPECT_EQ(0, status.bytes[0] + status.bytes[287]);
    for (int rc : {ring.EraseGcmData(), ring.SetWyTransCounter(1, 1), ring.ResetWyTransCounter()}) {
        EXPECT_EQ(IPC_ERR_FAILED, rc);
    }
    for (int rc : {ring.SetGcmData(gcm, 512), ring.GetGcmData(gcm, 512), ring.Write(gcm, 1),
                   ring.BlockRead(gcm, 1), ring.Stop(), ring.Start(), ring.SemRelease(), ring.SemAcquire()}) {
        EXPECT_EQ(IPC_ERR_NOT_OPENED, rc);
    }
}

// A writer waiting for room sleeps on a word of its own that Stop must wake; a reader's release is the
// socket tests' part. A write held up in a signal handler cannot leave: Stop then fails and says so.
TEST(KelCycleBufferBlocking, StopReleasesAWaitingWriterButLogsAndFailsWhileAWriteCannotLeave) {
    RingPair ring(kMinBlock, Block);
    const std::vector<char> bytes = kt::Pattern(ring.DataLen() + 10);
    kt::SignalHold hold;
    kt::LogCapture log;
    for (bool held : {false, true}) {
        SCOPED_TRACE(held ? "held in a handler" : "waiting");
        ASSERT_EQ(IPC_OK, ring.server.Start());
        std::promise<pthread_t> self;
        auto writer = std::async(std::launch::async, [&] {
            self.set_value(pthread_self());
            return ring.server.Write(bytes.data(), static_cast<int>(bytes.size()));
        });
        const pthread_t writerThread = self.get_future().get();
        // The writer moves whole pieces of block/50 bytes, so it stalls with less than a piece free.
        EXPECT_TRUE(kt::WaitUntil([&] { return ring.server.SpaceSize() < kMinBlock / 50; }, 10000));
        if (held) {
            EXPECT_TRUE(hold.Hold(writerThread));
        }
        EXPECT_EQ(held ? IPC_ERR_FAILED : IPC_OK, ring.server.Stop());
        hold.Release();
        ASSERT_TRUE(kt::Ready(writer, 10000));
        EXPECT_EQ(IPC_ERR_NOT_OPENED, writer.get());
        EXPECT_EQ(0, ring.server.KelCBHeadPtr()->writePos);
    }
    EXPECT_EQ(log.Lines("BaseAPI/KelIpc/src/KelCycleBuffer/KelCycleBuffer"),
              std::vector<std::string>{"Stop|Not Exit:1,0"});
}

// A blocking call that could not finish must not start: a caller retrying after a partial move would
// write or read its bytes twice.
TEST(KelCycleBufferBlocking, BlockingFormsWithoutASemaphoreRefuseBeforeMovingAByte) {
    std::vector<char> block(kMinBlock, 0);
    KelCycleBuffer writer, reader;
    ASSERT_EQ(IPC_OK, writer.Attach(block.data(), kMinBlock, Server, Block));
    ASSERT_EQ(IPC_OK, reader.Attach(block.data(), kMinBlock, Client, Block));
    const std::vector<char> bytes = kt::Pattern(3 * kMinBlock / 50);
    const int size = static_cast<int>(bytes.size());
    EXPECT_EQ(IPC_ERR_NOT_OPENED, writer.BlockWrite(bytes.data(), size));
    EXPECT_EQ(IPC_ERR_NOT_OPENED, writer.Write(bytes.data(), size));
    EXPECT_EQ(0, reader.DataSize());
    ASSERT_EQ(1000, writer.NonblockWrite(bytes.data(), 1000));  // more than one piece, less than two
    std::vector<char> out(size);
    EXPECT_EQ(IPC_ERR_NOT_OPENED, reader.BlockRead(out.data(), size));
    EXPECT_EQ(IPC_ERR_NOT_OPENED, reader.Read(out.data(), size));
    EXPECT_EQ(1000, reader.DataSize());
    EXPECT_EQ(0, writer.BlockWrite(bytes.data(), 0));
}

// An in-process semaphore counts every release: a writer that signalled each piece for a reader that
// drains without waiting would leave a later blocking read to spin through them all.
TEST(KelCycleBufferBlocking, InProcessWritersSignalOnlyAReaderThatMaySleep) {
    RingPair ring(kMinBlock, Block);
    const std::vector<char> bytes = kt::Pattern(100);
    std::vector<char> out(100);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(100, ring.server.BlockWrite(bytes.data(), 100));
        ASSERT_EQ(100, ring.client.NonblockRead(out.data(), 100));
    }
    int pending = 0;
    while (ring.sem.AcquireFor(0)) ++pending;
    EXPECT_EQ(0, pending);
    // A reader that sleeps is still woken, in a blocking read and in SemAcquire alike.
    auto read = std::async(std::launch::async, [&] { return ring.client.BlockRead(out.data(), 100); });
    EXPECT_FALSE(kt::Ready(read, 50));
    ASSERT_EQ(100, ring.server.BlockWrite(bytes.data(), 100));
    EXPECT_TRUE(kt::Ready(read, 5000));
    auto acquire = std::async(std::launch::async, [&] { return ring.client.SemAcquire(); });
    EXPECT_FALSE(kt::Ready(acquire, 50));
    ASSERT_EQ(100, ring.server.BlockWrite(bytes.data(), 100));
    EXPECT_TRUE(kt::Ready(acquire, 5000));
    ring.server.Stop();  // releases whichever wait the assertions above found stuck
}

// A wait that fails without a system call leaves errno as it was: an EINTR from before is no wake-up.
TEST(KelCycleBufferBlocking, AReadWhoseSemaphoreIsNotOpenEndsInsteadOfSpinning) {
    EXPECT_EQ(0, kt::RunInChild(
                     [] {
                         std::vector<char> block(kMinBlock, 0);
                         KelSystemSemaphore closed;
                         KelCycleBuffer ring;
                         if (ring.AttachIpc(block.data(), kMinBlock, Server, Block, &closed) != IPC_OK)
                             return 1;
                         char byte = 0;
                         errno = EINTR;
                         return ring.BlockRead(&byte, 1) == IPC_ERR_NOT_OPENED ? 0 : 2;
                     },
                     5000));
}
