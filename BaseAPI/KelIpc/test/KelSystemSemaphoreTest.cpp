// System V semaphore: the key, the two-state signal, and who removes the set. Every wait runs in
// another thread or a forked process with a bound; a waiter left blocked by a failed check is freed by
// removing the set before the test returns.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelSystemSemaphore.h"
#include "TestSupport.h"

namespace {

constexpr int kWaitMs = 10000;
const std::string kSource = "BaseAPI/KelIpc/src/unix/KelSystemSemaphore";

int IdOf(const std::string& name) {
    return semget(kt::Djb2Key(name), 1, 0);
}
int Value(const std::string& name) {
    return semctl(IdOf(name), 0, GETVAL);
}
// Waits until n processes and threads are blocked in semop on the set: proof that an Acquire really waits.
bool WaitForWaiters(const std::string& name, int n) {
    return kt::WaitUntil([&] { return semctl(IdOf(name), 0, GETNCNT) == n; }, kWaitMs);
}

using Expected = std::vector<std::string>;

// Declared after the futures of a test, so it runs first on an early return: removing the set wakes a
// thread still blocked in Acquire, and the future's destructor can then join it.
struct WakeWaiters {
    std::string name;
    ~WakeWaiters() { kt::RemoveSem(name); }
};

class KelSystemSemaphoreTest : public ::testing::Test {
protected:
    const std::string m_name = kt::UniqueName("sem") + "_ssm";
};

// Fixed names give fixed keys: a parallel run of this same test could meet the same sets.
TEST_F(KelSystemSemaphoreTest, KeyIsDjb2OfTheNameWithSignedBytes) {
    const struct {
        const char* name;
        key_t key;
    } cases[] = {{"", 5381}, {"chan_XL_ssm", 766966068}, {"ab\xC3\xA9_ssm", -466271386}};
    for (const auto& c : cases) {
        KelSystemSemaphore sem;
        ASSERT_EQ(sem.Open(c.name, Server, nullptr), IPC_OK) << c.name;
        const int id = semget(c.key, 1, 0);
        ASSERT_NE(id, -1) << c.name;
        EXPECT_EQ(sem.Release(), IPC_OK);
        EXPECT_EQ(semctl(id, 0, GETVAL), 1) << c.name;
        EXPECT_EQ(semget(0x4B766566, 1, 0), -1);  // the key with bytes taken unsigned
        EXPECT_EQ(sem.Close(), IPC_OK);
        EXPECT_EQ(semget(c.key, 1, 0), -1) << c.name;
    }
}

// A client without a server is KelSecuritySets' part.
TEST_F(KelSystemSemaphoreTest, ArgumentAndStateErrorsReturnCodesWithoutLogging) {
    kt::LogCapture log;
    KelSystemSemaphore sem;
    for (int rc : {sem.Close(), sem.Acquire(), sem.Acquire(5), sem.Release(), sem.Reset()}) {
        EXPECT_EQ(rc, IPC_ERR_NOT_OPENED);
    }
    EXPECT_EQ(sem.Open(nullptr, Server, nullptr), IPC_ERR_NULL);
    EXPECT_EQ(sem.Open(m_name.c_str(), KelSide(2), nullptr), IPC_ERR_PARAM);
    EXPECT_FALSE(kt::SemExists(m_name));
    ASSERT_EQ(sem.Open(m_name.c_str(), Server, nullptr), IPC_OK);
    EXPECT_EQ(sem.Open(m_name.c_str(), Server, nullptr), IPC_ERR_OPENED);
    EXPECT_EQ(sem.Close(), IPC_OK);
    EXPECT_EQ(sem.Close(), IPC_ERR_NOT_OPENED);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(KelSystemSemaphoreTest, ServerReopenReusesTheSetAndClearsItWhileClientCloseKeepsIt) {
    KelSystemSemaphore first, client, second;
    ASSERT_EQ(first.Open(m_name.c_str(), Server, nullptr), IPC_OK);
    ASSERT_EQ(client.Open(m_name.c_str(), Client, nullptr), IPC_OK);
    const int id = IdOf(m_name);
    // A client's Close changes nothing: the object stays open and attached.
    EXPECT_EQ(client.Close(), IPC_OK);
    EXPECT_EQ(client.Open(m_name.c_str(), Client, nullptr), IPC_ERR_OPENED);
    EXPECT_EQ(client.Release(), IPC_OK);

    ASSERT_EQ(second.Open(m_name.c_str(), Server, nullptr), IPC_OK);
    EXPECT_EQ(IdOf(m_name), id);
    EXPECT_EQ(Value(m_name), 0);  // a stale signal from before the reopen is dropped
    EXPECT_EQ(client.Release(), IPC_OK);
    EXPECT_EQ(Value(m_name), 1);

    kt::LogCapture log;
    EXPECT_EQ(second.Close(), IPC_OK);
    EXPECT_FALSE(kt::SemExists(m_name));
    EXPECT_EQ(first.Close(), IPC_ERR_FAILED);
    EXPECT_FALSE(first.Opened());
    // A client signalling a set its server has removed finds nobody to wake: no failure worth a line.
    EXPECT_EQ(client.Release(), IPC_ERR_NOT_OPENED);
    EXPECT_EQ(log.Lines(kSource),
              (Expected{"PriClose|semctl IPC_RMID fail, rc=-1, errno=" + std::to_string(EINVAL)}));
}

TEST_F(KelSystemSemaphoreTest, ReleasesCollapseIntoOneWakeUpAndResetDropsIt) {
    KelSystemSemaphore sem;
    ASSERT_EQ(sem.Open(m_name.c_str(), Server, nullptr), IPC_OK);
    std::future<int> acquired;
    WakeWaiters wake{m_name};
    const auto acquire = [&] { acquired = std::async(std::launch::async, [&] { return sem.Acquire(7); }); };
    EXPECT_EQ(sem.Release(), IPC_OK);
    EXPECT_EQ(sem.Release(), IPC_OK);
    EXPECT_EQ(Value(m_name), 1);
    acquire();
    ASSERT_TRUE(kt::Ready(acquired, kWaitMs));
    EXPECT_EQ(acquired.get(), IPC_OK);
    // Each further Acquire waits for a new Release: from another process, then after a Reset dropped one.
    for (bool reset : {false, true}) {
        if (reset) {
            EXPECT_EQ(sem.Release(), IPC_OK);
            EXPECT_EQ(sem.Reset(), IPC_OK);
        }
        acquire();
        ASSERT_TRUE(WaitForWaiters(m_name, 1));
        EXPECT_FALSE(kt::Ready(acquired, 0));
        const int released = reset ? sem.Release() : kt::RunInChild([&] {
            KelSystemSemaphore peer;
            return peer.Open(m_name.c_str(), Client, nullptr) == IPC_OK && peer.Release() == IPC_OK ? 0 : 1;
        });
        EXPECT_EQ(released, IPC_OK);
        ASSERT_TRUE(kt::Ready(acquired, kWaitMs));
        EXPECT_EQ(acquired.get(), IPC_OK);
    }
    EXPECT_EQ(Value(m_name), 0);
    EXPECT_EQ(sem.Close(), IPC_OK);
}

TEST_F(KelSystemSemaphoreTest, ServerCloseEndsClientWaitInAnotherProcess) {
    KelSystemSemaphore server;
    ASSERT_EQ(server.Open(m_name.c_str(), Server, nullptr), IPC_OK);
    const std::string expected = "Acquire|semop fail, rc=-1, errno=" + std::to_string(EIDRM);
    kt::Child waiter([&] {
        kt::LogCapture log;
        KelSystemSemaphore client;
        if (client.Open(m_name.c_str(), Client, nullptr) != IPC_OK) return 1;
        const int rc = client.Acquire();
        const int err = errno;  // must survive the log line in between
        if (rc != IPC_ERR_FAILED || err != EIDRM) return 2;
        return log.Lines(kSource) == Expected{expected} ? 0 : 3;
    });
    ASSERT_TRUE(WaitForWaiters(m_name, 1));
    EXPECT_EQ(server.Close(), IPC_OK);
    EXPECT_EQ(waiter.Wait(kWaitMs), 0);
    EXPECT_FALSE(kt::SemExists(m_name));
}

}  // namespace
