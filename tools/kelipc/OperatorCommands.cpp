// Operator commands on a live Process channel: inspect, stop, start and clean.

#include <KelCycleBuffer.h>
#include <KelShareMemory.h>
#include <KelSystemSemaphore.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "ChannelObjects.h"
#include "Commands.h"
#include "JsonText.h"
#include "StopSignal.h"

namespace {

using Direction = ChannelObjects::Direction;

// A segment younger than this may belong to a server between creating and mapping it, so --all keeps it.
constexpr time_t kSettleSeconds = 2;

struct Options {
    std::vector<std::string> names;
    bool help = false;
    bool json = false;
    bool watch = false;
    double interval = 1.0;  // seconds between refreshes of --watch
    bool force = false;
    bool all = false;
};

struct CommandInfo {
    const char* command;
    const char* usage;
    const char* summary;
    const char* options;  // preformatted option lines
    const char* flags;    // the flags it accepts besides --help, each followed by a blank
};

bool ParseInterval(const std::string& text, double& seconds) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(value) || value < 0.05 || value > 86400) return false;
    seconds = value;
    return true;
}

// False on an unknown option or a bad --watch value, with the reason in error.
bool ParseOptions(const CommandInfo& info, int argc, char** argv, Options& options, std::string& error) {
    const std::string flags = std::string(" ") + info.flags;
    bool onlyNames = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (onlyNames || arg.empty() || arg[0] != '-') {
            options.names.push_back(arg);
            continue;
        }
        if (arg == "--") {
            onlyNames = true;
            continue;
        }
        if (arg == "--help" || arg == "-h") {
            options.help = true;
            continue;
        }
        const std::string name = arg.substr(0, arg.find('='));
        const bool withValue = name.size() < arg.size();
        if (flags.find(" " + name + " ") == std::string::npos || (withValue && name != "--watch")) {
            error = "unknown option '" + arg + "'";
            return false;
        }
        if (name == "--watch") {
            options.watch = true;
            if (withValue && !ParseInterval(arg.substr(name.size() + 1), options.interval)) {
                error = "bad interval in '" + arg + "' (seconds, 0.05 to 86400)";
                return false;
            }
            // The optional SECONDS: a following number is taken as the interval, not as a name.
            if (!withValue && i + 1 < argc && ParseInterval(argv[i + 1], options.interval)) ++i;
        }
        options.json = options.json || name == "--json";
        options.force = options.force || name == "--force";
        options.all = options.all || name == "--all";
    }
    return true;
}

void PrintHelp(const CommandInfo& info) {
    std::printf(
        "usage: %s\n\n%s\n\noptions:\n%s  %-22s %s\n\nexit codes: 0 success, 1 failure, 2 usage error\n",
        info.usage, info.summary, info.options, "--help", "this text");
}

int UsageError(const CommandInfo& info, const std::string& error) {
    std::fprintf(stderr, "kelipc %s: %s\nrun 'kelipc %s --help' for usage\n", info.command, error.c_str(),
                 info.command);
    return kExitUsage;
}

// Parses and checks for exactly one valid channel name (or none with --all); -1 to go on, else the
// exit code.
int Prepare(const CommandInfo& info, int argc, char** argv, Options& options) {
    std::string error;
    if (!ParseOptions(info, argc, argv, options, error)) return UsageError(info, error);
    if (options.help) {
        PrintHelp(info);
        return kExitOk;
    }
    if (options.all && options.force)
        return UsageError(info, "--all only removes unused channels; no --force");
    if (options.all) {
        return options.names.empty() ? -1 : UsageError(info, "--all takes no channel name");
    }
    if (options.names.size() != 1) return UsageError(info, "expected one channel NAME");
    if (!ChannelObjects::ValidName(options.names[0])) {
        return UsageError(info, "'" + options.names[0] + "' is not a channel name");
    }
    return -1;
}

