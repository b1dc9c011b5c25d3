#include <sys/stat.h>

#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KelIpcSockImpl.h"
#include "KelLocalSockImpl.h"
#include "KelSemaphore.h"
#include "TestSupport.h"

namespace {

constexpr int kBlock = 65536;

bool SendPattern(KelChannelRing& ring, int64_t total, int piece) {
    std::vector<char> bytes(piece);
    for (int64_t done = 0; done < total; done += piece) {
        for (int i = 0; i < piece; ++i) bytes[i] = kt::PatternByte(done + i);
        if (ring.Write(bytes.data(), piece) != piece) return false;
    }
    return true;
}

bool ReceivePattern(KelChannelRing& ring, int64_t total, int piece) {
    std::vector<char> bytes(piece);
    for (int64_t done = 0; done < total; done += piece) {
        if (ring.Read(bytes.data(), piece) != piece) return false;
        for (int i = 0; i < piece; ++i) {
            if (bytes[i] != kt::PatternByte(done + i)) return false;
        }
    }
    return true;
}

}  // namespace

TEST(KelIpcSockImpl, FailedOpensLeaveNothingBehindAndLogTheirChain) {
    const std::string name = kt::UniqueName("chan");
    kt::LogCapture log;
    KelIpcSockImpl early;
    EXPECT_EQ(IPC_ERR_FAILED, early.Open(Client, name.c_str(), kBlock, nullptr, nullptr, Block));
    std::vector<KelLogRecord> records = log.Records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("ShmClientOpen", records[0].function);
    EXPECT_EQ("shm_open fail, m_fileMap=-1, errno=" + std::to_string(ENOENT), records[0].message);
    EXPECT_EQ("BaseAPI/KelIpc/src/KelIpcSockImpl", records[1].file);
    EXPECT_EQ("Open", records[1].function);
    EXPECT_EQ("KelShareMemory Open fail, rc=-10000", records[1].message);
    EXPECT_FALSE(kt::SemExists(name + "_ssm"));

    // A server block below the ring's minimum: segment and set are made, then removed again.
    KelIpcSockImpl small;
    EXPECT_EQ(IPC_ERR_PARAM, small.Open(Server, name.c_str(), 16384, nullptr, nullptr, Block));
    EXPECT_EQ("KelCycleBuffer AttachIpc fail, rc=-9998", log.Messages().back());
    EXPECT_FALSE(kt::ShmExists(name + "_shm"));
    EXPECT_FALSE(kt::SemExists(name + "_ssm"));

    KelIpcSockImpl server;
    ASSERT_EQ(IPC_OK, server.Open(Server, name.c_str(), kBlock, nullptr, nullptr, Block));
    EXPECT_EQ(IPC_ERR_OPENED, server.Open(Server, name.c_str(), kBlock, nullptr, nullptr, Block));
    KelIpcSockImpl wrongSize;
    EXPECT_EQ(IPC_ERR_FAILED, wrongSize.Open(Client, name.c_str(), kBlock * 2, nullptr, nullptr, Block));
    // Neither the failed client nor the refused reopen released the server's objects.
    EXPECT_TRUE(kt::ShmExists(name + "_shm"));
    EXPECT_TRUE(kt::SemExists(name + "_ssm"));
    EXPECT_TRUE(server.Ring().Running());
    EXPECT_EQ(IPC_ERR_NOT_OPENED, wrongSize.Close());
}

TEST(KelIpcSockImpl, ServerCloseEndsClientTransfersWhileItsMappingStaysValid) {
    const std::string name = kt::UniqueName("chan");
    KelIpcSockImpl server;
    KelIpcSockImpl client;
    ASSERT_EQ(IPC_OK, server.Open(Server, name.c_str(), kBlock, nullptr, nullptr, Block));
    ASSERT_EQ(IPC_OK, client.Open(Client, name.c_str(), kBlock, nullptr, nullptr, Block));
    char out[16];
    auto blocked = std::async(std::launch::async, [&] { return client.Ring().Read(out, 16); });
    EXPECT_FALSE(kt::Ready(blocked, 20));
    EXPECT_EQ(IPC_OK, server.Close());
    ASSERT_TRUE(kt::Ready(blocked, 10000)) << "server close did not release the client's read";
    EXPECT_EQ(IPC_ERR_NOT_OPENED, blocked.get());
    EXPECT_FALSE(kt::ShmExists(name + "_shm"));
    EXPECT_FALSE(kt::SemExists(name + "_ssm"));
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Ring().BlockWrite(out, 4));
    EXPECT_EQ(kBlock - 9024, client.Ring().Buffer().KelCBHeadPtr()->dataLen);  // still mapped
    EXPECT_EQ(IPC_OK, client.Close());
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Close());
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Ring().Write(out, 1));
    EXPECT_FALSE(client.Ring().Running());
}

