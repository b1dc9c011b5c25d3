// The descriptor of KelIpcSocket::PollFd: event loops over many connections across processes and threads,
// what makes it readable (bytes, room, the peer's stop, shutdown, close and death), a peer that follows only
// the published protocol, polled and blocking ends side by side, and the arm-and-ring handshake stepped
// through every interleaving.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <future>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "KelDateTime.h"
#include "KelIpc.h"
#include "KelSystemSemaphore.h"
#include "PollFlow.h"
#include "TestSupport.h"

namespace {

using kt::kBlock;
using kt::OpenEnd;
using kt::PollFlow;
constexpr int kQuietMs = 2000;  // an epoll_wait this quiet while work is left lost a wake-up

// Serves flows from one thread through one epoll set, level- or edge-triggered, until every flow is done.
// Empty on success, else what went wrong.
std::string Serve(std::vector<PollFlow>& flows, bool edge) {
    const int set = epoll_create1(EPOLL_CLOEXEC);
    std::vector<uint32_t> ready;
    for (uint32_t i = 0; i < flows.size(); ++i) {
        epoll_event event{};
        event.events = EPOLLIN | (edge ? EPOLLET : 0u);
        event.data.u32 = i;
        if (epoll_ctl(set, EPOLL_CTL_ADD, flows[i].Socket().PollFd(), &event) != 0) return "epoll_ctl ADD";
        ready.push_back(i);  // every flow tries before it waits
    }
    std::string why;
    for (size_t left = flows.size(); left > 0 && why.empty();) {
        for (const uint32_t i : ready) {
            if (flows[i].Done() || !flows[i].Pump(why)) continue;
            // A finished flow leaves the set: its peer's close will ring it.
            if (flows[i].Done() && epoll_ctl(set, EPOLL_CTL_DEL, flows[i].Socket().PollFd(), nullptr) == 0)
                --left;
        }
        epoll_event events[16];
        const int count = left == 0 || !why.empty() ? 0 : epoll_wait(set, events, 16, kQuietMs);
        if (count == 0 && left > 0 && why.empty())
            why = "epoll_wait stayed quiet with work left: a lost wake-up";
        ready.clear();
        for (int i = 0; i < count; ++i) ready.push_back(events[i].data.u32);
    }
    close(set);
    return why;
}

std::vector<PollFlow> Flows(std::vector<KelIpcSocket>& ends, int64_t total, uint32_t seed) {
    std::vector<PollFlow> flows;
    for (KelIpcSocket& end : ends) flows.emplace_back(end, total, seed++);
    return flows;
}

}  // namespace

// Sixteen connections, each streaming both ways; one end of each in one thread, with epoll level-triggered
// there and edge-triggered at the other ends: across processes, and between threads of one process.
TEST(KelPollFd, OneEpollThreadPerEndServesSixteenConnectionsStreamingBothWays) {
    constexpr int kConnections = 16;
    constexpr int64_t kTotal = 512 << 10;
    for (const KelIpcType type : {Process, Local}) {
        const std::string name = kt::UniqueName("pollmany");
        std::vector<KelIpcSocket> servers(kConnections);
        for (int i = 0; i < kConnections; ++i)
            ASSERT_EQ(IPC_OK, OpenEnd(servers[i], type, Server, name + std::to_string(i), true));
        // The clients' side: across processes in a forked child, which lingers at Close until its bytes are
        // read.
        const auto clients = [&]() -> std::string {
            std::vector<KelIpcSocket> ends(kConnections);
            int linger = 10000;
            for (int i = 0; i < kConnections; ++i) {
                ends[i].SetOption(CloseLinger, &linger);
                if (OpenEnd(ends[i], type, Client, name + std::to_string(i), true) != IPC_OK)
                    return "client Open";
            }
            std::vector<PollFlow> flows = Flows(ends, kTotal, 100);
            return Serve(flows, true);
        };
        std::unique_ptr<kt::Child> child;
        std::future<std::string> thread;
        if (type == Process) {
            child = std::make_unique<kt::Child>([&] {
                const std::string why = clients();
                if (!why.empty()) std::fprintf(stderr, "clients: %s\n", why.c_str());
                return why.empty() ? 0 : 1;
            });
        } else {
            thread = std::async(std::launch::async, clients);
        }
        std::vector<PollFlow> flows = Flows(servers, kTotal, 100);
        EXPECT_EQ("", Serve(flows, false)) << (type == Process ? "Process" : "Local");
        if (type == Process) {
            EXPECT_EQ(0, child->Wait(60000));
        } else {
            const bool ended = kt::Ready(thread, 60000);
            if (!ended)
                for (KelIpcSocket& server : servers) server.Stop();
            EXPECT_EQ("", thread.get());
        }
    }
}

