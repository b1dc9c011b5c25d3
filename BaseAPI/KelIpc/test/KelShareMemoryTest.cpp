// Shared-memory segment: who creates, replaces and removes a segment, what a failed open leaves, and
// that two processes share the bytes. Segment state is read from /dev/shm, not through the class.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelShareMemory.h"
#include "TestSupport.h"

namespace {

const std::string kSource = "BaseAPI/KelIpc/src/unix/KelShareMemory";
const std::string kEinval = std::to_string(EINVAL), kEnoent = std::to_string(ENOENT);

// Size and permission bits of a segment; size -1 when the name does not exist.
struct ShmStat {
    long long size;
    unsigned mode;
};
ShmStat StatOf(const std::string& name) {
    struct stat st;
    if (stat(("/dev/shm/" + name).c_str(), &st) != 0) return {-1, 0};
    return {static_cast<long long>(st.st_size), static_cast<unsigned>(st.st_mode & 0777)};
}

using Expected = std::vector<std::string>;

class KelShareMemoryTest : public ::testing::Test {
protected:
    void SetUp() override { m_umask = umask(022); }
    // Tests set their own umask; give other tests theirs back.
    void TearDown() override {
        umask(m_umask);
        kt::RemoveShm(m_name);
    }

    const std::string m_name = kt::UniqueName("seg") + "_shm";
    mode_t m_umask = 0;
};

TEST_F(KelShareMemoryTest, ArgumentAndStateErrorsReturnCodesWithoutLogging) {
    kt::LogCapture log;
    KelShareMemory shm;
    EXPECT_EQ(shm.Close(), IPC_ERR_NOT_OPENED);
    shm.Reset();
    EXPECT_EQ(shm.Open(nullptr, 4096, Server, nullptr), IPC_ERR_NULL);
    EXPECT_EQ(shm.Open(m_name.c_str(), 4096, KelSide(2), nullptr), IPC_ERR_PARAM);
    EXPECT_EQ(shm.Data(), nullptr);
    EXPECT_FALSE(kt::ShmExists(m_name));

    umask(077);  // an open with reset sets its mode exactly, whatever the mask
    ASSERT_EQ(shm.Open(m_name.c_str(), 4096, Server,
                       CreateSecurityDescriptor(PermissionAll, SecurityFdShareMemory)),
              IPC_OK);
    EXPECT_EQ(StatOf(m_name).mode, 0660u);
    EXPECT_EQ(umask(077), 077u) << "the open changed the process mask";
    char* const data = shm.Data();
    const std::string other = kt::UniqueName("seg") + "_shm";
    // Refused, yet reset false is recorded: from now on this server leaves its segment on Close.
    EXPECT_EQ(shm.Open(other.c_str(), 4096, Server, nullptr, false), IPC_ERR_OPENED);
    EXPECT_EQ(shm.Data(), data);
    EXPECT_EQ(shm.Close(), IPC_OK);
    EXPECT_TRUE(kt::ShmExists(m_name));
    EXPECT_FALSE(kt::ShmExists(other));
    EXPECT_EQ(shm.Close(), IPC_ERR_NOT_OPENED);
    EXPECT_EQ(shm.Data(), nullptr);
    EXPECT_TRUE(log.Records().empty());
}

// Old mappings keep the bytes of a replaced or removed segment; only new opens see the name's state.
TEST_F(KelShareMemoryTest, ServerWithResetReplacesTheSegmentAndServerCloseRemovesTheNameWhileMappingsStay) {
    KelShareMemory first, client, second, late;
    ASSERT_EQ(first.Open(m_name.c_str(), 4096, Server, nullptr), IPC_OK);
    memset(first.Data(), 'a', 4096);
    ASSERT_EQ(client.Open(m_name.c_str(), 4096, Client, nullptr), IPC_OK);
    ASSERT_EQ(second.Open(m_name.c_str(), 8192, Server, nullptr), IPC_OK);
    EXPECT_EQ(StatOf(m_name).size, 8192);
    EXPECT_EQ(std::count(second.Data(), second.Data() + 8192, 0), 8192);
    second.Data()[0] = 'b';
    EXPECT_EQ(std::count(client.Data(), client.Data() + 4096, 'a'), 4096);

    kt::LogCapture log;
    EXPECT_EQ(second.Close(), IPC_OK);
    EXPECT_FALSE(kt::ShmExists(m_name));
    EXPECT_EQ(late.Open(m_name.c_str(), 4096, Client, nullptr), IPC_ERR_FAILED);
    EXPECT_FALSE(kt::ShmExists(m_name));  // a client never creates
    EXPECT_EQ(late.Data(), nullptr);
    EXPECT_EQ(late.Close(), IPC_ERR_NOT_OPENED);
    // The first server's name is already gone; its failed unlink is logged but Close still succeeds.
    EXPECT_EQ(first.Close(), IPC_OK);
    EXPECT_EQ(client.Data()[4095], 'a');
    client.Data()[4095] = 'y';
    EXPECT_EQ(client.Close(), IPC_OK);
    EXPECT_EQ(log.Lines(kSource), (Expected{"ShmClientOpen|shm_open fail, m_fileMap=-1, errno=" + kEnoent,
                                            "CleanResource|shm_unlink fail, rc=-1, errno=" + kEnoent}));
}

TEST_F(KelShareMemoryTest, ServerWithoutResetKeepsSegmentBytesAndSizeAcrossCloseAndHonoursTheMask) {
    {
        KelShareMemory shm;
        ASSERT_EQ(shm.Open(m_name.c_str(), 4096, Server, nullptr, false), IPC_OK);
        EXPECT_EQ(StatOf(m_name).size, 4096);
        EXPECT_EQ(StatOf(m_name).mode, 0640u);  // 0660 less the mask 022
        EXPECT_EQ(std::count(shm.Data(), shm.Data() + 4096, 0), 4096);
        memset(shm.Data(), 'k', 4096);
        EXPECT_EQ(shm.Close(), IPC_OK);
    }
    ASSERT_TRUE(kt::ShmExists(m_name));
    KelShareMemory again;
    ASSERT_EQ(again.Open(m_name.c_str(), 2048, Server, nullptr, false), IPC_OK);
    EXPECT_EQ(std::count(again.Data(), again.Data() + 2048, 'k'), 2048);
    EXPECT_EQ(StatOf(m_name).size, 4096);  // taken as found: neither truncated nor resized
    again.Reset();
    EXPECT_EQ(std::count(again.Data(), again.Data() + 2048, 0), 2048);
    EXPECT_EQ(again.Close(), IPC_OK);
    EXPECT_TRUE(kt::ShmExists(m_name));
    // Mapped past its end, a shorter segment would fault at the first access.
    kt::LogCapture log;
    errno = 0;
    EXPECT_EQ(again.Open(m_name.c_str(), 8192, Server, nullptr, false), IPC_ERR_FAILED);
    EXPECT_EQ(again.Data(), nullptr);
    EXPECT_EQ(StatOf(m_name).size, 4096);
    EXPECT_EQ(log.Lines(kSource),
              (Expected{"ShmNoResetOpen|fstat fail, rc=0, errno=0, st.st_size=4096, shmLength=8192",
                        "ShmServerOpen|shm_open failed"}));
}

// A daemon's standard input is often closed: the next descriptor opened is then 0.
TEST_F(KelShareMemoryTest, DescriptorZeroIsOpenedAndClosedLikeAnyOther) {
    EXPECT_EQ(0, kt::RunInChild([&] {
                  KelShareMemory server, client;
                  if (server.Open(m_name.c_str(), 4096, Server, nullptr) != IPC_OK) return 1;
                  close(0);
                  if (client.Open(m_name.c_str(), 4096, Client, nullptr) != IPC_OK) return 2;
                  if (client.Close() != IPC_OK || fcntl(0, F_GETFD) != -1) return 3;
                  if (server.Close() != IPC_OK) return 4;
                  if (server.Open(m_name.c_str(), 4096, Server, nullptr) != IPC_OK) return 5;
                  return server.Close() == IPC_OK && fcntl(0, F_GETFD) == -1 ? 0 : 6;
              }));
}

TEST_F(KelShareMemoryTest, SizesThatDoNotFitFailLoggingWhereAndAClientLeavesTheSegmentAlone) {
    KelShareMemory server, client, shm;
    ASSERT_EQ(server.Open(m_name.c_str(), 4096, Server, nullptr), IPC_OK);
    kt::LogCapture log;
    // A pure size mismatch logs whatever errno holds; clear it so the line is predictable.
    errno = 0;
    EXPECT_EQ(client.Open(m_name.c_str(), 8192, Client, nullptr), IPC_ERR_FAILED);
    errno = 0;
    EXPECT_EQ(client.Open(m_name.c_str(), -1, Client, nullptr), IPC_ERR_FAILED);
    EXPECT_EQ(client.Data(), nullptr);
    EXPECT_EQ(StatOf(m_name).size, 4096);
    ASSERT_EQ(client.Open(m_name.c_str(), 4096, Client, nullptr), IPC_OK);

    // A server of length 0 fails at the mapping, a negative one at the size.
    EXPECT_EQ(shm.Open(m_name.c_str(), 0, Server, nullptr), IPC_ERR_FAILED);
    EXPECT_EQ(shm.Data(), nullptr);
    EXPECT_EQ(StatOf(m_name).size, 0);  // created before the mapping failed; the next reset open replaces it
    EXPECT_EQ(shm.Open(m_name.c_str(), -1, Server, nullptr), IPC_ERR_FAILED);
    kt::RemoveShm(m_name);
    EXPECT_EQ(shm.Open(m_name.c_str(), -1, Server, nullptr, false), IPC_ERR_FAILED);
    EXPECT_EQ(shm.Close(), IPC_ERR_NOT_OPENED);
    EXPECT_EQ(
        log.Lines(kSource),
        (Expected{"ShmClientOpen|fstat fail, rc=0, errno=0, st.st_size=4096, shmLength=8192",
                  "ShmClientOpen|fstat fail, rc=0, errno=0, st.st_size=4096, shmLength=-1",
                  "ShmServerOpen|mmap fail, errno=" + kEinval,
                  "ShmResetOpen|ftruncate fail, rc=-1, errno=" + kEinval, "ShmServerOpen|shm_open failed",
                  "ShmNoResetOpen|ftruncate fail, rc=-1, errno=" + kEinval,
                  "ShmServerOpen|shm_open failed"}));
}

}  // namespace