std::string OwnerName(uid_t uid) {
    const passwd* entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

std::string Octal(mode_t mode) {
    char text[16];
    std::snprintf(text, sizeof text, "0%03o", static_cast<unsigned>(mode));
    return text;
}


const char* Bool(bool value) {
    return value ? "true" : "false";
}

bool AnyPresent(const std::array<ChannelObjects::State, 2>& states) {
    for (const ChannelObjects::State& state : states) {
        if (state.segment.present || state.semaphore.present) return true;
    }
    return false;
}

std::string RingJson(const ChannelObjects::Ring& ring) {
    if (!ring.readable) return "null";
    return "{\"initialised\":" + std::string(Bool(ring.Initialised())) +
           ",\"dataLen\":" + std::to_string(ring.dataLen) + ",\"running\":" + Bool(ring.running != 0) +
           ",\"writePos\":" + std::to_string(ring.writePos) + ",\"readPos\":" + std::to_string(ring.readPos) +
           ",\"positionsValid\":" + Bool(ring.PositionsValid()) +
           ",\"waiting\":" + std::to_string(ring.Waiting()) + ",\"free\":" + std::to_string(ring.Free()) +
           ",\"transTotal\":" + std::to_string(ring.transTotal) +
           ",\"transLast\":" + std::to_string(ring.transLast) + "}";
}

std::string InspectJson(const ChannelObjects& channel, const std::array<ChannelObjects::State, 2>& states) {
    std::string json = "{\"name\":" + JsonString(channel.Name()) + ",\"present\":" + Bool(AnyPresent(states));
    for (const Direction direction : ChannelObjects::kDirections) {
        const ChannelObjects::State& state = states[direction];
        const ChannelObjects::Segment& segment = state.segment;
        const ChannelObjects::Semaphore& semaphore = state.semaphore;
        json += ",\"" + std::string(ChannelObjects::Tag(direction)) + "\":{\"flow\":\"" +
                ChannelObjects::Flow(direction) +
                "\",\"segment\":{\"name\":" + JsonString(channel.ShmName(direction)) +
                ",\"present\":" + Bool(segment.present);
        if (segment.error != 0) json += ",\"error\":" + JsonString(std::strerror(segment.error));
        if (segment.present && segment.error == 0) {
            json += ",\"size\":" + std::to_string(segment.size) + ",\"mode\":\"" + Octal(segment.mode) +
                    "\",\"uid\":" + std::to_string(segment.uid) +
                    ",\"owner\":" + JsonString(OwnerName(segment.uid));
        }
        json += "},\"ring\":" + RingJson(state.ring) +
                ",\"semaphore\":{\"name\":" + JsonString(channel.SemName(direction)) +
                ",\"key\":" + std::to_string(channel.SemKey(direction)) +
                ",\"present\":" + Bool(semaphore.present);
        if (semaphore.error != 0) json += ",\"error\":" + JsonString(std::strerror(semaphore.error));
        if (semaphore.present) json += ",\"id\":" + std::to_string(semaphore.id);
        if (semaphore.present && semaphore.error == 0) {
            json += ",\"value\":" + std::to_string(semaphore.value) +
                    ",\"waiters\":" + std::to_string(semaphore.waiters) + ",\"mode\":\"" +
                    Octal(semaphore.mode) + "\",\"uid\":" + std::to_string(semaphore.uid) +
                    ",\"owner\":" + JsonString(OwnerName(semaphore.uid));
        }
        json += "},\"mappers\":[";
        for (size_t i = 0; i < state.mappers.size(); ++i) {
            json += (i ? ",{\"pid\":" : "{\"pid\":") + std::to_string(state.mappers[i].pid) +
                    ",\"command\":" + JsonString(state.mappers[i].command) + "}";
        }
        json += "]}";
    }
    return json + "}";
}

std::string RingText(const ChannelObjects::State& state) {
    const ChannelObjects::Ring& ring = state.ring;
    if (!ring.readable) {
        if (ring.error != 0) return std::string("unreadable: ") + std::strerror(ring.error);
        return "none: the segment is smaller than a ring header";
    }
    if (!ring.Initialised()) return "uninitialised: no server has set it up";
    std::string text = (ring.running != 0 ? "running" : "stopped") + std::string("  data area ") +
                       std::to_string(ring.dataLen) + "  write " + std::to_string(ring.writePos) + "  read " +
                       std::to_string(ring.readPos);
    if (!ring.PositionsValid()) return text + "  positions out of range";
    text += "  waiting " + std::to_string(ring.Waiting()) + "  free " + std::to_string(ring.Free());
    if (state.segment.size != static_cast<int64_t>(ring.dataLen) + static_cast<int64_t>(sizeof(KelCBHead))) {
        text += "  (segment size does not match the data area)";
    }
    return text;
}

void PrintInspectText(const ChannelObjects& channel, const std::array<ChannelObjects::State, 2>& states) {
    std::printf("channel \"%s\"%s\n", channel.Name().c_str(), AnyPresent(states) ? "" : ": absent");
    for (const Direction direction : ChannelObjects::kDirections) {
        const ChannelObjects::State& state = states[direction];
        std::printf("  %s  %s\n", ChannelObjects::Tag(direction), ChannelObjects::Flow(direction));
        const ChannelObjects::Segment& segment = state.segment;
        std::printf("    segment    %s  ", channel.ShmPath(direction).c_str());
        if (!segment.present) {
            std::printf("absent\n");
        } else if (segment.error != 0) {
            std::printf("%s\n", std::strerror(segment.error));
        } else {
            std::printf("%lld bytes  mode %s  owner %s (%u)\n", static_cast<long long>(segment.size),
                        Octal(segment.mode).c_str(), OwnerName(segment.uid).c_str(),
                        static_cast<unsigned>(segment.uid));
        }
        if (segment.present) {
            std::printf("    ring       %s\n", RingText(state).c_str());
            if (state.ring.readable) {
                std::printf("    transfers  total %llu  last %llu\n",
                            static_cast<unsigned long long>(state.ring.transTotal),
                            static_cast<unsigned long long>(state.ring.transLast));
            }
        }
        const ChannelObjects::Semaphore& semaphore = state.semaphore;
        std::printf("    semaphore  %s  key 0x%08x  ", channel.SemName(direction).c_str(),
                    static_cast<unsigned>(channel.SemKey(direction)));
        if (!semaphore.present) {
            std::printf("absent\n");
        } else if (semaphore.error != 0) {
            std::printf("id %d  %s\n", semaphore.id, std::strerror(semaphore.error));
        } else {
            std::printf("id %d  value %d  waiters %d  mode %s  owner %s (%u)\n", semaphore.id,
                        semaphore.value, semaphore.waiters, Octal(semaphore.mode).c_str(),
                        OwnerName(semaphore.uid).c_str(), static_cast<unsigned>(semaphore.uid));
        }
        std::printf("    mapped by  ");
        if (state.mappers.empty()) std::printf("no process");
        for (size_t i = 0; i < state.mappers.size(); ++i) {
            std::printf("%s%d (%s)", i ? ", " : "", static_cast<int>(state.mappers[i].pid),
                        state.mappers[i].command.c_str());
        }
        std::printf("\n");
    }
}

// Sleeps for the interval in short steps so that Ctrl-C ends the watch at once.
void PauseUnlessStopped(double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!StopSignal::Requested() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

const CommandInfo kInspect = {
    "inspect", "kelipc inspect NAME [--json] [--watch [SECONDS]]",
    "Shows both directions of the Process channel NAME without disturbing it: the ring header (run flag,\n"
    "positions, bytes waiting, free space, transfer counters), each segment's and semaphore set's mode and\n"
    "owner, the semaphore's value and sleepers, and the processes that map each segment. Processes of\n"
    "other users are seen only with the privilege to read their memory maps.",
    "  --json                 one JSON object (one per line with --watch)\n"
    "  --watch [SECONDS]      refresh every SECONDS (default 1) until Ctrl-C\n",
    "--json --watch "};

const CommandInfo kStop = {
    "stop", "kelipc stop NAME",
    "Stops both directions of the live Process channel NAME from outside, as either end may: clears the\n"
    "run flag, empties the rings and wakes a sleeping reader, so that every transfer of both ends returns\n"
    "IPC_ERR_NOT_OPENED until an end (or 'kelipc start') starts the channel again. Releases a process\n"
    "blocked on a channel whose peer died.",
    "", ""};

const CommandInfo kStart = {
    "start", "kelipc start NAME",
    "Starts both directions of the Process channel NAME again, as either end may. Both rings are emptied\n"
    "first: bytes not yet read are lost.",
    "", ""};

const CommandInfo kClean = {
    "clean", "kelipc clean NAME [--force] | kelipc clean --all",
    "Removes the shared-memory segments and semaphore sets of the Process channel NAME. Refuses while a\n"
    "process maps a segment, unless --force; processes that still map it keep their mapping but nobody\n"
    "can open the channel any more. --all removes every channel of the current user that no process\n"
    "maps, found from its segments in /dev/shm (semaphore sets without segments are not found).",
    "  --force                remove even while processes map the channel\n"
    "  --all                  every unused channel of the current user\n",
    "--force --all "};

// Opens one direction as a client of the library and runs the ring's Start or Stop on it.
bool ActOnRing(const ChannelObjects& channel, Direction direction, bool start) {
    const char* command = start ? "start" : "stop";
    const std::string shmName = channel.ShmName(direction);
    const char* tag = ChannelObjects::Tag(direction);
    const ChannelObjects::Segment segment = channel.StatSegment(direction);
    if (!segment.present) {
        std::fprintf(stderr, "kelipc %s: %s: no segment %s\n", command, tag,
                     channel.ShmPath(direction).c_str());
        return false;
    }
    const ChannelObjects::Ring header = channel.ReadRing(direction);
    if (segment.size < 32768 || segment.size > INT_MAX || !header.Initialised()) {
        std::fprintf(stderr, "kelipc %s: %s: %s holds no ring a server has set up\n", command, tag,
                     channel.ShmPath(direction).c_str());
        return false;
    }
    const int size = static_cast<int>(segment.size);
    KelShareMemory memory;
    int rc = memory.Open(shmName.c_str(), size, Client, nullptr);
    if (rc != IPC_OK) {
        std::fprintf(stderr, "kelipc %s: %s: cannot open %s, rc=%d\n", command, tag, shmName.c_str(), rc);
        return false;
    }
    // Without the set the run flag still changes, but a reader asleep on it cannot be woken.
    KelSystemSemaphore semaphore;
    if (!channel.StatSemaphore(direction).present) {
        if (!start)
            std::fprintf(stderr, "kelipc %s: %s: no semaphore set; a sleeping reader stays asleep\n", command,
                         tag);
    } else if ((rc = semaphore.Open(channel.SemName(direction).c_str(), Client, nullptr)) != IPC_OK) {
        std::fprintf(stderr, "kelipc %s: %s: cannot open semaphore set %s, rc=%d\n", command, tag,
                     channel.SemName(direction).c_str(), rc);
    }
    KelCycleBuffer ring;
    rc = ring.AttachIpc(memory.Data(), size, Client, NonBlock, semaphore.Opened() ? &semaphore : nullptr);
    if (rc == IPC_OK) rc = start ? ring.Start() : ring.Stop();
    if (rc != IPC_OK) {
        std::fprintf(stderr, "kelipc %s: %s: %s failed, rc=%d\n", command, tag, start ? "Start" : "Stop", rc);
        return false;
    }
    std::printf("%s (%s): %s\n", tag, ChannelObjects::Flow(direction), start ? "started" : "stopped");
    return true;
}

int RingMain(const CommandInfo& info, int argc, char** argv, bool start) {
    Options options;
    const int prepared = Prepare(info, argc, argv, options);
    if (prepared >= 0) return prepared;
    const ChannelObjects channel(options.names[0]);
    if (!channel.StatSegment(ChannelObjects::kL).present &&
        !channel.StatSegment(ChannelObjects::kR).present) {
        std::fprintf(stderr, "kelipc %s: no channel \"%s\": neither %s nor %s exists\n", info.command,
                     channel.Name().c_str(), channel.ShmPath(ChannelObjects::kL).c_str(),
                     channel.ShmPath(ChannelObjects::kR).c_str());
        return kExitFailure;
    }
    bool ok = true;
    for (const Direction direction : ChannelObjects::kDirections)
        ok = ActOnRing(channel, direction, start) && ok;
    return ok ? kExitOk : kExitFailure;
}

std::string MapperList(const std::array<std::vector<ChannelObjects::Mapper>, 2>& mappers) {
    std::string list;
    std::vector<pid_t> seen;
    for (const std::vector<ChannelObjects::Mapper>& direction : mappers) {
        for (const ChannelObjects::Mapper& mapper : direction) {
            bool listed = false;
            for (const pid_t pid : seen) listed = listed || pid == mapper.pid;
            if (listed) continue;
            seen.push_back(mapper.pid);
            list +=
                (list.empty() ? "pid " : ", pid ") + std::to_string(mapper.pid) + " (" + mapper.command + ")";
        }
    }
    return list;
}

enum class CleanResult { kRemoved, kAbsent, kInUse, kRecent, kFailed };

bool RecentlyCreated(const ChannelObjects& channel) {
    const time_t now = std::time(nullptr);
    for (const Direction direction : ChannelObjects::kDirections) {
        const ChannelObjects::Segment segment = channel.StatSegment(direction);
        if (segment.present && now - segment.changed < kSettleSeconds) return true;
    }
    return false;
}

// Removes what exists of the channel's four objects, reporting each; mapped channels only when forced,
// and with keepRecent not those a server may still be setting up.
CleanResult CleanChannel(const ChannelObjects& channel, bool force, bool keepRecent, std::string& users) {
    bool segments[2];
    int semIds[2];
    bool any = false;
    for (const Direction direction : ChannelObjects::kDirections) {
        segments[direction] = channel.StatSegment(direction).present;
        semIds[direction] = semget(channel.SemKey(direction), 0, 0);
        any = any || segments[direction] || semIds[direction] != -1;
    }
    if (!any) return CleanResult::kAbsent;
    users = MapperList(channel.FindMappers());
    if (!users.empty() && !force) return CleanResult::kInUse;
    if (keepRecent && RecentlyCreated(channel)) return CleanResult::kRecent;
    bool ok = true;
    for (const Direction direction : ChannelObjects::kDirections) {
        if (!segments[direction]) continue;
        if (shm_unlink(channel.ShmName(direction).c_str()) == 0) {
            std::printf("removed segment %s\n", channel.ShmPath(direction).c_str());
        } else if (errno != ENOENT) {
            std::fprintf(stderr, "kelipc clean: cannot remove %s: %s\n", channel.ShmPath(direction).c_str(),
                         std::strerror(errno));
            ok = false;
        }
    }
    for (const Direction direction : ChannelObjects::kDirections) {
        if (semIds[direction] == -1) continue;
        // Removal wakes a sleeper with EIDRM: its blocking read fails instead of sleeping on.
        if (semctl(semIds[direction], 0, IPC_RMID) == 0) {
            std::printf("removed semaphore set %s (key 0x%08x, id %d)\n", channel.SemName(direction).c_str(),
                        static_cast<unsigned>(channel.SemKey(direction)), semIds[direction]);
        } else if (errno != EINVAL && errno != EIDRM) {
            std::fprintf(stderr, "kelipc clean: cannot remove semaphore set %s: %s\n",
                         channel.SemName(direction).c_str(), std::strerror(errno));
            ok = false;
        }
    }
    if (!users.empty()) std::printf("still mapped by %s until they let go\n", users.c_str());
    return ok ? CleanResult::kRemoved : CleanResult::kFailed;
}

int CleanAll() {
    int removed = 0;
    int kept = 0;
    bool ok = true;
    for (const std::string& name : ChannelObjects::ListOwnedBy(getuid())) {
        const ChannelObjects channel(name);
        std::string users;
        switch (CleanChannel(channel, false, true, users)) {
            case CleanResult::kRemoved:
                ++removed;
                break;
            case CleanResult::kInUse:
                std::printf("kept \"%s\": mapped by %s\n", name.c_str(), users.c_str());
                ++kept;
                break;
            case CleanResult::kRecent:
                std::printf("kept \"%s\": created moments ago, perhaps still being opened\n", name.c_str());
                ++kept;
                break;
            case CleanResult::kFailed:
                ok = false;
                break;
            case CleanResult::kAbsent:
                break;  // removed by someone else since the listing
        }
    }
    std::printf("removed %d channel%s, kept %d\n", removed, removed == 1 ? "" : "s", kept);
    return ok ? kExitOk : kExitFailure;
}

}  // namespace

int InspectMain(int argc, char** argv) {
    Options options;
    const int prepared = Prepare(kInspect, argc, argv, options);
    if (prepared >= 0) return prepared;
    const ChannelObjects channel(options.names[0]);
    StopSignal::Install();
    bool first = true;
    do {
        if (!first) PauseUnlessStopped(options.interval);
        if (!first && StopSignal::Requested()) break;
        const std::array<ChannelObjects::State, 2> states = channel.Snapshot();
        if (first && !AnyPresent(states)) {
            std::fprintf(
                stderr,
                "kelipc inspect: no channel \"%s\": neither %s nor %s exists, nor its semaphore sets\n",
                channel.Name().c_str(), channel.ShmPath(ChannelObjects::kL).c_str(),
                channel.ShmPath(ChannelObjects::kR).c_str());
            return kExitFailure;
        }
        if (options.json) {
            std::printf("%s\n", InspectJson(channel, states).c_str());
        } else {
            if (options.watch) {
                const time_t now = std::time(nullptr);
                char stamp[32] = {};
                std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
                std::printf("%s--- %s\n", isatty(STDOUT_FILENO) ? "\033[H\033[2J" : (first ? "" : "\n"),
                            stamp);
            }
            PrintInspectText(channel, states);
        }
        std::fflush(stdout);
        first = false;
    } while (options.watch && !StopSignal::Requested());
    return kExitOk;
}

int StopMain(int argc, char** argv) {
    return RingMain(kStop, argc, argv, false);
}

int StartMain(int argc, char** argv) {
    return RingMain(kStart, argc, argv, true);
}

int CleanMain(int argc, char** argv) {
    Options options;
    const int prepared = Prepare(kClean, argc, argv, options);
    if (prepared >= 0) return prepared;
    if (options.all) return CleanAll();
    const ChannelObjects channel(options.names[0]);
    std::string users;
    switch (CleanChannel(channel, options.force, false, users)) {
        case CleanResult::kRemoved:
            return kExitOk;
        case CleanResult::kAbsent:
            std::fprintf(stderr,
                         "kelipc clean: no channel \"%s\": no segment and no semaphore set of it exists\n",
                         channel.Name().c_str());
            return kExitFailure;
        case CleanResult::kInUse:
            std::fprintf(stderr,
                         "kelipc clean: channel \"%s\" is still mapped by %s; --force removes it anyway\n",
                         channel.Name().c_str(), users.c_str());
            return kExitFailure;
        case CleanResult::kRecent:
        case CleanResult::kFailed:
            break;
    }
    return kExitFailure;
}
