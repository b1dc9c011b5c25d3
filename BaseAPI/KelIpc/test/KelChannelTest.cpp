#include <string>

#include <gtest/gtest.h>

#include "KelLocalSockImpl.h"
#include "KelSemaphore.h"
#include "TestSupport.h"

namespace {

constexpr int kBlock = 65536;

}  // namespace

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

TEST(KelLocalSockImpl, WhicheverEndClosesLastFreesTheNameAndFailedOpensHoldNothing) {
    const std::string name = kt::UniqueName("lchan");
    kt::LogCapture quiet;  // the refused opens log their chain
    KelLocalSockImpl server;
    KelLocalSockImpl client;
    ASSERT_EQ(IPC_OK, server.Open(Server, name.c_str(), kBlock, nullptr, Block));
    KelLocalSockImpl second;
    EXPECT_EQ(IPC_ERR_OPENED, second.Open(Server, name.c_str(), kBlock, nullptr, Block));
    ASSERT_EQ(IPC_OK, client.Open(Client, name.c_str(), kBlock, nullptr, Block));
    // The server closes first: the client's transfers end, and the name stays taken until it closes too.
    EXPECT_EQ(IPC_OK, server.Close());
    char byte = 0;
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Ring().NonBlockWrite(&byte, 1));
    EXPECT_EQ(IPC_ERR_OPENED, second.Open(Server, name.c_str(), kBlock, nullptr, Block));
    EXPECT_EQ(IPC_OK, client.Close());

    // A server with its own semaphore registers none, so a client that wants the named one fails at that
    // step; neither that client nor one of another size may keep a hold on the name.
    KelSemaphore own;
    ASSERT_EQ(IPC_OK, second.Open(Server, name.c_str(), kBlock, &own, Block));
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Open(Client, name.c_str(), kBlock, nullptr, Block));
    EXPECT_EQ(IPC_ERR_PARAM, client.Open(Client, name.c_str(), kBlock * 2, &own, Block));
    EXPECT_EQ(IPC_OK, second.Close());
    EXPECT_EQ(IPC_OK, server.Open(Server, name.c_str(), kBlock, nullptr, Block));
}
