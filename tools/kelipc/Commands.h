#ifndef KELIPC_TOOL_COMMANDS_H
#define KELIPC_TOOL_COMMANDS_H

// Exit codes shared by every subcommand.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Subcommand entry points: argv[0] is the subcommand's name, the rest are its own arguments.
int DemoMain(int argc, char** argv);
int BenchMain(int argc, char** argv);
int ServeMain(int argc, char** argv);
int ConnectMain(int argc, char** argv);
int InspectMain(int argc, char** argv);
int StopMain(int argc, char** argv);
int StartMain(int argc, char** argv);
int CleanMain(int argc, char** argv);
int SoakMain(int argc, char** argv);
int VersionMain(int argc, char** argv);

#endif  // KELIPC_TOOL_COMMANDS_H
