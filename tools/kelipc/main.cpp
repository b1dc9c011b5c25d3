#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "common/Commands.h"

namespace {

struct Command {
    const char* name;
    const char* help;
    CommandRun (*setup)(CLI::App& command);
};

// A new command: declare its setup in common/Commands.h and add a row here.
const Command kCommands[] = {
    {"demo", "stream a checked payload both ways between two processes and between two threads", SetupDemo},
    {"bench", "throughput, latency and idle cost of KelIpc beside a pipe and a socket pair", SetupBench},
    {"serve", "server end of a byte-stream bridge: client's bytes to stdout, stdin to the client",
     SetupServe},
    {"connect", "client end of a byte-stream bridge: stdin to the server, its bytes to stdout", SetupConnect},
    {"inspect", "show both directions of a Process channel without disturbing it", SetupInspect},
    {"list", "list every Process channel with its ends' liveness, marking the stale ones", SetupList},
    {"stop", "stop a live Process channel from outside, releasing blocked transfers", SetupStop},
    {"start", "start a stopped Process channel again (both rings are emptied)", SetupStart},
    {"clean", "remove the segments and semaphore sets of an unused (or --force: any) channel", SetupClean},
    {"soak", "long-run check of all transfer forms and modes on numbered, checksummed records", SetupSoak},
    {"version", "print the versions of kelipc and of the libKelIpc it runs with", SetupVersion},
};

const char* const kExitCodes =
    "exit codes: 0 success, 1 failure, 2 usage error, 128+N stopped by signal N (130 after Ctrl-C)";

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("kelipc: try, measure and operate KelIpc channels", "kelipc");
    app.footer(kExitCodes);
    bool version = false;
    app.add_flag("--version", version, "print the versions of kelipc and of the libKelIpc it runs with");
    app.require_subcommand(0, 1);
    std::vector<std::pair<CLI::App*, CommandRun>> commands;
    for (const Command& command : kCommands) {
        CLI::App* sub = app.add_subcommand(command.name, command.help);
        commands.emplace_back(sub, command.setup(*sub));
        // What a command's setup wrote as its footer is its longer story; the exit codes go last.
        const std::string story = sub->get_footer();
        sub->footer(story.empty() ? kExitCodes : story + "\n\n" + kExitCodes);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::fputs(app.help().c_str(), stdout);
        return kExitOk;
    } catch (const CLI::ParseError& error) {
        // One line in one style for every usage error: the command, what was wrong, where help is.
        std::string who = "kelipc";
        for (const CLI::App* sub : app.get_subcommands()) who += " " + sub->get_name();
        std::string message = error.what();
        if (who == "kelipc" && (argc < 2 || argv[1][0] != '-')) {
            message =
                argc < 2 ? "a command is required:" : "'" + std::string(argv[1]) + "' is not a command:";
            for (const Command& command : kCommands) message += std::string(" ") + command.name;
        }
        std::fprintf(stderr, "%s: %s; see '%s --help'\n", who.c_str(), message.c_str(), who.c_str());
        return kExitUsage;
    }
    if (version) return PrintVersions();
    for (auto& command : commands)
        if (command.first->parsed()) return command.second();
    std::string message = "kelipc: a command is required:";
    for (const Command& command : kCommands) message += std::string(" ") + command.name;
    std::fprintf(stderr, "%s; see 'kelipc --help'\n", message.c_str());
    return kExitUsage;
}
