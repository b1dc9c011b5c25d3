// The wake-up handshake kept in the ring header's reserved area, seen from outside: the words at their
// documented offsets, what each end does with them, ends that follow only the bare protocol, and streams
// whose bursts and pauses give a lost wake-up every chance to show as a hang.

#include <sys/mman.h>
#include <sys/sem.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "KelCycleBuffer.h"
#include "KelDateTime.h"
#include "KelSemaphore.h"
#include "KelSystemSemaphore.h"
#include "TestSupport.h"

namespace {

constexpr int kBlock = 32768;
constexpr int kHead = 9024;
constexpr int kChunk = kBlock / 50;

// The documented words, by header offset: each end's wait word and the CPU it last ran on.
constexpr size_t kReader = 832, kReaderCpu = 836, kWriter = 896, kWriterCpu = 900;
constexpr size_t kWords[] = {kReader, kReaderCpu, kWriter, kWriterCpu};
int32_t& Word(KelCycleBuffer& ring, size_t offset) {
    return *reinterpret_cast<int32_t*>(reinterpret_cast<char*>(ring.KelCBHeadPtr()) + offset);
}

int SemValue(const std::string& name) {
    return semctl(semget(kt::Djb2Key(name), 1, 0), 0, GETVAL);
}

// A ring over a shared anonymous mapping, so that a forked child sees the same block, woken through a
// System V semaphore as between processes. Behind the block, where no ring reaches, the bytes a reader
// reports as consumed.
struct SharedRing {
    SharedRing() : name(kt::UniqueName("hs") + "_ssm") {
        void* mapped = mmap(nullptr, kMapped, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        block = mapped == MAP_FAILED ? nullptr : static_cast<char*>(mapped);
        EXPECT_NE(nullptr, block);
        consumed = block == nullptr ? nullptr : new (block + kBlock) std::atomic<int64_t>(0);
        EXPECT_EQ(IPC_OK, sem.Open(name.c_str(), Server, nullptr));
        EXPECT_EQ(IPC_OK, server.AttachIpc(block, kBlock, Server, Block, &sem));
    }
    ~SharedRing() {
        if (block != nullptr) munmap(block, kMapped);
    }
    KelCBHead* Head() { return reinterpret_cast<KelCBHead*>(block); }
    // The other process's end of the semaphore and, unless null, of the ring.
    bool Peer(KelSystemSemaphore& peerSem, KelCycleBuffer* peer) {
        return peerSem.Open(name.c_str(), Client, nullptr) == IPC_OK &&
               (peer == nullptr || peer->AttachIpc(block, kBlock, Client, Block, &peerSem) == IPC_OK);
    }

    static constexpr size_t kMapped = kBlock + sizeof(std::atomic<int64_t>);
    std::string name;
    char* block = nullptr;
    std::atomic<int64_t>* consumed = nullptr;
    KelSystemSemaphore sem;
    KelCycleBuffer server;
};

// Bursts of random sizes with random pauses on either side, so that each is sometimes the faster one
// and the reader falls asleep and is woken again and again. With consumed, the writer often waits after
// a burst for the reader to report every byte read: a wake-up lost at the end of a burst leaves the
// reader asleep, and no later piece would hide it. For that the reader reads in the writer's sizes (the
// same seed), so that its read never waits for bytes the writer holds back. True when every byte went
// through in order.
bool BurstyEnd(KelCycleBuffer& ring, bool writes, int64_t total, uint32_t sizeSeed, uint32_t pauseSeed,
               std::atomic<int64_t>* consumed) {
    std::mt19937 sizes(sizeSeed);
    std::mt19937 random(pauseSeed);
    std::vector<char> piece(3 * kChunk);
    for (int64_t done = 0; done < total;) {
        const int n = static_cast<int>(std::min<int64_t>(1 + sizes() % (3 * kChunk), total - done));
        if (writes) piece = kt::Pattern(n, done);
        if ((writes ? ring.Write(piece.data(), n) : ring.Read(piece.data(), n)) != n) return false;
        if (!writes && kt::FirstWrong(piece.data(), n, done) >= 0) return false;
        done += n;
        if (!writes && consumed != nullptr) consumed->store(done, std::memory_order_release);
        if (writes && consumed != nullptr && random() % 2 == 0) {
            // A spin, not a sleep: the next piece comes while the reader is on its way to sleep.
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (consumed->load(std::memory_order_acquire) != done) {
                if (std::chrono::steady_clock::now() > deadline) return false;
                std::this_thread::yield();
            }
        }
        const uint32_t pause = random() % 8;
        if (pause == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
        if (pause == 1) std::this_thread::yield();
    }
    return true;
}

// Runs peer in a forked child or in another thread, and ours in a thread of this process. A side that
// hangs, as after a lost wake-up, is ended by the bound and a Stop of the ring, and fails the run.
bool BothEndsSucceed(KelCycleBuffer& ring, bool fork, const std::function<bool()>& peer,
                     const std::function<bool()>& ours) {
    std::unique_ptr<kt::Child> child;
    std::future<bool> thread;
    if (fork) {
        child = std::make_unique<kt::Child>([&] { return peer() ? 0 : 1; });  // before any thread starts
    } else {
        thread = std::async(std::launch::async, peer);
    }
    auto mine = std::async(std::launch::async, ours);
    const bool peerDone = fork ? child->Wait(60000) == 0 : kt::Ready(thread, 60000) && thread.get();
    if (!peerDone || !kt::Ready(mine, 10000)) ring.Stop();
    return mine.get() && peerDone;
}

constexpr int64_t kBurstTotal = 4 << 20;

}  // namespace

TEST(KelRingHandshake, WriterSignalsOnlyAReaderThatMaySleepUntilEnoughIsStored) {
    SharedRing ring;
    const std::vector<char> bytes = kt::Pattern(200);
    // A fresh ring: nobody has announced anything, so every piece signals as the bare protocol says.
    ASSERT_EQ(10, ring.server.BlockWrite(bytes.data(), 10));
    EXPECT_EQ(1, SemValue(ring.name));

    ASSERT_EQ(IPC_OK, ring.sem.Reset());
    Word(ring.server, kReader) = -1;  // a reader of ours, awake
    ASSERT_EQ(10, ring.server.BlockWrite(bytes.data(), 10));
    EXPECT_EQ(0, SemValue(ring.name));

    Word(ring.server, kReader) = 100;  // asleep until 100 bytes are stored; 20 are
    ASSERT_EQ(50, ring.server.BlockWrite(bytes.data(), 50));
    EXPECT_EQ(0, SemValue(ring.name)) << "woken for 70 of the 100 bytes it waits for";
    ASSERT_EQ(50, ring.server.BlockWrite(bytes.data(), 50));
    EXPECT_EQ(1, SemValue(ring.name));
    EXPECT_EQ(-1, Word(ring.server, kReader))
        << "the writer claims the wake-up so later pieces do not signal";

    // A non-blocking write never signals, whatever the word says.
    ASSERT_EQ(IPC_OK, ring.sem.Reset());
    Word(ring.server, kReader) = 0;
    ASSERT_EQ(10, ring.server.NonblockWrite(bytes.data(), 10));
    EXPECT_EQ(0, SemValue(ring.name));
}

TEST(KelRingHandshake, ReaderAnnouncesItsSleepWakesAWriterOnceItFreedTheRoomAskedForAndRestartsClearAll) {
    SharedRing ring;
    KelCycleBuffer reader;
    ASSERT_EQ(IPC_OK, reader.AttachIpc(ring.block, kBlock, Client, Block, &ring.sem));
    std::vector<char> out(1000);
    auto blocked = std::async(std::launch::async, [&] { return reader.Read(out.data(), 100); });
    EXPECT_TRUE(kt::WaitUntil(
        [&] { return __atomic_load_n(&Word(reader, kReader), __ATOMIC_RELAXED) == 100; }, 10000));
    const std::vector<char> bytes = kt::Pattern(kBlock - kHead - 1);
    EXPECT_EQ(100, ring.server.BlockWrite(bytes.data(), 100));
    const bool woken = kt::Ready(blocked, 10000);
    if (!woken) ring.server.Stop();  // lets the read go, so that the test fails instead of hanging
    ASSERT_TRUE(woken);
    EXPECT_EQ(100, blocked.get());
    EXPECT_EQ(0, std::memcmp(bytes.data(), out.data(), 100));
    EXPECT_EQ(-1, Word(reader, kReader)) << "awake between reads, announced again before any sleep";

    ASSERT_EQ(kBlock - kHead - 1, ring.server.NonblockWrite(bytes.data(), kBlock - kHead - 1));
    Word(ring.server, kWriter) = 1000;  // a writer of ours waits for 1000 bytes of room
    ASSERT_EQ(600, reader.NonblockRead(out.data(), 600));
    EXPECT_EQ(1000, Word(ring.server, kWriter));
    ASSERT_EQ(400, reader.NonblockRead(out.data(), 400));
    EXPECT_EQ(0, Word(ring.server, kWriter));
    // A blocking read that leaves wakes a waiting writer whatever it freed: it frees no more.
    Word(ring.server, kWriter) = 5000;
    ASSERT_EQ(10, reader.BlockRead(out.data(), 10));
    EXPECT_EQ(0, Word(ring.server, kWriter));

    // Reset, Start and Stop all begin the handshake anew: both words and both CPU words zero.
    for (int (KelCycleBuffer::*restart)() :
         {&KelCycleBuffer::Reset, &KelCycleBuffer::Start, &KelCycleBuffer::Stop}) {
        for (size_t word : kWords) Word(reader, word) = 7;
        EXPECT_EQ(IPC_OK, (ring.server.*restart)());
        for (size_t word : kWords) EXPECT_EQ(0, Word(reader, word)) << "at " << word;
    }
    // The bytes around the words stay untouched: the reserved area is otherwise the application's.
    EXPECT_EQ(0, ring.Head()->reserved[8]);
    EXPECT_EQ(0, ring.Head()->reserved[72]);
}

// A reader that waits through SemAcquire after its blocking reads still counts as awake for the writer,
// which skips its signal: it must not sleep with the bytes there.
TEST(KelRingHandshake, SemAcquireAfterABlockingReadWakesForBytesThatCameSinceTheLastLook) {
    SharedRing ring;
    KelCycleBuffer reader;
    ASSERT_EQ(IPC_OK, reader.AttachIpc(ring.block, kBlock, Client, Block, &ring.sem));
    std::vector<char> bytes(10);
    ASSERT_EQ(10, ring.server.BlockWrite(bytes.data(), 10));
    ASSERT_EQ(10, reader.BlockRead(bytes.data(), 10));
    ASSERT_EQ(IPC_OK, ring.sem.Reset());
    ASSERT_EQ(0, reader.NonblockRead(bytes.data(), 10));      // the caller's look: nothing yet
    ASSERT_EQ(10, ring.server.BlockWrite(bytes.data(), 10));  // no signal: the reader is awake
    EXPECT_EQ(0, SemValue(ring.name));
    for (bool arrived : {true, false}) {
        auto acquire = std::async(std::launch::async, [&] { return reader.SemAcquire(); });
        if (!arrived) {
            // Nothing came since the last look: it sleeps until the next piece, which signals.
            EXPECT_FALSE(kt::Ready(acquire, 50));
            ASSERT_EQ(10, ring.server.BlockWrite(bytes.data(), 10));
        }
        const bool woken = kt::Ready(acquire, 5000);
        if (!woken) ring.sem.Release();
        EXPECT_TRUE(woken) << (arrived ? "bytes that came before the wait" : "bytes during it");
        EXPECT_EQ(IPC_OK, acquire.get());
        EXPECT_EQ(10, reader.NonblockRead(bytes.data(), 10));
    }
}

// Each direction between a bare end in a child process and one of ours in this one.
TEST(KelRingHandshake, EndsThatIgnoreTheWordsStreamWithOursBothWays) {
    const int64_t total = 40LL * (kBlock - kHead);
    for (bool bareWrites : {true, false}) {
        SharedRing ring;
        KelCycleBuffer reader;
        if (bareWrites) {
            ASSERT_EQ(IPC_OK, reader.AttachIpc(ring.block, kBlock, Client, Block, &ring.sem));
        }
        KelCycleBuffer& ours = bareWrites ? reader : ring.server;
        EXPECT_TRUE(BothEndsSucceed(
            ring.server, true,
            [&] {
                KelSystemSemaphore sem;
                // A bare writer polls for room, pausing 1 ms and signalling; a bare reader sleeps until a
                // signal.
                const auto pause = [&] {
                    if (!bareWrites) return sem.Acquire() == IPC_OK || errno == EINTR;
                    KelSleep(1);
                    return sem.Release() == IPC_OK;
                };
                return ring.Peer(sem, nullptr) &&
                       kt::BareEnd(ring.Head(), total, bareWrites, kChunk, pause, [&] { sem.Release(); });
            },
            [&] { return BurstyEnd(ours, !bareWrites, total, 1, 2, nullptr); }))
            << (bareWrites ? "a bare writer to our reader" : "our writer to a bare reader");
    }
}

// The same stream between threads on the in-process semaphore and between processes on a System V one.
TEST(KelRingHandshake, BurstsWithRandomPausesLoseNoWakeUpBetweenThreadsOrProcesses) {
    for (uint32_t seed : {11u, 12u, 13u, 21u}) {
        const bool fork = seed > 20;
        SharedRing ring;
        KelSemaphore local;
        KelCycleBuffer reader;
        if (!fork) {
            ASSERT_EQ(IPC_OK, ring.server.AttachLocal(ring.block, kBlock, Server, Block, &local));
            ASSERT_EQ(IPC_OK, reader.AttachLocal(ring.block, kBlock, Client, Block, &local));
        }
        ASSERT_TRUE(BothEndsSucceed(
            ring.server, fork,
            [&] {
                KelSystemSemaphore sem;
                if (fork && !ring.Peer(sem, &reader)) return false;
                return BurstyEnd(reader, false, kBurstTotal, seed, seed * 13, ring.consumed);
            },
            [&] { return BurstyEnd(ring.server, true, kBurstTotal, seed, seed * 7, ring.consumed); }))
            << "seed " << seed;
    }
}

// Every interleaving of one reader and one writer, stepped one shared access at a time under sequential
// consistency (the fences on both sides give exactly that order). The reader wants `need` bytes; the
// writer publishes pieces and signals as the ring does. A state where the writer is done, the reader
// sleeps and the bytes it waits for are stored is a lost wake-up. Taking out either half of the
// handshake must make the search find one: the reader's re-test, or the writer's order of publishing
// before looking at the word (which a missing fence would let the CPU swap).
namespace {

struct Model {
    bool retest = true;      // the reader tests the ring again after announcing itself
    bool wordFirst = false;  // the writer looks at the word before it publishes its piece
    int pieces = 3;
    int need = 2;
};

struct State {
    int stored = 0, word = 0, sem = 0;  // shared: bytes published, reader word, semaphore value
    int rpc = 0, wpc = 0, seen = 0, done = 0;
    bool operator<(const State& o) const {
        return std::tie(stored, word, sem, rpc, wpc, seen, done) <
               std::tie(o.stored, o.word, o.sem, o.rpc, o.wpc, o.seen, o.done);
    }
};

// Reader: 0 enter (word = -1), 1 test, 2 announce, 3 re-test, 4 sleep, 5 woken (word = -1), 6 done.
bool ReaderStep(const Model& m, State& s) {
    switch (s.rpc) {
        case 0:
        case 5:
            s.word = -1;
            s.rpc = 1;
            return true;
        case 1:
            s.rpc = s.stored >= m.need ? 6 : 2;
            return true;
        case 2:
            s.word = m.need;
            s.rpc = m.retest ? 3 : 4;
            return true;
        case 3:
            s.rpc = s.stored >= m.need ? 5 : 4;
            return true;
        case 4:
            if (s.sem == 0) return false;
            s.sem = 0;
            s.rpc = 5;
            return true;
        default:
            return false;
    }
}

// Writer: 0 publish a piece, 1 read the word (both the other way round with wordFirst), 2 claim the
// wake-up, 3 signal.
bool WriterStep(const Model& m, State& s) {
    if (s.done == m.pieces && s.wpc == 0) return false;
    const auto publish = [&] { ++s.stored, ++s.done; };
    const auto look = [&] { s.seen = s.word; };
    switch (s.wpc) {
        case 0:
            m.wordFirst ? look() : publish();
            s.wpc = 1;
            return true;
        case 1:
            m.wordFirst ? publish() : look();
            s.wpc = s.seen == -1 || (s.seen > 0 && s.stored < s.seen) ? 0 : s.seen > 0 ? 2 : 3;
            return true;
        case 2:
            if (s.word == s.seen) s.word = -1;
            s.wpc = 3;
            return true;
        case 3:
            s.sem = 1;
            s.wpc = 0;
            return true;
        default:
            return false;
    }
}

// True when some interleaving ends with the reader not done although every piece it needs was written.
bool FindsLostWakeUp(const Model& m) {
    return kt::FindsStuckInterleaving<State>([&](State& s) { return ReaderStep(m, s); },
                                             [&](State& s) { return WriterStep(m, s); },
                                             [](const State& s) { return s.rpc == 6; });
}

}  // namespace

TEST(KelRingHandshake, NoInterleavingLosesAWakeUpAndEachHalfOfTheHandshakeIsNeeded) {
    for (int pieces = 1; pieces <= 4; ++pieces) {
        for (int need = 1; need <= pieces; ++need) {
            EXPECT_FALSE(FindsLostWakeUp(Model{true, false, pieces, need}))
                << pieces << " pieces, need " << need;
        }
    }
    EXPECT_TRUE(FindsLostWakeUp(Model{false, false, 2, 1})) << "without the reader's re-test";
    EXPECT_TRUE(FindsLostWakeUp(Model{true, true, 2, 2})) << "with the writer's look before its publication";
}
