#include <KelCycleBuffer.h>
#include <KelShareMemory.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

std::string Pattern(size_t size, uint64_t offset) {
    const std::vector<char> bytes = kt::Pattern(size, offset);
    return std::string(bytes.begin(), bytes.end());
}

// The client marks its arrival in the header of the ring it writes.
bool ClientArrived(const std::string& name) {
    kt::LogCapture quiet;  // the probe fails until the server is up
    KelShareMemory segment;
    KelCycleBuffer ring;
    uint64_t total = 0;
    uint64_t flags = 0;
    if (segment.Open((name + "_XL_shm").c_str(), 262144, Client, nullptr) != IPC_OK) return false;
    if (ring.Attach(segment.Data(), 262144, Client, NonBlock) == IPC_OK) ring.GetWyTransCounter(total, flags);
    return flags != 0;
}

}  // namespace

TEST(KelipcBridge, DeliversEveryByteBothWaysWhateverTheSizes) {
    struct Case {
        size_t toClient;
        size_t toServer;
        std::vector<std::string> options;
    };
    const Case cases[] = {
        {0, 0, {}},                                             // only the end marks cross
        {0, 7, {}},                                             // one side's input is empty from the start
        {3 << 20, (1 << 20) + 13, {}},                          // many times the ring, unequal sizes
        {(2 << 20) + 5, 11, {"--nonblock", "--block", "32K"}},  // polling through the smallest ring
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.toClient) + " / " + std::to_string(c.toServer));
        const std::string name = kt::UniqueName("bridge");
        std::vector<std::string> serveArgs{"serve", name, "--wait", "30"};
        std::vector<std::string> connectArgs{"connect", name};
        serveArgs.insert(serveArgs.end(), c.options.begin(), c.options.end());
        connectArgs.insert(connectArgs.end(), c.options.begin(), c.options.end());
        ToolProcess serve(serveArgs);
        ToolProcess connect(connectArgs);
        const std::string toClient = Pattern(c.toClient, 0);
        const std::string toServer = Pattern(c.toServer, 1000003);  // a different stream each way
        // Each end is fed from a thread of its own: an end may take its input only as the other drains.
        const auto drive = [](ToolProcess* tool, const std::string* input, int* code) {
            *code = -2;
            if (!input->empty() && !tool->WriteInput(*input)) return;
            tool->CloseInput();
            *code = tool->Finish(60000);
        };
        int serveCode = -2;
        int connectCode = -2;
        std::thread serving(drive, &serve, &toClient, &serveCode);
        drive(&connect, &toServer, &connectCode);
        serving.join();
        const std::string errors = "serve: " + serve.Err() + "\nconnect: " + connect.Err();
        EXPECT_EQ(0, serveCode) << errors;
        EXPECT_EQ(0, connectCode) << errors;
        EXPECT_TRUE(toServer == serve.Out()) << serve.Out().size() << " bytes came of " << toServer.size();
        EXPECT_TRUE(toClient == connect.Out())
            << connect.Out().size() << " bytes came of " << toClient.size();
        EXPECT_EQ(0, kt::ChannelObjects(name));
    }
}

// An end without a peer: a connect gives up when its wait runs out, an interrupted serve stops waiting.
TEST(KelipcBridge, AnEndWithoutAPeerFailsOrIsInterruptedAndLeavesNothing) {
    const std::string name = kt::UniqueName("bridge_none");
    std::string err;
    EXPECT_EQ(1, RunTool({"connect", name, "--wait", "0.3"}, "", nullptr, &err, 20000)) << err;
    EXPECT_NE(std::string::npos, err.find("no server")) << err;
    EXPECT_EQ(0, kt::ChannelObjects(name));
    ToolProcess serve({"serve", name});
    ASSERT_TRUE(kt::WaitUntil([&] { return kt::ShmExists(name + "_XR_shm"); }, 10000));
    serve.Signal(SIGINT);
    EXPECT_EQ(128 + SIGINT, serve.Finish(10000)) << serve.Err();
    EXPECT_EQ(0, kt::ChannelObjects(name));
}

// Stop empties both directions, so a peer cut off mid-stream must end in failure, not in a short "success".
TEST(KelipcBridge, ClientInterruptedMidStreamFailsTheServerAndLeavesNothing) {
    const std::string name = kt::UniqueName("bridge_cut");
    ToolProcess serve({"serve", name, "--wait", "30"});
    ToolProcess connect({"connect", name});
    ASSERT_TRUE(kt::WaitUntil([&] { return ClientArrived(name); }, 20000));
    ASSERT_TRUE(connect.WriteInput(Pattern(100000, 0)));  // inputs stay open: neither end can finish
    connect.Signal(SIGINT);
    EXPECT_EQ(128 + SIGINT, connect.Finish(20000)) << connect.Err();
    EXPECT_EQ(1, serve.Finish(20000)) << serve.Err();
    EXPECT_EQ(0, kt::ChannelObjects(name));
}
