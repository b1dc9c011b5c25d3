#include <gtest/gtest.h>

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
    EXPECT_FALSE(kt::ShmExists(name + "_XL_shm"));
    EXPECT_FALSE(kt::SemExists(name + "_XR_ssm"));
}