// A peer that follows only the published protocol rings nothing: the descriptor looks at the rings on its
// own, in both directions (a writer that pauses and signals, a reader that polls).
TEST(KelPollFd, ServesAPeerThatFollowsOnlyThePublishedProtocolBothWays) {
    constexpr int64_t kTotal = 1 << 20;
    const std::string name = kt::UniqueName("pollbare");
    KelIpcSocket server;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Process, Server, name, true));
    kt::Child bare([&] {
        const auto map = [&](const char* direction) {
            const int fd = shm_open((name + direction + "_shm").c_str(), O_RDWR | O_CLOEXEC, 0);
            void* block = mmap(nullptr, kBlock, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            return block == MAP_FAILED ? nullptr : static_cast<KelCBHead*>(block);
        };
        KelSystemSemaphore signal;
        KelCBHead* const l = map("_XL");
        KelCBHead* const r = map("_XR");
        if (l == nullptr || r == nullptr ||
            signal.Open((name + "_XL_ssm").c_str(), Client, nullptr) != IPC_OK)
            return 2;
        auto reader = std::async(std::launch::async, [&] {
            return kt::BareEnd(
                r, kTotal, false, kBlock / 50, [] { return KelSleep(1), true; }, [] {});
        });
        const bool wrote = kt::BareEnd(
            l, kTotal, true, kBlock / 50, [&] { return KelSleep(1), signal.Release() == IPC_OK; },
            [&] { signal.Release(); });
        return wrote && reader.get() ? 0 : 1;
    });
    std::vector<PollFlow> flows{PollFlow(server, kTotal, 7)};
    const std::string why = Serve(flows, false);
    EXPECT_EQ("", why);
    if (!why.empty()) bare.Kill();
    EXPECT_EQ(0, bare.Wait(30000));
}