TEST(KelChannelRing, ArgumentTestsBeforeTheRingOnlyForBlockAndNonBlockForms) {
    const std::string name = kt::UniqueName("lchan");
    KelLocalSockImpl server;
    ASSERT_EQ(IPC_OK, server.Open(Server, name.c_str(), kBlock, nullptr, NonBlock));
    KelChannelRing& ring = server.Ring();
    char byte = 0;
    for (int length : {0, -1}) {
        EXPECT_EQ(IPC_ERR_NULL, ring.BlockWrite(&byte, length));
        EXPECT_EQ(IPC_ERR_NULL, ring.BlockRead(&byte, length));
        EXPECT_EQ(IPC_ERR_NULL, ring.NonBlockWrite(&byte, length));
        EXPECT_EQ(IPC_ERR_NULL, ring.NonBlockRead(&byte, length));
        EXPECT_EQ(IPC_ERR_NULL, ring.Write(&byte, length));  // from the ring itself
        EXPECT_EQ(IPC_ERR_NULL, ring.Read(&byte, length));
    }
    EXPECT_EQ(IPC_ERR_NULL, ring.NonBlockWrite(nullptr, 1));
    EXPECT_EQ(IPC_OK, server.Close());
    for (int rc : {ring.Write(&byte, 1), ring.BlockRead(&byte, 1), ring.NonBlockWrite(&byte, 1),
                   ring.DataSize(), ring.SpaceSize(), ring.Reset(), ring.Start(), ring.Stop()}) {
        EXPECT_EQ(IPC_ERR_NOT_OPENED, rc);
    }
}

TEST(KelLocalSockImpl, CarriesAStreamBetweenThreadsAndWhicheverEndClosesLastFrees) {
    const std::string name = kt::UniqueName("lchan");
    KelLocalSockImpl server;
    KelLocalSockImpl client;
    ASSERT_EQ(IPC_OK, server.Open(Server, name.c_str(), kBlock, nullptr, Block));
    KelLocalSockImpl second;
    EXPECT_EQ(IPC_ERR_OPENED, second.Open(Server, name.c_str(), kBlock, nullptr, Block));
    ASSERT_EQ(IPC_OK, client.Open(Client, name.c_str(), kBlock, nullptr, Block));
    const int64_t total = 5000LL * 777;
    auto sent = std::async(std::launch::async, [&] { return SendPattern(client.Ring(), total, 5000); });
    auto received = std::async(std::launch::async, [&] { return ReceivePattern(server.Ring(), total, 777); });
    if (!kt::Ready(sent, 30000) || !kt::Ready(received, 30000)) server.Ring().Stop();
    EXPECT_TRUE(sent.get());
    EXPECT_TRUE(received.get());

    // The server closes first: the client's transfers end, and the name stays taken until it closes too.
    EXPECT_EQ(IPC_OK, server.Close());
    char byte = 0;
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Ring().NonBlockWrite(&byte, 1));
    KelLocalSockImpl again;
    EXPECT_EQ(IPC_ERR_OPENED, again.Open(Server, name.c_str(), kBlock, nullptr, Block));
    EXPECT_EQ(IPC_OK, client.Close());
    EXPECT_EQ(IPC_OK, again.Open(Server, name.c_str(), kBlock, nullptr, Block));
}

TEST(KelLocalSockImpl, FailedOpensReleaseTheirRegistrations) {
    const std::string name = kt::UniqueName("lchan");
    kt::LogCapture log;
    KelLocalSockImpl early;
    EXPECT_EQ(IPC_ERR_NOT_OPENED, early.Open(Client, name.c_str(), kBlock, nullptr, Block));
    EXPECT_EQ("KelLocalMemory Open fail, rc=-9996", log.Messages().back());

    KelLocalSockImpl small;
    EXPECT_EQ(IPC_ERR_PARAM, small.Open(Server, name.c_str(), 16384, nullptr, Block));
    EXPECT_EQ("KelCycleBuffer AttachLocal fail, rc=-9998", log.Messages().back());
    EXPECT_EQ("BaseAPI/KelIpc/src/KelLocalSockImpl", log.Records().back().file);

    // A server with its own semaphore registers none, so a client that wants the named one fails at that
    // step and gives its pool hold back.
    KelSemaphore own;
    KelLocalSockImpl server;
    ASSERT_EQ(IPC_OK, server.Open(Server, name.c_str(), kBlock, &own, Block));
    KelLocalSockImpl client;
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Open(Client, name.c_str(), kBlock, nullptr, Block));
    EXPECT_EQ("KelLocalSemaphore Open fail, rc=-9996", log.Messages().back());
    EXPECT_EQ(IPC_ERR_PARAM, client.Open(Client, name.c_str(), kBlock * 2, &own, Block));
    EXPECT_EQ(IPC_OK, server.Close());
    KelLocalSockImpl fresh;
    EXPECT_EQ(IPC_OK, fresh.Open(Server, name.c_str(), kBlock, nullptr, Block));
}
