// The program's end-to-end self-checks, demo and soak: both transports verified, nothing left behind.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <sstream>
#include <string>

#include "TestSupport.h"
#include "ToolProcess.h"

TEST(KelipcDemo, VerifiesBothTransportsAndLeavesNothingBehind) {
    const std::string name = kt::UniqueName("demo");
    std::string out, err;
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

TEST(KelipcSoak, ChecksBothTransportsAndModesAndLeavesNothingBehind) {
    ToolProcess tool({"soak", "--size", "8M", "--seed", "7"});
    tool.CloseInput();
    ASSERT_EQ(0, tool.Finish(180000)) << tool.Out() << tool.Err();
    const std::string& out = tool.Out();
    // Each run ("process/Block" and so on) reports one line per direction, the whole size and OK.
    for (const std::string run : {"process/Block", "process/NonBlock", "local/Block", "local/NonBlock"}) {
        int lines = 0;
        std::istringstream text(out);
        for (std::string line; std::getline(text, line);) {
            if (line.find(" " + run + " ") == std::string::npos) continue;
            ++lines;
            EXPECT_NE(std::string::npos, line.find(" 8388608 bytes ")) << line;
            EXPECT_EQ("  OK", line.substr(line.size() - 4)) << line;
        }
        EXPECT_EQ(2, lines) << run << "\n" << out;
    }
    EXPECT_NE(std::string::npos, out.find("\nverdict: OK\n")) << out;
    for (int index = 0; index < 2; ++index) {
        const std::string socket = "kelipc_soak_" + std::to_string(tool.Pid()) + "_" + std::to_string(index);
        EXPECT_EQ(0, kt::ChannelObjects(socket)) << socket;
    }
}
