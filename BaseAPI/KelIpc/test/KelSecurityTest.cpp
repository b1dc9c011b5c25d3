// What another local user, or anything planted under a channel's public names, can do to a channel.
// Two-user cases run the other user in a forked child that drops root for an id no account uses.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "KelIpc.h"
#include "KelSystemSemaphore.h"
#include "TestSupport.h"

namespace {

constexpr int kBlock = 65536;
constexpr int kBound = 10000;  // ms for any wait on another process
constexpr int kCannot = 77;    // a child could not take the role (other user, mount namespace)

int OpenEnd(KelIpcSocket& socket, KelSide side, const std::string& name,
            const KelSecurity* security = nullptr, int trusted = -1) {
    int size = kBlock;
    socket.SetOption(LBufferSize, &size);
    socket.SetOption(RBufferSize, &size);
    socket.SetOption(TrustedUid, &trusted);
    return socket.Open(Process, side, name.c_str(), security);
}

// An id that neither an account nor a group uses, so that nothing of this machine is shared with it.
uid_t Stranger(uid_t from) {
    while (getpwuid(from) != nullptr || getgrgid(from) != nullptr) ++from;
    return from;
}

// fn as user uid (group uid, no others), for a forked child; kCannot when the switch fails.
std::function<int()> As(uid_t uid, const std::function<int()>& fn) {
    return [uid, fn] {
        if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0) return kCannot;
        return fn();
    };
}

// A server on name in a child, ready once it is open, until it is killed.
int ServeUntilKilled(const std::string& name, const KelSecurity* security) {
    KelIpcSocket server;
    if (OpenEnd(server, Server, name, security) != IPC_OK) return 2;
    kt::TellReady();
    sleep(60);  // killed long before
    return 0;
}

// For a child: 0 when an end of side is refused on name with IPC_ERR_ACCESS, 1 otherwise.
int Refused(KelSide side, const std::string& name) {
    kt::LogCapture log;  // a refusal may log the system call that told
    KelIpcSocket socket;
    return OpenEnd(socket, side, name) == IPC_ERR_ACCESS ? 0 : 1;
}

bool ReadLock(int fd) {
    flock lock{};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

#define REQUIRE_ROOT() \
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as two other users"

}  // namespace

// Sets made under the victim's keys before its server: adopted, the attacker would hold every wake-up.
// Handing them over (IPC_SET) leaves their creator in control, so the creator counts too.
TEST(KelSecurityUsers, SetsSquattedByAnotherUserAreRefusedAndStayTheirs) {
    REQUIRE_ROOT();
    const uid_t victim = Stranger(61000), attacker = Stranger(victim + 1);
    for (const int squat : {0666, 0600, -1}) {
        const std::string name = kt::UniqueName("squat");
        const int squatted = kt::RunInChild(As(attacker, [&] {
            for (const char* direction : {"_XL_ssm", "_XR_ssm"}) {
                const int set =
                    semget(kt::Djb2Key(name + direction), 1, IPC_CREAT | IPC_EXCL | (squat & 0666));
                semid_ds ds{};
                ds.sem_perm.uid = victim;
                ds.sem_perm.gid = victim;
                ds.sem_perm.mode = 0600;
                if (set < 0 || (squat < 0 && semctl(set, 0, IPC_SET, &ds) != 0)) return 1;
            }
            return 0;
        }));
        if (squatted == kCannot) GTEST_SKIP() << "cannot switch to another user here";
        ASSERT_EQ(0, squatted) << squat;
        EXPECT_EQ(0, kt::RunInChild(As(victim, [&] { return Refused(Server, name); }))) << squat;
        EXPECT_EQ(2, kt::ChannelObjects(name)) << "the refused server left objects or removed the squatter's";
    }
}

