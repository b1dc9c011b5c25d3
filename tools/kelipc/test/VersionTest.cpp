#include <gtest/gtest.h>

#include <string>

#include "KelIpcVersion.h"
#include "ToolProcess.h"

// In one build the program and the library it loads are both the project's version.
TEST(KelipcVersion, BothSpellingsPrintProgramAndLibraryVersions) {
    const std::string expected =
        std::string("kelipc ") + KELIPC_VERSION_STRING + "\nlibKelIpc " + KELIPC_VERSION_STRING + "\n";
    for (const char* spelling : {"--version", "version"}) {
        std::string out;
        std::string err;
        EXPECT_EQ(0, RunTool({spelling}, "", &out, &err)) << err;
        EXPECT_EQ(expected, out) << spelling;
    }
    EXPECT_EQ(2, RunTool({"version", "extra"}, ""));
}
