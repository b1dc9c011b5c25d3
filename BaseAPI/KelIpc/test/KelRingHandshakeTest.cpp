// The wake-up handshake kept in the ring header's reserved area, seen from outside: the words at their
// documented offsets, what each end does with them, ends that follow only the bare protocol, and streams
// whose bursts and pauses give a lost wake-up every chance to show as a hang.

#include <sys/mman.h>
#include <sys/sem.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <new>
#include <random>
#include <set>
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
int32_t& Word(KelCycleBuffer& ring, size_t offset) {
    return *reinterpret_cast<int32_t*>(reinterpret_cast<char*>(ring.KelCBHeadPtr()) + offset);
}

int SemValue(const std::string& name) {
    return semctl(semget(kt::Djb2Key(name), 1, 0), 0, GETVAL);
}

// A ring over a shared anonymous mapping, so that a forked child sees the same block, woken through a
// System V semaphore as between processes.
struct SharedRing {
    SharedRing() : name(kt::UniqueName("hs") + "_ssm") {
        void* mapped = mmap(nullptr, kBlock, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        block = mapped == MAP_FAILED ? nullptr : static_cast<char*>(mapped);
        EXPECT_NE(nullptr, block);
        EXPECT_EQ(IPC_OK, sem.Open(name.c_str(), Server, nullptr));
        EXPECT_EQ(IPC_OK, server.AttachIpc(block, kBlock, Server, Block, &sem));
    }
    ~SharedRing() {
        if (block != nullptr) munmap(block, kBlock);
    }
    KelCBHead* Head() { return reinterpret_cast<KelCBHead*>(block); }
    // The other process's end of the semaphore and, unless null, of the ring.
    bool Peer(KelSystemSemaphore& peerSem, KelCycleBuffer* peer) {
        return peerSem.Open(name.c_str(), Client, nullptr) == IPC_OK &&
               (peer == nullptr || peer->AttachIpc(block, kBlock, Client, Block, &peerSem) == IPC_OK);
    }

    std::string name;
    char* block = nullptr;
    KelSystemSemaphore sem;
    KelCycleBuffer server;
};

// An end written from the ring format alone: positions, run flag and a signal after every piece; it
// never looks at the reserved area. Returns 0 when all total bytes went through in order.
int BareWrite(KelCBHead* head, KelSystemSemaphore& sem, int64_t total) {
    char* const area = reinterpret_cast<char*>(head) + kHead;
    const int32_t len = head->dataLen;
    for (int64_t done = 0; done < total;) {
        const int32_t w = __atomic_load_n(&head->writePos, __ATOMIC_RELAXED);
        const int32_t r = __atomic_load_n(&head->readPos, __ATOMIC_ACQUIRE);
        const int64_t room = len - 1 - (static_cast<int64_t>(w) + len - r) % len;
        const int64_t piece = std::min<int64_t>({kChunk, total - done});
        if (room < piece) {
            KelSleep(1);
            sem.Release();
            continue;
        }
        for (int64_t i = 0; i < piece; ++i) area[(w + i) % len] = kt::PatternByte(done + i);
        __atomic_store_n(&head->writePos, static_cast<int32_t>((w + piece) % len), __ATOMIC_RELEASE);
        sem.Release();
        done += piece;
    }
    return 0;
}

int BareRead(KelCBHead* head, KelSystemSemaphore& sem, int64_t total) {
    const char* const area = reinterpret_cast<const char*>(head) + kHead;
    const int32_t len = head->dataLen;
    for (int64_t done = 0; done < total;) {
        const int32_t r = __atomic_load_n(&head->readPos, __ATOMIC_RELAXED);
        const int32_t w = __atomic_load_n(&head->writePos, __ATOMIC_ACQUIRE);
        const int64_t stored = (static_cast<int64_t>(w) + len - r) % len;
        const int64_t piece = std::min<int64_t>(kChunk, total - done);
        if (stored < piece) {
            if (sem.Acquire() != IPC_OK && errno != EINTR) return 2;
            continue;
        }
        for (int64_t i = 0; i < piece; ++i) {
            if (area[(r + i) % len] != kt::PatternByte(done + i)) return 1;
        }
        __atomic_store_n(&head->readPos, static_cast<int32_t>((r + piece) % len), __ATOMIC_RELEASE);
        done += piece;
    }
    return 0;
}

// Bursts of random sizes with random pauses on either side, so that each is sometimes the faster one
// and the reader falls asleep and is woken again and again. After many bursts the writer waits for the
// reader to report every byte read: a wake-up lost at the end of a burst leaves the reader asleep, and
// no later piece would hide it. For that the reader reads in the writer's sizes (the same seed), so
// that its read never waits for bytes the writer holds back.
void Pause(std::mt19937& random) {
    const uint32_t kind = random() % 8;
    if (kind == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
    if (kind == 1) std::this_thread::yield();
}

bool BurstyWrite(KelCycleBuffer& ring, int64_t total, uint32_t sizeSeed, uint32_t pauseSeed,
                 const std::atomic<int64_t>* consumed) {
    std::mt19937 sizes(sizeSeed);
    std::mt19937 random(pauseSeed);
    std::vector<char> piece;
    for (int64_t done = 0; done < total;) {
        const int n = static_cast<int>(std::min<int64_t>(1 + sizes() % (3 * kChunk), total - done));
        piece = kt::Pattern(n, done);
        if (ring.Write(piece.data(), n) != n) return false;
        done += n;
        if (consumed != nullptr && random() % 2 == 0) {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
            while (consumed->load(std::memory_order_acquire) != done) {
                if (std::chrono::steady_clock::now() > deadline) return false;
                std::this_thread::yield();
            }
        }
        Pause(random);
    }
    return true;
}

// Offset of the first wrong byte, or -1.
int64_t BurstyRead(KelCycleBuffer& ring, int64_t total, uint32_t sizeSeed, uint32_t pauseSeed,
                   std::atomic<int64_t>* consumed) {
    std::mt19937 sizes(sizeSeed);
    std::mt19937 random(pauseSeed);
    std::vector<char> buffer(3 * kChunk);
    for (int64_t done = 0; done < total;) {
        const int n = static_cast<int>(std::min<int64_t>(1 + sizes() % (3 * kChunk), total - done));
        if (ring.Read(buffer.data(), n) != n) return done;
        for (int i = 0; i < n; ++i) {
            if (buffer[i] != kt::PatternByte(done + i)) return done + i;
        }
        done += n;
        if (consumed != nullptr) consumed->store(done, std::memory_order_release);
        Pause(random);
    }
    return -1;
}

constexpr int64_t kBurstTotal = 4 << 20;

}  // namespace

TEST(KelRingHandshake, WriterSignalsOnlyAReaderThatMaySleepUntilEnoughIsStored) {
    SharedRing ring;
    const std::vector<char> bytes = kt::Pattern(200);
    // A fresh ring: nobody has announced anything, so every piece signals as the bare protocol says.
    EXPECT_EQ(0, Word(ring.server, kReader));
    EXPECT_EQ(0, Word(ring.server, kWriter));
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

TEST(KelRingHandshake, ReaderWakesAWriterOnlyOnceItFreedTheRoomAskedFor) {
    SharedRing ring;
    KelCycleBuffer reader;
    ASSERT_EQ(IPC_OK, reader.AttachIpc(ring.block, kBlock, Client, Block, &ring.sem));
    const int dataLen = kBlock - kHead;
    const std::vector<char> bytes = kt::Pattern(dataLen - 1);
    ASSERT_EQ(dataLen - 1, ring.server.NonblockWrite(bytes.data(), dataLen - 1));
    Word(ring.server, kWriter) = 1000;  // a writer of ours waits for 1000 bytes of room
    std::vector<char> out(1000);
    ASSERT_EQ(600, reader.NonblockRead(out.data(), 600));
    EXPECT_EQ(1000, Word(ring.server, kWriter));
    ASSERT_EQ(400, reader.NonblockRead(out.data(), 400));
    EXPECT_EQ(0, Word(ring.server, kWriter));

    // A blocking read that leaves wakes a waiting writer whatever it freed: it frees no more.
    Word(ring.server, kWriter) = 5000;
    ASSERT_EQ(10, reader.BlockRead(out.data(), 10));
    EXPECT_EQ(0, Word(ring.server, kWriter));
}

TEST(KelRingHandshake, ReaderAnnouncesItsSleepAndEveryRestartClearsTheWords) {
    SharedRing ring;
    KelCycleBuffer reader;
    ASSERT_EQ(IPC_OK, reader.AttachIpc(ring.block, kBlock, Client, Block, &ring.sem));
    char out[100];
    auto blocked = std::async(std::launch::async, [&] { return reader.Read(out, 100); });
    ASSERT_TRUE(kt::WaitUntil(
        [&] { return __atomic_load_n(&Word(reader, kReader), __ATOMIC_RELAXED) == 100; }, 10000));
    const std::vector<char> bytes = kt::Pattern(100);
    ASSERT_EQ(100, ring.server.BlockWrite(bytes.data(), 100));
    ASSERT_TRUE(kt::Ready(blocked, 10000));
    EXPECT_EQ(100, blocked.get());
    EXPECT_EQ(0, std::memcmp(bytes.data(), out, 100));
    EXPECT_EQ(-1, Word(reader, kReader)) << "awake between reads, announced again before any sleep";

    // Reset, Start and Stop all begin the handshake anew: both words and both CPU words zero.
    const auto cleared = [&] {
        return Word(reader, kReader) == 0 && Word(reader, kWriter) == 0 && Word(reader, kReaderCpu) == 0 &&
               Word(reader, kWriterCpu) == 0;
    };
    for (int (KelCycleBuffer::*restart)() :
         {&KelCycleBuffer::Reset, &KelCycleBuffer::Start, &KelCycleBuffer::Stop}) {
        Word(reader, kReader) = -1;
        Word(reader, kWriter) = 7;
        Word(reader, kReaderCpu) = 1;
        Word(reader, kWriterCpu) = 2;
        EXPECT_EQ(IPC_OK, (ring.server.*restart)());
        EXPECT_TRUE(cleared());
    }
    // The bytes around the words stay untouched: the reserved area is otherwise the application's.
    EXPECT_EQ(0, ring.Head()->reserved[8]);
    EXPECT_EQ(0, ring.Head()->reserved[72]);
}

// Each direction between a bare end in a child process and one of ours in this one.
TEST(KelRingHandshake, EndsThatIgnoreTheWordsStreamWithOursBothWays) {
    const int64_t total = 40LL * (kBlock - kHead);
    {
        SharedRing ring;
        kt::Child writer([&] {
            KelSystemSemaphore sem;
            return ring.Peer(sem, nullptr) ? BareWrite(ring.Head(), sem, total) : 3;
        });
        KelCycleBuffer reader;
        ASSERT_EQ(IPC_OK, reader.AttachIpc(ring.block, kBlock, Client, Block, &ring.sem));
        auto read = std::async(std::launch::async, [&] { return BurstyRead(reader, total, 1, 2, nullptr); });
        const int code = writer.Wait(30000);
        if (!kt::Ready(read, 10000)) reader.Stop();
        EXPECT_EQ(0, code);
        EXPECT_EQ(-1, read.get()) << "bare writer to our reader";
    }
    {
        SharedRing ring;
        kt::Child reader([&] {
            KelSystemSemaphore sem;
            return ring.Peer(sem, nullptr) ? BareRead(ring.Head(), sem, total) : 3;
        });
        auto written =
            std::async(std::launch::async, [&] { return BurstyWrite(ring.server, total, 3, 4, nullptr); });
        const int code = reader.Wait(30000);
        if (!kt::Ready(written, 10000)) ring.server.Stop();
        EXPECT_EQ(0, code) << "our writer to a bare reader";
        EXPECT_TRUE(written.get());
    }
}

TEST(KelRingHandshake, BurstsWithRandomPausesLoseNoWakeUpBetweenThreads) {
    for (uint32_t seed : {11u, 12u, 13u}) {
        std::vector<char> block(kBlock, 0);
        KelSemaphore sem;
        KelCycleBuffer writer;
        KelCycleBuffer reader;
        ASSERT_EQ(IPC_OK, writer.AttachLocal(block.data(), kBlock, Server, Block, &sem));
        ASSERT_EQ(IPC_OK, reader.AttachLocal(block.data(), kBlock, Client, Block, &sem));
        std::atomic<int64_t> consumed{0};
        auto read = std::async(std::launch::async,
                               [&] { return BurstyRead(reader, kBurstTotal, seed, seed * 13, &consumed); });
        auto written = std::async(
            std::launch::async, [&] { return BurstyWrite(writer, kBurstTotal, seed, seed * 7, &consumed); });
        const bool finished = kt::Ready(read, 60000) && kt::Ready(written, 10000);
        if (!finished) writer.Stop();  // a lost wake-up hangs one side: release both, then fail
        ASSERT_TRUE(finished) << "seed " << seed;
        EXPECT_TRUE(written.get());
        EXPECT_EQ(-1, read.get()) << "seed " << seed;
    }
}

TEST(KelRingHandshake, BurstsWithRandomPausesLoseNoWakeUpBetweenProcesses) {
    SharedRing ring;
    void* counter = mmap(nullptr, sizeof(std::atomic<int64_t>), PROT_READ | PROT_WRITE,
                         MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, counter);
    auto* consumed = new (counter) std::atomic<int64_t>(0);
    kt::Child child([&] {
        KelSystemSemaphore sem;
        KelCycleBuffer reader;
        if (!ring.Peer(sem, &reader)) return 3;
        return BurstyRead(reader, kBurstTotal, 21, 22, consumed) == -1 ? 0 : 1;
    });
    auto written = std::async(std::launch::async,
                              [&] { return BurstyWrite(ring.server, kBurstTotal, 21, 23, consumed); });
    const int code = child.Wait(60000);
    if (!kt::Ready(written, 10000)) ring.server.Stop();
    EXPECT_EQ(0, code);
    EXPECT_TRUE(written.get());
    munmap(counter, sizeof(std::atomic<int64_t>));
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
    std::set<State> seen;
    std::vector<State> open{State{}};
    while (!open.empty()) {
        const State s = open.back();
        open.pop_back();
        if (!seen.insert(s).second) continue;
        State r = s, w = s;
        const bool readerMoved = ReaderStep(m, r);
        const bool writerMoved = WriterStep(m, w);
        if (!readerMoved && !writerMoved && s.rpc != 6) return true;
        if (readerMoved) open.push_back(r);
        if (writerMoved) open.push_back(w);
    }
    return false;
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
