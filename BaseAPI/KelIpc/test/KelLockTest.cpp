// File lock, its guard, process mutex. Lock exclusion is between processes, so the
// other side of every check is a forked child; parent and child meet through pipes with bounded waits.
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>

#include <gtest/gtest.h>

#include "KelFileLock.h"
#include "KelProcessMutex.h"
#include "TestSupport.h"

namespace {

constexpr int kWaitMs = 10000;
constexpr int kShared = 1, kExclusive = 2;  // bits of Probe's result

// One-way signal between the processes of a test.
class Signal {
public:
    Signal() {
        if (pipe(m_fd) != 0) m_fd[0] = m_fd[1] = -1;
    }
    ~Signal() {
        close(m_fd[0]);
        close(m_fd[1]);
    }
    bool Send() { return write(m_fd[1], "x", 1) == 1; }
    bool Receive() {
        pollfd p = {m_fd[0], POLLIN, 0};
        char c;
        return poll(&p, 1, kWaitMs) == 1 && read(m_fd[0], &c, 1) == 1;
    }

private:
    int m_fd[2];
};

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

    std::string m_dir;
    std::string m_path;
};

TEST_F(KelLockTest, ExclusiveExcludesOtherProcessUntilUnlockOrExit) {
    KelFileLock lock(m_path);
    ASSERT_TRUE(lock.LockExclusive());
    Signal refused, unlocked;
    kt::Child other([&] {
        KelFileLock mine(m_path);
        if (mine.LockShared() || mine.LockExclusive() || !refused.Send() || !unlocked.Receive()) return 1;
        return mine.LockShared() && mine.LockExclusive() ? 0 : 2;
    });
    ASSERT_TRUE(refused.Receive());
    ASSERT_TRUE(lock.Unlock());
    ASSERT_TRUE(unlocked.Send());
    EXPECT_EQ(other.Wait(kWaitMs), 0);

    // The holder exits without unlocking: the system drops its lock.
    Signal held, release;
    kt::Child holder([&] {
        KelFileLock mine(m_path);
        if (!mine.LockExclusive() || !held.Send() || !release.Receive()) return 1;
        _exit(0);
    });
    ASSERT_TRUE(held.Receive());
    EXPECT_FALSE(lock.LockShared());
    EXPECT_FALSE(lock.LockExclusive());
    ASSERT_TRUE(release.Send());
    EXPECT_EQ(holder.Wait(kWaitMs), 0);
    EXPECT_TRUE(lock.LockShared());
    EXPECT_TRUE(lock.LockExclusive());
}

TEST_F(KelLockTest, TwoSharedHoldersBlockExclusiveInEitherAndAFailedConversionKeepsTheSharedLock) {
    KelFileLock lock(m_path);
    ASSERT_TRUE(lock.LockShared());
    Signal sharing, done;
    kt::Child other([&] {
        KelFileLock mine(m_path);
        if (!mine.LockShared() || mine.LockExclusive() || !sharing.Send() || !done.Receive()) return 1;
        return 0;
    });
    ASSERT_TRUE(sharing.Receive());
    EXPECT_FALSE(lock.LockExclusive());
    {
        KelFileLockGuard guard(&lock);
        EXPECT_FALSE(guard.LockExclusive());  // a guard whose lock failed has nothing to release
    }
    ASSERT_TRUE(done.Send());
    EXPECT_EQ(other.Wait(kWaitMs), 0);
    EXPECT_EQ(Probe(m_path), kShared);
    EXPECT_TRUE(lock.LockExclusive());
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

TEST_F(KelLockTest, GuardUnlocksExactlyWhenItsLockSucceeded) {
    KelFileLock lock(m_path);
    {
        KelFileLockGuard guard(&lock);
        ASSERT_TRUE(guard.LockShared());
        ASSERT_TRUE(lock.LockExclusive());
        EXPECT_EQ(Probe(m_path), 0);
    }
    EXPECT_EQ(Probe(m_path), kShared | kExclusive);
    {
        KelFileLockGuard guard(&lock);
        ASSERT_TRUE(lock.LockExclusive());  // taken around the guard: not its to release
    }
    EXPECT_EQ(Probe(m_path), 0);
}

TEST_F(KelLockTest, UnresolvablePathLeavesObjectWithoutDescriptor) {
    for (const std::string& path : {m_dir + "/missing", m_dir + "/nodir/lock"}) {
        const long before = OpenDescriptors();
        {
            kt::LogCapture capture;
            KelFileLock lock(path);
            const std::vector<KelLogRecord> records = capture.Records();
            ASSERT_EQ(records.size(), 1u);
            EXPECT_EQ(records[0].message, "realpath error");
            EXPECT_EQ(records[0].file, "BaseAPI/KelIpc/src/unix/KelFileLock");
            EXPECT_EQ(records[0].function, "KelFileLock");
            EXPECT_EQ(records[0].level, KEL_LOG_ERROR);
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
    EXPECT_EQ(lock.Read(buf, sizeof buf), 0);
    std::string content;
    std::ifstream(m_path) >> content;
    EXPECT_EQ(content, "ab23456789");
}

TEST(KelProcessMutexTest, LocksWithoutEverWaiting) {
    const std::string name = kt::UniqueName("pmx");
    KelProcessMutex mutex(name, nullptr);
    EXPECT_EQ(mutex.unlock(), 0);  // without a previous lock
    EXPECT_EQ(mutex.lock(), 0);
    EXPECT_EQ(mutex.lock(), 0);
    EXPECT_EQ(mutex.unlock(), 0);
    std::lock_guard<KelProcessMutex> held(mutex);
    {
        std::unique_lock<KelProcessMutex> again(mutex);  // same object, same thread: does not wait
        EXPECT_TRUE(again.owns_lock());
    }
    const int code = kt::RunInChild([&] {  // another process holds it at the same time
        KelProcessMutex other(name, nullptr);
        std::unique_lock<KelProcessMutex> lock(other);
        return lock.owns_lock() && other.lock() == 0 ? 0 : 1;
    });
    EXPECT_EQ(code, 0);
}

}  // namespace
