#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "TestSupport.h"
#include "ToolProcess.h"

namespace {

// The report lines of one run ("process/Block" and so on): one per direction.
std::vector<std::string> LinesOf(const std::string& out, const std::string& run) {
    std::vector<std::string> lines;
    std::istringstream text(out);
    for (std::string line; std::getline(text, line);)
        if (line.find(" " + run + " ") != std::string::npos) lines.push_back(line);
    return lines;
}

}  // namespace

TEST(KelipcSoak, ChecksBothTransportsAndModesAndLeavesNothingBehind) {
    ToolProcess tool({"soak", "--size", "8M", "--seed", "7"});
    tool.CloseInput();
    ASSERT_EQ(0, tool.Finish(180000)) << tool.Out() << tool.Err();
    const std::string& out = tool.Out();
    for (const char* run : {"process/Block", "process/NonBlock", "local/Block", "local/NonBlock"}) {
        const std::vector<std::string> lines = LinesOf(out, run);
        ASSERT_EQ(2u, lines.size()) << run << "\n" << out;
        for (const std::string& line : lines) {
            EXPECT_NE(std::string::npos, line.find(" 8388608 bytes ")) << line;
            EXPECT_EQ("  OK", line.substr(line.size() - 4)) << line;
        }
    }
    EXPECT_NE(std::string::npos, out.find("\nverdict: OK\n")) << out;
    for (int index = 0; index < 2; ++index) {
        const std::string socket = "kelipc_soak_" + std::to_string(tool.Pid()) + "_" + std::to_string(index);
        EXPECT_EQ(0, kt::ChannelObjects(socket)) << socket;
    }
}
