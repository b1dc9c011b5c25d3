#include <cstdio>
#include <cstring>

#include "Commands.h"

namespace {

struct Command {
    const char* name;
    int (*run)(int argc, char** argv);
    const char* help;
};

// A new subcommand: declare its entry point in Commands.h and add a row here.
const Command kCommands[] = {
    {"demo", DemoMain, "stream a checked payload both ways between two processes and between two threads"},
    {"bench", BenchMain, "throughput, latency and idle cost of KelIpc beside a pipe and a socket pair"},
    {"serve", ServeMain, "server end of a byte-stream bridge: client's bytes to stdout, stdin to the client"},
    {"connect", ConnectMain, "client end of a byte-stream bridge: stdin to the server, its bytes to stdout"},
    {"inspect", InspectMain, "show both directions of a Process channel without disturbing it"},
    {"stop", StopMain, "stop a live Process channel from outside, releasing blocked transfers"},
    {"start", StartMain, "start a stopped Process channel again (both rings are emptied)"},
    {"clean", CleanMain, "remove the segments and semaphore sets of an unused (or --force: any) channel"},
    {"soak", SoakMain, "long-run check of all transfer forms and modes on numbered, checksummed records"},
    {"version", VersionMain, "print the versions of kelipc and of the libKelIpc it runs with"},
};

void PrintUsage(FILE* out) {
    std::fprintf(
        out,
        "usage: kelipc <command> [options]\n       kelipc <command> --help\n       kelipc --version\n\n"
        "commands:\n");
    for (const Command& command : kCommands) std::fprintf(out, "  %-10s %s\n", command.name, command.help);
    std::fprintf(out, "\nexit codes: 0 success, 1 failure, 2 usage error\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        PrintUsage(stderr);
        return kExitUsage;
    }
    if (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "help")) {
        PrintUsage(stdout);
        return kExitOk;
    }
    if (!std::strcmp(argv[1], "--version")) return VersionMain(1, argv + 1);
    for (const Command& command : kCommands) {
        if (std::strcmp(argv[1], command.name) == 0) return command.run(argc - 1, argv + 1);
    }
    std::fprintf(stderr, "kelipc: unknown command '%s'\n\n", argv[1]);
    PrintUsage(stderr);
    return kExitUsage;
}
