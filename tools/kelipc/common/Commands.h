#ifndef KELIPC_TOOL_COMMANDS_H
#define KELIPC_TOOL_COMMANDS_H

#include <functional>

namespace CLI {
class App;
}

// Exit codes shared by every command; a command stopped by signal N exits with 128 + N, as shells do.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitSignalBase = 128;

// A command adds its options to its own subcommand and returns what runs it once every argument has
// been parsed and checked; nothing is opened or created before then.
using CommandRun = std::function<int()>;

CommandRun SetupDemo(CLI::App& command);
CommandRun SetupBench(CLI::App& command);
CommandRun SetupServe(CLI::App& command);
CommandRun SetupConnect(CLI::App& command);
CommandRun SetupInspect(CLI::App& command);
CommandRun SetupList(CLI::App& command);
CommandRun SetupStop(CLI::App& command);
CommandRun SetupStart(CLI::App& command);
CommandRun SetupClean(CLI::App& command);
CommandRun SetupSoak(CLI::App& command);
CommandRun SetupVersion(CLI::App& command);

// What `kelipc --version` and `kelipc version` print.
int PrintVersions();

#endif  // KELIPC_TOOL_COMMANDS_H