// An attacker serving the victim's name, or holding segments under it, must not get its client's stream.
TEST(KelSecurityUsers, AClientTalksOnlyToAServerOfAUserItTrusts) {
    REQUIRE_ROOT();
    const uid_t victim = Stranger(61000), attacker = Stranger(victim + 1);
    const std::string name = kt::UniqueName("fake");
    const KelSecurity open{0666};
    kt::Child fake(As(attacker, [&] { return ServeUntilKilled(name, &open); }));
    ASSERT_TRUE(fake.WaitReady(kBound)) << "the attacker's server did not open";
    EXPECT_EQ(0, kt::RunInChild(As(victim, [&] {
                  KelIpcSocket client, trusting;
                  if (OpenEnd(client, Client, name) != IPC_ERR_ACCESS) return 1;
                  return OpenEnd(trusting, Client, name, nullptr, static_cast<int>(attacker)) == IPC_OK ? 0
                                                                                                        : 2;
              })));
    fake.Kill();

    // Segments alone, no server: they once made the victim's server fail as if another server held them.
    const std::string held = kt::UniqueName("held");
    ASSERT_EQ(0, kt::RunInChild(As(attacker, [&] {
                  const int fd = shm_open((held + "_XL_shm").c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
                  return fd >= 0 && ftruncate(fd, kBlock) == 0 ? 0 : 1;
              })));
    EXPECT_EQ(0, kt::RunInChild(As(victim, [&] { return Refused(Server, held); })));
}

// Anyone who may write a segment can truncate it and crash its ends; one who may only read cannot.
TEST(KelSecurityUsers, AUserWhoMayOnlyReadCannotTruncateALiveSegment) {
    REQUIRE_ROOT();
    const uid_t reader = Stranger(61000);
    const std::string name = kt::UniqueName("trunc");
    const KelSecurity readable{0644};
    KelIpcSocket server, client;
    ASSERT_EQ(IPC_OK, OpenEnd(server, Server, name, &readable));
    ASSERT_EQ(IPC_OK, OpenEnd(client, Client, name));
    const std::string segment = name + "_XL_shm";
    const int tried = kt::RunInChild(As(reader, [&] {
        if (shm_open(segment.c_str(), O_RDWR, 0) >= 0 || truncate(("/dev/shm/" + segment).c_str(), 0) == 0)
            return 1;
        const int fd = shm_open(segment.c_str(), O_RDONLY, 0);
        return fd >= 0 && ftruncate(fd, 0) != 0 ? 0 : 2;
    }));
    if (tried == kCannot) GTEST_SKIP() << "cannot switch to another user here";
    EXPECT_EQ(0, tried);
    char byte = 0;
    EXPECT_EQ(1, client.Write("c", 1));
    EXPECT_EQ(1, server.Read(&byte, 1));
}

// A FIFO under the name once held the opening end, or a closing server's look, until a writer came.
TEST(KelSecurityPlanted, AFifoUnderTheNameIsRefusedWithoutWaiting) {
    const std::string name = kt::UniqueName("fifo");
    const std::string path = "/dev/shm/" + name + "_XL_shm";
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    EXPECT_EQ(0, kt::RunInChild([&] { return Refused(Server, name) + Refused(Client, name); }, kBound));
    // One planted in place of a live server's segment, which its Close looks at before it removes.
    ASSERT_EQ(0, unlink(path.c_str()));
    EXPECT_EQ(0, kt::RunInChild(
                     [&] {
                         KelIpcSocket server;
                         if (OpenEnd(server, Server, name) != IPC_OK || unlink(path.c_str()) != 0) return 1;
                         if (mkfifo(path.c_str(), 0600) != 0) return 2;
                         return server.Close() == IPC_OK ? 0 : 3;
                     },
                     kBound));
}

// Anyone who may read a segment can take a read lock on the server byte of a dead server's segment.
TEST(KelSecurityPlanted, AReadLockOnTheServerByteIsNoToken) {
    const std::string name = kt::UniqueName("rdlock");
    kt::Child dead([&] { return ServeUntilKilled(name, nullptr); });
    ASSERT_TRUE(dead.WaitReady(kBound));
    dead.Kill();
    int fds[2];
    for (int i = 0; i < 2; ++i) {
        fds[i] = shm_open((name + (i == 0 ? "_XL_shm" : "_XR_shm")).c_str(), O_RDONLY | O_CLOEXEC, 0);
        ASSERT_LE(0, fds[i]);
        ASSERT_TRUE(ReadLock(fds[i]));
    }
    KelIpcSocket client, server;
    EXPECT_EQ(IPC_ERR_PEER_GONE, OpenEnd(client, Client, name)) << "the read lock passed for a live server";
    EXPECT_EQ(IPC_OK, OpenEnd(server, Server, name));
    for (const int fd : fds) close(fd);
}

// A daemon that closed its standard streams: descriptors of ours there would take its printf, and our
// log lines, into a ring header.
TEST(KelSecurityPlanted, ADaemonWithoutStandardStreamsGetsNoChannelDescriptorThere) {
    const std::string name = kt::UniqueName("daemon");
    EXPECT_EQ(0, kt::RunInChild([&] {
                  for (int fd = 0; fd <= 2; ++fd) close(fd);
                  KelIpcSocket server, client;
                  if (OpenEnd(server, Server, name) != IPC_OK || OpenEnd(client, Client, name) != IPC_OK)
                      return 1;
                  for (int fd = 0; fd <= 2; ++fd) {
                      if (fcntl(fd, F_GETFD) != -1) return 10 + fd;
                  }
                  char byte = 0;
                  return client.Write("c", 1) == 1 && server.Read(&byte, 1) == 1 ? 0 : 2;
              }));
}

// Pages a full /dev/shm cannot give once killed the opening server with SIGBUS at its first access.
TEST(KelSecurityPlanted, AFullDevShmFailsTheServerOpenInsteadOfKillingIt) {
    const std::string name = kt::UniqueName("full");
    const int code = kt::RunInChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=8k") != 0) {
            return kCannot;
        }
        kt::LogCapture log;
        KelIpcSocket server;
        const int rc = OpenEnd(server, Server, name);
        std::string bytes(kBlock, 's');
        if (rc == IPC_OK) server.NonBlockWrite(bytes.data(), kBlock / 2);  // touches the pages it lacks
        return rc == IPC_ERR_FAILED ? 0 : 1;
    });
    if (code == kCannot) GTEST_SKIP() << "no private mount namespace with a tmpfs of our own here";
    EXPECT_EQ(0, code);
}

// 01000 is IPC_CREAT to semget: a client asking for it once made a set with no server behind it.
TEST(KelSecuritySets, ModeBitsAboveThePermissionsAreIgnoredAndAReusedSetTakesTheModeAskedFor) {
    const std::string name = kt::UniqueName("mode") + "_ssm";
    const KelSecurity creating{01660}, open{0666}, owner{0600};
    KelSystemSemaphore client, server;
    kt::LogCapture log;  // the client's failed semget
    EXPECT_EQ(IPC_ERR_FAILED, client.Open(name.c_str(), Client, &creating));
    EXPECT_FALSE(kt::SemExists(name));
    ASSERT_EQ(0, kt::RunInChild([&] {
                  KelSystemSemaphore dying;
                  if (dying.Open(name.c_str(), Server, &open) != IPC_OK) return 1;
                  _exit(0);  // leaves its set behind
              }));
    ASSERT_EQ(IPC_OK, server.Open(name.c_str(), Server, &owner));
    semid_ds ds{};
    ASSERT_EQ(0, semctl(semget(kt::Djb2Key(name), 0, 0), 0, IPC_STAT, &ds));
    EXPECT_EQ(0600, ds.sem_perm.mode & 0777);
}
