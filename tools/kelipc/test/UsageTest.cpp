#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "KelIpcVersion.h"
#include "TestSupport.h"
#include "ToolProcess.h"

// Every bad input is refused before any work starts: exit 2, one line on stderr in one style, saying what
// would have been accepted, and nothing on stdout (no half-run report, no library log lines).
TEST(KelipcUsage, BadArgumentsAreRefusedUpFrontInOneLineThatSaysWhatIsAccepted) {
    struct Rejected {
        std::vector<std::string> args;
        std::string names;  // what the one line must name: the option and what it accepts
    };
    const std::string missing = "/nonexistent_" + std::to_string(getpid()) + "/x.json";
    const Rejected cases[] = {
        {{"demo", "--block", "1000"}, "--block: '1000' is not a size from 32K to 1G"},
        {{"demo", "--block", "2G"}, "--block: '2G' is not a size from 32K to 1G"},
        {{"demo", "--name", "a/b"}, "--name: 'a/b' is not a socket name"},
        {{"demo", "--size", "1024G"}, "--size: '1024G' is not a size from 1 to 16G"},
        {{"demo", "--size", "1.0001K"}, "--size: '1.0001K' is not a size"},
        {{"demo", "--transport", "pipe"}, "--transport: 'pipe' is not one of process, local or both"},
        {{"demo", "--bogus", "1"}, "not expected"},
        {{"bench", "--block", "64K"}, "not expected"},
        {{"bench", "--json", missing}, "--json: '" + missing + "' cannot be written"},
        {{"bench", "--repeat", "0"}, "--repeat: '0' is not a whole number from 1 to 100"},
        {{"bench", "--volume", "lots"}, "--volume: 'lots' is not a size from 64K to 64G"},
        {{"soak", "--time", "-1"}, "--time: '-1' is not a number of seconds from 0 to"},
        {{"soak", "--seed", "x"}, "--seed: 'x' is not a whole number"},
        {{"serve"}, "NAME is required"},
        {{"connect", "a", "b"}, "not expected"},
        {{"connect", "x", "--wait", "soon"}, "--wait: 'soon' is not a number of seconds"},
        {{"inspect", "a/b"}, "NAME: 'a/b' is not a socket name"},
        {{"inspect", "x", "--watch=0"}, "--watch: '0' is not a number of seconds from 0.05 to 86400"},
        {{"clean"}, "NAME or --all is required"},
        {{"clean", "--all", "x"}, "excludes"},
        {{"clean", "--all", "--force"}, "excludes"},
        {{"nonsense"}, "'nonsense' is not a command: demo bench serve"},
        {{}, "a command is required: demo bench serve"},
    };
    for (const Rejected& c : cases) {
        std::string joined;
        for (const std::string& arg : c.args) joined += " " + arg;
        SCOPED_TRACE("kelipc" + joined);
        std::string out, err;
        EXPECT_EQ(2, RunTool(c.args, "", &out, &err));
        EXPECT_EQ("", out);
        const std::string command =
            c.args.empty() || c.args[0] == "nonsense" ? "kelipc" : "kelipc " + c.args[0];
        EXPECT_EQ(0u, err.find(command + ": ")) << err;
        EXPECT_NE(std::string::npos, err.find(c.names)) << err;
        EXPECT_NE(std::string::npos, err.find("see '" + command + " --help'")) << err;
        EXPECT_EQ(err.size() - 1, err.find('\n')) << err;
    }
}

TEST(KelipcUsage, EveryCommandHasHelpWithItsOptionsAndTheExitCodes) {
    const std::vector<std::vector<std::string>> commands = {
        {"demo", "--size"},     {"bench", "--json"},    {"serve", "--wait"},
        {"connect", "--block"}, {"inspect", "--watch"}, {"stop", "NAME"},
        {"start", "NAME"},      {"clean", "--all"},     {"soak", "--seed"}};
    for (const std::vector<std::string>& command : commands) {
        std::string out;
        EXPECT_EQ(0, RunTool({command[0], "--help"}, "", &out)) << command[0];
        EXPECT_NE(std::string::npos, out.find("Usage: kelipc " + command[0])) << out;
        EXPECT_NE(std::string::npos, out.find(command[1])) << out;
        EXPECT_NE(std::string::npos, out.find("128+N stopped by signal N")) << out;
    }
}

// In one build the program and the library it loads are both the version the header's parts name.
TEST(KelipcVersion, BothSpellingsPrintProgramAndLibraryVersions) {
    const std::string version = std::to_string(KELIPC_VERSION_MAJOR) + "." +
                                std::to_string(KELIPC_VERSION_MINOR) + "." +
                                std::to_string(KELIPC_VERSION_PATCH);
    for (const char* spelling : {"--version", "version"}) {
        std::string out, err;
        EXPECT_EQ(0, RunTool({spelling}, "", &out, &err)) << err;
        EXPECT_EQ("kelipc " + version + "\nlibKelIpc " + version + "\n", out) << spelling;
    }
    EXPECT_EQ(2, RunTool({"version", "extra"}, ""));
}
