#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "TestSupport.h"
#include "ToolProcess.h"

TEST(KelipcBench, ShortRunReportsEveryTransportAndLeavesNothingBehind) {
    const std::string name = kt::UniqueName("bench");
    const std::string json = testing::TempDir() + name + ".json";
    std::string out;
    std::string err;
    ASSERT_EQ(0, RunTool({"bench", "--quick", "--volume", "4M", "--repeat", "1", "--round-trips", "200",
                          "--name", name, "--json", json},
                         "", &out, &err, 120000))
        << out << err;
    EXPECT_NE(std::string::npos, out.find("verdict: OK")) << out;
    std::ifstream file(json);
    std::stringstream text;
    text << file.rdbuf();
    const std::string figures = text.str();
    std::remove(json.c_str());
    for (const char* row : {"\"kelipc-process\"", "\"kelipc-process-4M\"", "\"kelipc-local\"", "\"pipe-1M\"",
                            "\"socketpair\"", "\"latency\"", "\"idle\"", "\"verdict\": \"OK\""})
        EXPECT_NE(std::string::npos, figures.find(row)) << row << "\n" << figures;
    // Every case has a socket name of its own: the prefix and its index.
    for (int index = 0; index < 40; ++index) {
        const std::string socket = name + "_" + std::to_string(index);
        EXPECT_FALSE(kt::ShmExists(socket + "_XL_shm")) << socket;
        EXPECT_FALSE(kt::SemExists(socket + "_XR_ssm")) << socket;
    }
}
