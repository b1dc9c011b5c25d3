#include <KelCycleBuffer.h>
#include <KelShareMemory.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
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

// Feeds its input and collects its output; each end runs in its own thread, since either one stalls
// when nobody drains its stdout.
void Drive(ToolProcess& tool, const std::string& input, int& code) {
    code = -2;
    if (!input.empty() && !tool.WriteInput(input)) return;
    tool.CloseInput();
    code = tool.Finish(60000);
}

struct Session {
    int serveCode = -2;
    int connectCode = -2;
    std::string serveOut;  // what the client sent
    std::string connectOut;
    std::string errors;
};

Session RunBridge(const std::string& name, const std::string& toClient, const std::string& toServer,
                  const std::vector<std::string>& options = {}) {
    std::vector<std::string> serveArgs{"serve", name, "--wait", "30"};
    std::vector<std::string> connectArgs{"connect", name};
    serveArgs.insert(serveArgs.end(), options.begin(), options.end());
    connectArgs.insert(connectArgs.end(), options.begin(), options.end());
    ToolProcess serve(serveArgs);
    ToolProcess connect(connectArgs);
    Session session;
    std::thread serveThread(Drive, std::ref(serve), std::cref(toClient), std::ref(session.serveCode));
    std::thread connectThread(Drive, std::ref(connect), std::cref(toServer), std::ref(session.connectCode));
    serveThread.join();
    connectThread.join();
    session.serveOut = serve.Out();
    session.connectOut = connect.Out();
    session.errors = "serve: " + serve.Err() + "\nconnect: " + connect.Err();
    return session;
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
        const std::string toClient = Pattern(c.toClient, 0);
        const std::string toServer = Pattern(c.toServer, 1000003);  // a different stream each way
        const Session session = RunBridge(name, toClient, toServer, c.options);
        EXPECT_EQ(0, session.serveCode) << session.errors;
        EXPECT_EQ(0, session.connectCode) << session.errors;
        EXPECT_EQ(toServer.size(), session.serveOut.size());
        EXPECT_TRUE(toServer == session.serveOut);
        EXPECT_EQ(toClient.size(), session.connectOut.size());
        EXPECT_TRUE(toClient == session.connectOut);
        EXPECT_EQ(0, kt::ChannelObjects(name));
    }
}

TEST(KelipcBridge, ConnectWithoutServerFailsOnceItsWaitRunsOut) {
    const std::string name = kt::UniqueName("bridge_none");
    std::string err;
    EXPECT_EQ(1, RunTool({"connect", name, "--wait", "0.3"}, "", nullptr, &err, 20000)) << err;
    EXPECT_NE(std::string::npos, err.find("no server")) << err;
    EXPECT_EQ(0, kt::ChannelObjects(name));
}

TEST(KelipcBridge, InterruptedWaitingServeRemovesItsObjects) {
    const std::string name = kt::UniqueName("bridge_int");
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
