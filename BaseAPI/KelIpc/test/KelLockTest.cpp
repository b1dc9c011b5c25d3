// File lock, its guard, process mutex. Lock exclusion is between processes, so the other side of every
// check is a forked child: one that probes and exits, or one that holds a lock until it is killed.
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>

#include <gtest/gtest.h>

#include "KelFileLock.h"
#include "KelProcessMutex.h"
#include "TestSupport.h"

namespace {

constexpr int kWaitMs = 10000;
constexpr int kShared = 1, kExclusive = 2;  // bits of Probe's result

// Which locks another process can take on path right now: kShared | kExclusive bits, -1 on a hang.
int Probe(const std::string& path) {
    return kt::RunInChild([&] {
        KelFileLock lock(path);
        int result = 0;
        if (lock.LockShared()) result |= kShared;
        if (lock.Unlock() && lock.LockExclusive()) result |= kExclusive;
        return result;
    });
}

// Another process that locks path as take does and keeps the lock until it is killed, never unlocking.
// Null when take failed there.
std::unique_ptr<kt::Child> Holder(const std::string& path, const std::function<bool(KelFileLock&)>& take) {
    auto child = std::make_unique<kt::Child>([&] {
        KelFileLock lock(path);
        if (!take(lock)) return 1;
        kt::TellReady();
        sleep(60);  // the test kills it long before
        return 0;
    });
    return child->WaitReady(kWaitMs) ? std::move(child) : nullptr;
}

long OpenDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class KelLockTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/kellock_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        m_path = m_dir + "/lock";
        std::ofstream(m_path) << "0123456789";
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }

    std::string m_dir, m_path;
};

TEST_F(KelLockTest, ExclusiveExcludesOtherProcessesUntilUnlockOrTheHoldersEnd) {
    KelFileLock lock(m_path);
    ASSERT_TRUE(lock.LockExclusive());
    EXPECT_EQ(Probe(m_path), 0);
    ASSERT_TRUE(lock.Unlock());
    EXPECT_EQ(Probe(m_path), kShared | kExclusive);
    // A holder killed without unlocking: the system drops its lock.
    auto holder = Holder(m_path, [](KelFileLock& mine) { return mine.LockExclusive(); });
    ASSERT_NE(nullptr, holder);
    EXPECT_FALSE(lock.LockShared());
    EXPECT_FALSE(lock.LockExclusive());
    holder->Kill();
    EXPECT_TRUE(lock.LockShared());
    EXPECT_TRUE(lock.LockExclusive());
}

TEST_F(KelLockTest, SharedHoldersBlockExclusiveInEitherAndAGuardReleasesExactlyALockItTook) {
    KelFileLock lock(m_path);
    ASSERT_TRUE(lock.LockShared());
    auto other = Holder(m_path, [](KelFileLock& mine) { return mine.LockShared() && !mine.LockExclusive(); });
    ASSERT_NE(nullptr, other);
    EXPECT_FALSE(lock.LockExclusive());
    {
        KelFileLockGuard guard(&lock);
        EXPECT_FALSE(guard.LockExclusive());  // a guard whose lock failed has nothing to release
    }
    other->Kill();
    EXPECT_EQ(Probe(m_path), kShared);  // the failed conversions kept the shared lock
    {
        KelFileLockGuard guard(&lock);
        ASSERT_TRUE(guard.LockExclusive());
        EXPECT_EQ(Probe(m_path), 0);
    }
    EXPECT_EQ(Probe(m_path), kShared | kExclusive);
    {
        KelFileLockGuard guard(&lock);
        ASSERT_TRUE(lock.LockExclusive());  // taken around the guard: not its to release
    }
    EXPECT_EQ(Probe(m_path), 0);
}

