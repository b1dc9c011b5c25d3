#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "TestSupport.h"
#include "ToolProcess.h"

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