// A polled end sends messages to a blocking end, which echoes each: the non-blocking writes wake the blocking
// reader, the blocking writes and reads ring the polled end for bytes and for room. Two messages in flight
// often do not fit the ring together.
TEST(KelPollFd, PolledAndBlockingEndsWakeEachOtherBothWays) {
    constexpr int kRounds = 200;
    for (const KelIpcType type : {Local, Process}) {
        const std::string name = kt::UniqueName("pollmix");
        KelIpcSocket polled;
        KelIpcSocket blocking;
        ASSERT_EQ(IPC_OK, OpenEnd(polled, type, Server, name, true));
        ASSERT_EQ(IPC_OK, OpenEnd(blocking, type, Client, name, false));
        const auto sizeOf = [](int round) { return 1 + static_cast<int>(std::mt19937(round)() % 30000); };
        auto echo = std::async(std::launch::async, [&] {
            std::vector<char> bytes(30000);
            for (int round = 0; round < kRounds; ++round) {
                const int n = sizeOf(round);
                if (blocking.Read(bytes.data(), n) != n || blocking.Write(bytes.data(), n) != n) return false;
            }
            return true;
        });
        const int set = epoll_create1(EPOLL_CLOEXEC);
        epoll_event event{};
        event.events = EPOLLIN;
        ASSERT_EQ(0, epoll_ctl(set, EPOLL_CTL_ADD, polled.PollFd(), &event));
        std::vector<char> reply(30000);
        int sent = 0;
        int received = 0;
        int part = 0;
        std::string why;
        while (received < kRounds && why.empty()) {
            bool full = false;
            while (sent < kRounds && sent < received + 2) {
                const std::vector<char> message = kt::Pattern(sizeOf(sent), sent);
                const int rc = polled.NonBlockWrite(message.data(), sizeOf(sent));
                full = rc == 0;
                if (full) break;
                if (rc != sizeOf(sent)) why = "NonBlockWrite " + std::to_string(rc);
                ++sent;
            }
            for (int rc = 1; rc > 0 && received < kRounds && why.empty();) {
                rc = polled.ReadSome(reply.data() + part, sizeOf(received) - part);
                if (rc < 0) why = "ReadSome " + std::to_string(rc);
                part += std::max(rc, 0);
                if (part < sizeOf(received)) continue;
                if (kt::FirstWrong(reply.data(), part, received) >= 0) why = "a wrong echo";
                part = 0;
                ++received;
            }
            const bool mayWrite = !full && sent < kRounds && sent < received + 2;
            if (received < kRounds && why.empty() && !mayWrite && epoll_wait(set, &event, 1, kQuietMs) == 0)
                why = "epoll_wait stayed quiet with work left: a lost wake-up";
        }
        close(set);
        EXPECT_EQ("", why) << (type == Process ? "Process" : "Local") << ", round " << received;
        if (!kt::Ready(echo, 10000)) polled.Stop();
        EXPECT_TRUE(echo.get());
    }
}

// Each end waits for bytes on its descriptor; the peer's Stop, Shutdown or Close makes it readable, and the
// next read says why. A writer waiting for room is woken by a Stop of the peer alike.
TEST(KelPollFd, PeerStopShutdownAndCloseMakeTheDescriptorReadable) {
    enum Event { kStop, kShutdown, kClose, kStopForRoom };
    for (const KelIpcType type : {Process, Local}) {
        for (const Event what : {kStop, kShutdown, kClose, kStopForRoom}) {
            const std::string name = kt::UniqueName("pollend");
            KelIpcSocket server;
            KelIpcSocket client;
            ASSERT_EQ(IPC_OK, OpenEnd(server, type, Server, name, true));
            ASSERT_EQ(IPC_OK, OpenEnd(client, type, Client, name, true));
            const int fd = server.PollFd();
            ASSERT_GE(fd, 0);
            std::vector<char> bytes(kBlock);
            const int full = kBlock - static_cast<int>(sizeof(KelCBHead)) - 1;
            // The first call empties the descriptor, which a new one rings once for a loop that waits first.
            if (what == kStopForRoom) {
                ASSERT_EQ(full, server.NonBlockWrite(bytes.data(), full));
                ASSERT_EQ(0, server.NonBlockWrite(bytes.data(), 1));
            } else {
                ASSERT_EQ(0, server.NonBlockRead(bytes.data(), 1));
            }
            pollfd look{fd, POLLIN, 0};
            EXPECT_EQ(0, poll(&look, 1, 50)) << "readable with nothing to do";
            const int expected = what == kShutdown ? IPC_ERR_PEER_CLOSED : IPC_ERR_NOT_OPENED;
            const int done = what == kShutdown ? client.Shutdown()
                             : what == kClose  ? client.Close()
                                               : client.Stop();
            EXPECT_EQ(IPC_OK, done);
            EXPECT_EQ(1, poll(&look, 1, kQuietMs)) << "event " << what << ", type " << type;
            EXPECT_EQ(expected, what == kStopForRoom ? server.NonBlockWrite(bytes.data(), 1)
                                                     : server.NonBlockRead(bytes.data(), 1));
        }
    }
}