// A lock taken through a symbolic link is one on its target.
TEST_F(KelLockTest, LocksBelongToTheProcessWhicheverPathReachesTheFile) {
    const std::string link = m_dir + "/link";
    ASSERT_EQ(symlink(m_path.c_str(), link.c_str()), 0);
    KelFileLock lock(link);
    ASSERT_TRUE(lock.LockShared());
    EXPECT_EQ(Probe(m_path), kShared);
    ASSERT_TRUE(lock.LockExclusive());  // converted in place
    EXPECT_EQ(Probe(m_path), 0);
    ASSERT_TRUE(lock.LockShared());
    EXPECT_EQ(Probe(m_path), kShared);
    {
        KelFileLock second(m_path);
        EXPECT_TRUE(second.LockExclusive());  // same process: no exclusion, a conversion
        EXPECT_EQ(Probe(m_path), 0);
    }
    EXPECT_EQ(Probe(m_path), kShared | kExclusive);  // closing second dropped the lock taken through lock
}

// In a sticky, world-writable folder anyone may plant a link to a file of the victim's choosing; one that
// may not write the lock file still takes a shared lock on it.
TEST_F(KelLockTest, APlantedLinkInASharedStickyFolderIsRefusedAndAReadOnlyFileStillLocksShared) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to act as another user";
    uid_t stranger = 61000;
    while (getpwuid(stranger) != nullptr) ++stranger;
    const std::string planted = m_dir + "/planted", own = m_dir + "/own";
    ASSERT_EQ(0, chmod(m_dir.c_str(), 01777));
    ASSERT_EQ(0, chmod(m_path.c_str(), 0644));
    ASSERT_EQ(0, symlink(m_path.c_str(), own.c_str()));  // the folder owner's link is followed
    const int code = kt::RunInChild([&] {
        if (setgid(stranger) != 0 || setuid(stranger) != 0) return 77;
        if (symlink(m_path.c_str(), planted.c_str()) != 0) return 1;
        KelFileLock lock(m_path);  // 0644, the test's
        return lock.LockShared() && !lock.LockExclusive() ? 0 : 2;
    });
    if (code == 77) GTEST_SKIP() << "cannot switch to another user here";
    ASSERT_EQ(0, code);
    EXPECT_FALSE(KelFileLock(planted).LockShared());
    KelFileLock ownLock(own);
    EXPECT_TRUE(ownLock.LockExclusive());
    EXPECT_EQ(0, Probe(m_path));
}

TEST_F(KelLockTest, UnresolvablePathLeavesObjectWithoutDescriptor) {
    for (const std::string& path : {m_dir + "/missing", m_dir + "/nodir/lock"}) {
        const long before = OpenDescriptors();
        {
            kt::LogCapture capture;
            KelFileLock lock(path);
            EXPECT_EQ(capture.Lines("BaseAPI/KelIpc/src/unix/KelFileLock"),
                      std::vector<std::string>{"KelFileLock|realpath error"});
            EXPECT_FALSE(lock.LockShared());
            EXPECT_FALSE(lock.LockExclusive());
            EXPECT_FALSE(lock.Unlock());
            KelFileLockGuard guard(&lock);
            EXPECT_FALSE(guard.LockShared());
            char buf[4];
            EXPECT_EQ(lock.Write("ab", 2), -1);
            EXPECT_EQ(lock.Read(buf, sizeof buf), -1);
        }
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

TEST_F(KelLockTest, WriteThenReadContinuesAtTheOffset) {
    KelFileLock lock(m_path);
    EXPECT_EQ(lock.Write("ab", 2), 2);
    char buf[16] = {};
    EXPECT_EQ(lock.Read(buf, sizeof buf), 8);
    EXPECT_STREQ(buf, "23456789");
    std::ifstream(m_path) >> buf;
    EXPECT_STREQ(buf, "ab23456789");
}

// A stand-in kept for its interface: it never waits, not for itself and not for another process.
TEST(KelProcessMutexTest, LocksWithoutEverWaiting) {
    const std::string name = kt::UniqueName("pmx");
    KelProcessMutex mutex(name, nullptr);
    EXPECT_EQ(mutex.unlock(), 0);  // without a previous lock
    std::lock_guard<KelProcessMutex> held(mutex);
    EXPECT_EQ(mutex.lock(), 0);
    EXPECT_EQ(kt::RunInChild([&] { return KelProcessMutex(name, nullptr).lock(); }), 0);
}

}  // namespace
