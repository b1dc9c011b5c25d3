// The in-process transport's parts, registered by name in the process: semaphore, memory, channel.
#include <future>
#include <string>

#include <gtest/gtest.h>

#include "KelLocalMemory.h"
#include "KelLocalSemaphore.h"
#include "KelLocalSockImpl.h"
#include "KelSemaphore.h"
#include "TestSupport.h"

constexpr int kChannelBlock = 65536;

// Client before server, a second server and sizes that differ are the socket and KelLocalSockImpl tests'.
TEST(KelLocalSemaphore, ClientNeedsServerAndTheNameStaysTakenUntilTheLastHandleClosesWhicheverItIs) {
    const std::string name = kt::UniqueName("lsc");
    KelLocalSemaphore server, clientA, clientB, again;
    EXPECT_EQ(IPC_ERR_NULL, clientA.Open(nullptr, Client));
    EXPECT_EQ(IPC_ERR_PARAM, clientA.Open(name.c_str(), static_cast<KelSide>(2)));
    ASSERT_EQ(IPC_OK, server.Open(name.c_str(), Server));
    // Names are compared byte for byte: another letter case is another semaphore.
    std::string upper = name;
    upper[0] = 'K';
    EXPECT_EQ(IPC_ERR_NOT_OPENED, clientA.Open(upper.c_str(), Client));
    ASSERT_EQ(IPC_OK, clientA.Open(name.c_str(), Client));
    ASSERT_EQ(IPC_OK, clientB.Open(name.c_str(), Client));
    clientA.Semaphore()->Release();
    EXPECT_EQ(IPC_OK, server.Close());
    EXPECT_EQ(IPC_OK, server.Close());  // closing twice is harmless
    clientB.Semaphore()->Acquire();     // one semaphore, still alive for the clients
    clientA.Close();
    EXPECT_EQ(IPC_ERR_OPENED, again.Open(name.c_str(), Server));
    clientB.Close();
    ASSERT_EQ(IPC_OK, again.Open(name.c_str(), Server));
    // The new semaphore starts from zero and counts its releases.
    KelSemaphore& sem = *again.Semaphore();
    for (int i = 0; i < 3; ++i) sem.Release();
    for (int i = 0; i < 3; ++i) sem.Acquire();  // none of these may block
    auto fourth = std::async(std::launch::async, [&] { sem.Acquire(); });
    EXPECT_FALSE(kt::Ready(fourth, 50));
    sem.Release();
    ASSERT_TRUE(kt::Ready(fourth, 10000));
}

TEST(KelLocalMemory, ClientSharesTheServerBlockOfTheSameSizeOnly) {
    const std::string name = kt::UniqueName("lcm");
    KelLocalMemory server, client, again;
    EXPECT_EQ(IPC_ERR_NULL, server.Open(nullptr, 64, Server));
    EXPECT_EQ(IPC_ERR_NULL, server.Open(name.c_str(), 0, Server));
    EXPECT_EQ(IPC_ERR_PARAM, server.Open(name.c_str(), 64, static_cast<KelSide>(2)));
    ASSERT_EQ(IPC_OK, server.Open(name.c_str(), 64, Server));
    EXPECT_EQ(IPC_ERR_PARAM, client.Open(name.c_str(), 65, Client));
    ASSERT_EQ(IPC_OK, client.Open(name.c_str(), 64, Client));
    server.Data()[63] = 'q';
    // Server first: the block stays for the client, and the name stays taken until it closes.
    server.Close();
    EXPECT_EQ('q', client.Data()[63]);
    EXPECT_EQ(IPC_ERR_OPENED, again.Open(name.c_str(), 64, Server));
    client.Close();
    EXPECT_EQ(nullptr, client.Data());
    EXPECT_EQ(IPC_OK, again.Open(name.c_str(), 128, Server));
}

TEST(KelChannelRing, ArgumentTestsBeforeTheRingOnlyForBlockAndNonBlockForms) {
    const std::string name = kt::UniqueName("lchan");
    KelLocalSockImpl server;
    ASSERT_EQ(IPC_OK, server.Open(Server, name.c_str(), kChannelBlock, nullptr, NonBlock));
    KelChannelRing& ring = server.Ring();
    char byte = 0;
    for (int length : {0, -1}) {
        // Write and Read refuse them in the ring itself.
        for (int rc : {ring.BlockWrite(&byte, length), ring.BlockRead(&byte, length),
                       ring.NonBlockWrite(&byte, length), ring.NonBlockRead(&byte, length)}) {
            EXPECT_EQ(IPC_ERR_NULL, rc) << length;
        }
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
    ASSERT_EQ(IPC_OK, server.Open(Server, name.c_str(), kChannelBlock, nullptr, Block));
    KelLocalSockImpl second;
    EXPECT_EQ(IPC_ERR_OPENED, second.Open(Server, name.c_str(), kChannelBlock, nullptr, Block));
    ASSERT_EQ(IPC_OK, client.Open(Client, name.c_str(), kChannelBlock, nullptr, Block));
    // The server closes first: the client's transfers end, and the name stays taken until it closes too.
    EXPECT_EQ(IPC_OK, server.Close());
    char byte = 0;
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Ring().NonBlockWrite(&byte, 1));
    EXPECT_EQ(IPC_ERR_OPENED, second.Open(Server, name.c_str(), kChannelBlock, nullptr, Block));
    EXPECT_EQ(IPC_OK, client.Close());

    // A server with its own semaphore registers none, so a client that wants the named one fails at that
    // step; neither that client nor one of another size may keep a hold on the name.
    KelSemaphore own;
    ASSERT_EQ(IPC_OK, second.Open(Server, name.c_str(), kChannelBlock, &own, Block));
    EXPECT_EQ(IPC_ERR_NOT_OPENED, client.Open(Client, name.c_str(), kChannelBlock, nullptr, Block));
    EXPECT_EQ(IPC_ERR_PARAM, client.Open(Client, name.c_str(), kChannelBlock * 2, &own, Block));
    EXPECT_EQ(IPC_OK, second.Close());
    EXPECT_EQ(IPC_OK, server.Open(Server, name.c_str(), kChannelBlock, nullptr, Block));
}