// A peer killed outright: every descriptor of its connections turns readable through the kernel, and the
// next call reports the death.
TEST(KelPollFd, KilledPeerMakesEveryDescriptorReadableWithPeerGone) {
    constexpr int kConnections = 4;
    const std::string name = kt::UniqueName("pollkill");
    std::vector<KelIpcSocket> servers(kConnections);
    for (int i = 0; i < kConnections; ++i)
        ASSERT_EQ(IPC_OK, OpenEnd(servers[i], Process, Server, name + std::to_string(i), true));
    kt::Child peer([&] {
        std::vector<KelIpcSocket> clients(kConnections);
        for (int i = 0; i < kConnections; ++i)
            if (OpenEnd(clients[i], Process, Client, name + std::to_string(i), true) != IPC_OK) return 1;
        kt::TellReady();
        pause();
        return 0;
    });
    ASSERT_TRUE(peer.WaitReady(10000));
    char byte = 0;
    const int set = epoll_create1(EPOLL_CLOEXEC);
    for (uint32_t i = 0; i < kConnections; ++i) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = i;
        ASSERT_EQ(0, epoll_ctl(set, EPOLL_CTL_ADD, servers[i].PollFd(), &event));
        ASSERT_EQ(0, servers[i].NonBlockRead(&byte, 1));
    }
    epoll_event events[kConnections];
    EXPECT_EQ(0, epoll_wait(set, events, kConnections, 100)) << "an idle set woke";
    peer.Kill();
    std::set<uint32_t> woken;
    for (int count = 1; count > 0 && woken.size() < kConnections;) {
        count = epoll_wait(set, events, kConnections, kQuietMs);
        for (int i = 0; i < count; ++i) woken.insert(events[i].data.u32);
    }
    EXPECT_EQ(static_cast<size_t>(kConnections), woken.size());
    for (KelIpcSocket& server : servers) EXPECT_EQ(IPC_ERR_PEER_GONE, server.NonBlockRead(&byte, 1));
    close(set);
}

TEST(KelPollFd, DescriptorBelongsToAnOpenEndIsCloseOnExecAndItsFifoGoesWithTheEnd) {
    const std::string name = kt::UniqueName("pollfd");
    KelIpcSocket server;
    KelIpcSocket client;
    EXPECT_EQ(IPC_ERR_NOT_OPENED, server.PollFd());
    ASSERT_EQ(IPC_OK, OpenEnd(server, Process, Server, name, true));
    ASSERT_EQ(IPC_OK, OpenEnd(client, Process, Client, name, true));
    const std::string fifo = "/dev/shm/" + name + "_XS_poll";
    EXPECT_NE(0, access(fifo.c_str(), F_OK)) << "made before anybody asked";
    const int fd = server.PollFd();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fd, server.PollFd());
    EXPECT_NE(0, fcntl(fd, F_GETFD) & FD_CLOEXEC);
    struct stat st {};
    ASSERT_EQ(0, lstat(fifo.c_str(), &st));
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    EXPECT_EQ(0660u, st.st_mode & 0777);
    EXPECT_NE(0, access(("/dev/shm/" + name + "_XC_poll").c_str(), F_OK));
    EXPECT_EQ(0, kt::RunInChild([&] { return server.Close() == IPC_OK ? 0 : 1; }));
    EXPECT_EQ(0, access(fifo.c_str(), F_OK)) << "a child forked without exec took its parent's FIFO along";
    EXPECT_EQ(IPC_OK, server.Close());
    EXPECT_NE(0, access(fifo.c_str(), F_OK));
    EXPECT_EQ(IPC_ERR_NOT_OPENED, server.PollFd());
}

