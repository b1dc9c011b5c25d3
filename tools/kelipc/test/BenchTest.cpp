#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ToolProcess.h"

TEST(KelipcBench, ShortRunUnderLoadReportsEveryRowAndLeavesNothingBehind) {
    const std::string name = kt::UniqueName("bench");
    const std::string path = testing::TempDir() + name + ".json";
    std::string out, err;
    ASSERT_EQ(0, RunTool({"bench", "--quick", "--volume", "4M", "--repeat", "1", "--round-trips", "200",
                          "--load", "1", "--name", name, "--json", path},
                         "", &out, &err, 120000))
        << out << err;
    EXPECT_NE(std::string::npos, out.find("verdict: OK")) << out;
    EXPECT_NE(std::string::npos, out.find("load: 1 busy loop")) << out;
    std::ifstream file(path);
    const nlohmann::json json = nlohmann::json::parse(file, nullptr, false);
    std::remove(path.c_str());
    ASSERT_FALSE(json.is_discarded());
    EXPECT_EQ("OK", json["verdict"]);
    EXPECT_EQ(1, json["settings"]["load_busy_loops"]);
    const bool counted = json["settings"]["syscalls_counted"];
    EXPECT_EQ(counted, json["settings"]["syscalls_not_counted_because"].is_null());
    for (const auto& row : json["stream"]) {
        EXPECT_TRUE(row["transport"].is_string() && row["write_bytes"].is_number()) << row;
        ASSERT_EQ(1u, row["runs"].size()) << row;
        // Both wake-up figures per row: switches always, system calls where the tracepoint can be read.
        const char* per = row["write_bytes"] == 64 ? "per_write" : "per_mib";
        EXPECT_TRUE(row[std::string("median_vcsw_") + per].is_number()) << row;
        EXPECT_EQ(counted, row[std::string("median_syscalls_") + per].is_number()) << row;
        EXPECT_GE(row["runs"][0]["vcsw_reader"].get<int>(), 0) << row;
    }
    EXPECT_EQ(22u, json["stream"].size());
    EXPECT_EQ(12u, json["latency"].size());
    EXPECT_EQ(1u, json["idle"]["runs"].size());
    // Every case has a socket name of its own: the prefix and its index.
    for (int index = 0; index < 48; ++index) {
        EXPECT_EQ(0, kt::ChannelObjects(name + "_" + std::to_string(index))) << index;
    }
}

// The busy loops belong to the run: an interrupted bench takes them along and exits 128 + SIGINT.
TEST(KelipcBench, InterruptedRunUnderLoadStopsItsBusyLoops) {
    const std::string name = kt::UniqueName("bench_int");
    ToolProcess tool({"bench", "--load", "2", "--name", name});
    const std::string task = "/proc/" + std::to_string(tool.Pid()) + "/task/" + std::to_string(tool.Pid());
    std::vector<int> loops;
    ASSERT_TRUE(kt::WaitUntil(
        [&] {
            std::ifstream children(task + "/children");
            loops.assign(std::istream_iterator<int>(children), std::istream_iterator<int>());
            return loops.size() >= 3;  // two loops and a measuring child
        },
        20000));
    tool.Signal(SIGINT);
    EXPECT_EQ(128 + SIGINT, tool.Finish(60000)) << tool.Out() << tool.Err();
    EXPECT_NE(std::string::npos, tool.Out().find("verdict: INTERRUPTED")) << tool.Out();
    for (const int pid : loops) EXPECT_NE(0, kill(pid, 0)) << "process " << pid << " outlived the bench";
}
