#include <gtest/gtest.h>

#include <string>

#include "KelIpcVersion.h"
#include "ToolProcess.h"

// In one build the program and the library it loads are both the version the header's parts name.
TEST(KelipcVersion, BothSpellingsPrintProgramAndLibraryVersions) {
    const std::string version = std::to_string(KELIPC_VERSION_MAJOR) + "." +
                                std::to_string(KELIPC_VERSION_MINOR) + "." +
                                std::to_string(KELIPC_VERSION_PATCH);
    EXPECT_EQ(version, KELIPC_VERSION_STRING);
    for (const char* spelling : {"--version", "version"}) {
        std::string out;
        std::string err;
        EXPECT_EQ(0, RunTool({spelling}, "", &out, &err)) << err;
        EXPECT_EQ("kelipc " + version + "\nlibKelIpc " + version + "\n", out) << spelling;
    }
    EXPECT_EQ(2, RunTool({"version", "extra"}, ""));
}
