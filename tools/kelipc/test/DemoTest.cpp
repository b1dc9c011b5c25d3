#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <string>

#include "TestSupport.h"
#include "ToolProcess.h"

TEST(KelipcDemo, VerifiesBothTransportsAndLeavesNothingBehind) {
    const std::string name = kt::UniqueName("demo");
    std::string out;
    std::string err;
    ASSERT_EQ(0, RunTool({"demo", "--size", "4M", "--name", name}, "", &out, &err)) << out << err;
    EXPECT_NE(std::string::npos, out.find("process")) << out;
    EXPECT_NE(std::string::npos, out.find("local")) << out;
    EXPECT_NE(std::string::npos, out.find("verdict: OK")) << out;
    EXPECT_EQ(0, kt::ChannelObjects(name));
}

// A direction that did not arrive whole is never OK, and its row says why.
TEST(KelipcDemo, ALostClientProcessFailsItsRowsWithTheCauseAndLeavesNothingBehind) {
    const std::string name = kt::UniqueName("demo_lost");
    ToolProcess tool({"demo", "--size", "16G", "--transport", "process", "--name", name});
    std::string child;
    ASSERT_TRUE(kt::WaitUntil(
        [&] {
            const std::string task =
                "/proc/" + std::to_string(tool.Pid()) + "/task/" + std::to_string(tool.Pid());
            std::ifstream(task + "/children") >> child;
            return !child.empty() && kt::ShmExists(name + "_XL_shm");
        },
        20000));
    kill(std::stoi(child), SIGKILL);
    EXPECT_EQ(1, tool.Finish(60000)) << tool.Out() << tool.Err();
    EXPECT_NE(std::string::npos, tool.Out().find("client->server")) << tool.Out();
    EXPECT_NE(std::string::npos, tool.Out().find("FAILED: the client process exited")) << tool.Out();
    EXPECT_EQ(std::string::npos, tool.Out().find(" OK\n")) << tool.Out();
    EXPECT_NE(std::string::npos, tool.Out().find("verdict: FAILED")) << tool.Out();
    EXPECT_EQ(0, kt::ChannelObjects(name));
}