// Every interleaving of an end that waits on its descriptor and a writer that rings it, one shared access
// at a time under sequential consistency (the fences on both sides give exactly that order). The end wants
// `need` bytes: it empties its descriptor, announces the need, tests again and waits; the writer publishes
// pieces and, for an announced need that is met, claims the word and rings. A state where the writer is done,
// the end waits on an empty descriptor and the bytes it needs are there is a lost wake-up. Taking out any
// part must make the search find one: the end's test after its announcement, the writer's publication before
// its look at the word (which a missing fence would let the CPU swap), or emptying the descriptor first.
namespace {

struct ArmModel {
    bool retest = true;
    bool lookFirst = false;
    bool emptyLate = false;  // the end empties its descriptor after announcing
    int pieces = 3;
    int need = 2;
};

struct ArmState {
    int stored = 0, word = 0, rung = 0;  // shared: bytes published, the polls word, bytes in the descriptor
    int epc = 0, wpc = 0, seen = 0, done = 0;
    bool operator<(const ArmState& o) const {
        return std::tie(stored, word, rung, epc, wpc, seen, done) <
               std::tie(o.stored, o.word, o.rung, o.epc, o.wpc, o.seen, o.done);
    }
};

// End: 0 call, 1 empty the descriptor, 2 announce, 3 test again, 4 empty late, 5 wait, 6 done.
bool EndStep(const ArmModel& m, ArmState& s) {
    switch (s.epc) {
        case 0:
            s.epc = s.stored >= m.need ? 6 : m.emptyLate ? 2 : 1;
            return true;
        case 1:
            s.rung = 0;
            s.epc = 2;
            return true;
        case 2:
            s.word = m.need;
            s.epc = m.retest ? 3 : m.emptyLate ? 4 : 5;
            return true;
        case 3:
            if (s.stored >= m.need) {
                if (s.word == m.need) s.word = 0;
                s.epc = 6;
            } else {
                s.epc = m.emptyLate ? 4 : 5;
            }
            return true;
        case 4:
            s.rung = 0;
            s.epc = 5;
            return true;
        case 5:
            if (s.rung == 0) return false;
            s.epc = 0;
            return true;
        default:
            return false;
    }
}

// Writer: 0 publish a piece, 1 look at the word (the other way round with lookFirst), 2 claim, 3 ring.
bool RingStep(const ArmModel& m, ArmState& s) {
    if (s.done == m.pieces && s.wpc == 0) return false;
    const auto publish = [&] { ++s.stored, ++s.done; };
    const auto look = [&] { s.seen = s.word; };
    switch (s.wpc) {
        case 0:
            m.lookFirst ? look() : publish();
            s.wpc = 1;
            return true;
        case 1:
            m.lookFirst ? publish() : look();
            s.wpc = s.seen > 0 && s.stored >= s.seen ? 2 : 0;
            return true;
        case 2:
            s.wpc = s.word == s.seen ? 3 : 0;
            if (s.wpc == 3) s.word = 0;
            return true;
        case 3:
            s.rung = 1;  // a FIFO that holds a byte already is readable already
            s.wpc = 0;
            return true;
        default:
            return false;
    }
}

bool FindsLostRing(const ArmModel& m) {
    return kt::FindsStuckInterleaving<ArmState>([&](ArmState& s) { return EndStep(m, s); },
                                                [&](ArmState& s) { return RingStep(m, s); },
                                                [](const ArmState& s) { return s.epc == 6; });
}

}  // namespace

TEST(KelPollFd, NoInterleavingLosesARingAndEachPartOfTheArmIsNeeded) {
    for (int pieces = 1; pieces <= 4; ++pieces) {
        for (int need = 1; need <= pieces; ++need) {
            EXPECT_FALSE(FindsLostRing(ArmModel{true, false, false, pieces, need}))
                << pieces << " pieces, need " << need;
        }
    }
    EXPECT_TRUE(FindsLostRing(ArmModel{false, false, false, 2, 1}))
        << "without the test after the announcement";
    EXPECT_TRUE(FindsLostRing(ArmModel{true, true, false, 2, 2}))
        << "with the writer's look before its publication";
    EXPECT_TRUE(FindsLostRing(ArmModel{true, false, true, 2, 1}))
        << "emptying the descriptor after announcing";
}
