// kelipc inspect: both directions of a Process channel, read-only, as text or JSON, once or repeatedly.

#include <KelCycleBuffer.h>
#include <pwd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "common/Arguments.h"
#include "common/Commands.h"
#include "common/SafeText.h"
#include "common/StopSignal.h"
#include "operator/ChannelObjects.h"

namespace {

using Direction = ChannelObjects::Direction;
using Json = nlohmann::ordered_json;

std::string OwnerName(uid_t uid) {
    const passwd* entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

std::string Octal(mode_t mode) {
    char text[16];
    std::snprintf(text, sizeof text, "0%03o", static_cast<unsigned>(mode));
    return text;
}

bool AnyPresent(const std::array<ChannelObjects::State, 2>& states) {
    for (const ChannelObjects::State& state : states) {
        if (state.segment.present || state.semaphore.present) return true;
    }
    return false;
}

Json EndJson(const ChannelObjects::End& end) {
    return {{"liveness", ChannelObjects::LivenessName(end.liveness)}, {"pid", end.pid}};
}

std::string Warning(const ChannelObjects& channel, const std::array<ChannelObjects::State, 2>& states) {
    if (!ChannelObjects::RunsUnmapped(states)) return "";
    return "the channel runs but no process maps it: its ends died without closing; remove it with: "
           "kelipc clean -- " +
           SafeText::ShellQuote(channel.Name());
}

Json RingJson(const ChannelObjects::Ring& ring) {
    if (!ring.readable) return nullptr;
    return {{"server", EndJson(ring.ends[ChannelObjects::kServer])},
            {"client", EndJson(ring.ends[ChannelObjects::kClient])},
            {"initialised", ring.Initialised()},
            {"dataLen", ring.dataLen},
            {"running", ring.running != 0},
            {"writePos", ring.writePos},
            {"readPos", ring.readPos},
            {"positionsValid", ring.PositionsValid()},
            {"waiting", ring.Waiting()},
            {"free", ring.Free()},
            {"transTotal", ring.transTotal},
            {"transLast", ring.transLast}};
}

Json InspectJson(const ChannelObjects& channel, const std::array<ChannelObjects::State, 2>& states) {
    const std::array<ChannelObjects::End, 2> ends = ChannelObjects::Ends(states);
    const std::string warning = Warning(channel, states);
    Json json;
    SafeText::PutName(json, "name", channel.Name());
    json.update(Json{{"present", AnyPresent(states)},
                     {"server", EndJson(ends[ChannelObjects::kServer])},
                     {"client", EndJson(ends[ChannelObjects::kClient])},
                     {"warnings", warning.empty() ? Json::array() : Json::array({warning})}});
    for (const ChannelObjects::Side side : ChannelObjects::kSides) {
        const ChannelObjects::Segment fifo = channel.StatPoll(side);
        Json poll = {{"present", fifo.present}};
        SafeText::PutName(poll, "path", channel.PollPath(side));
        if (fifo.present && fifo.error == 0) poll.update(Json{{"mode", Octal(fifo.mode)}, {"uid", fifo.uid}});
        json["pollFifos"][side == ChannelObjects::kServer ? "server" : "client"] = poll;
    }
    for (const Direction direction : ChannelObjects::kDirections) {
        const ChannelObjects::State& state = states[direction];
        const ChannelObjects::Segment& segment = state.segment;
        const ChannelObjects::Semaphore& semaphore = state.semaphore;
        Json shm;
        SafeText::PutName(shm, "name", channel.ShmName(direction));
        shm["present"] = segment.present;
        if (segment.error != 0) shm["error"] = std::strerror(segment.error);
        if (segment.present && segment.error == 0) {
            shm["regular"] = segment.regular;
            shm["size"] = segment.size;
            shm["mode"] = Octal(segment.mode);
            shm["uid"] = segment.uid;
            shm["owner"] = OwnerName(segment.uid);
        }
        Json sem;
        SafeText::PutName(sem, "name", channel.SemName(direction));
        sem["key"] = channel.SemKey(direction);
        sem["present"] = semaphore.present;
        if (semaphore.error != 0) sem["error"] = std::strerror(semaphore.error);
        if (semaphore.present) sem["id"] = semaphore.id;
        if (semaphore.present && semaphore.error == 0) {
            sem["value"] = semaphore.value;
            sem["waiters"] = semaphore.waiters;
            sem["count"] = semaphore.count;
            sem["marked"] = semaphore.marked;
            if (semaphore.marked) sem["servers"] = semaphore.servers;
            if (semaphore.marked) sem["named"] = semaphore.named;
            sem["mode"] = Octal(semaphore.mode);
            sem["uid"] = semaphore.uid;
            sem["owner"] = OwnerName(semaphore.uid);
        }
        Json mappers = Json::array();
        for (const ChannelObjects::Mapper& mapper : state.mappers)
            mappers.push_back({{"pid", mapper.pid},
                               {"command", mapper.command},
                               {"role", ChannelObjects::RoleOf(mapper.pid, ends)}});
        json[ChannelObjects::Tag(direction)] = {{"flow", ChannelObjects::Flow(direction)},
                                                {"segment", shm},
                                                {"ring", RingJson(state.ring)},
                                                {"semaphore", sem},
                                                {"mappers", mappers}};
    }
    return json;
}

std::string RingText(const ChannelObjects::State& state) {
    const ChannelObjects::Ring& ring = state.ring;
    if (!ring.readable) {
        if (!state.segment.regular || !ring.regular) return "none: the name holds no regular file";
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
    std::printf("channel %s%s\n", SafeText::ShellQuote(channel.Name()).c_str(),
                AnyPresent(states) ? "" : ": absent");
    const std::array<ChannelObjects::End, 2> ends = ChannelObjects::Ends(states);
    for (const ChannelObjects::Side side : ChannelObjects::kSides) {
        std::printf("  %s  %s", side == ChannelObjects::kServer ? "server" : "client",
                    ChannelObjects::LivenessName(ends[side].liveness));
        if (ends[side].pid != 0) std::printf("  pid %d", static_cast<int>(ends[side].pid));
        const ChannelObjects::Segment fifo = channel.StatPoll(side);
        if (fifo.present && fifo.error == 0) {
            std::printf("  descriptor FIFO %s  mode %s  owner %s (%u)",
                        SafeText::ShellQuote(channel.PollPath(side)).c_str(), Octal(fifo.mode).c_str(),
                        SafeText::Printable(OwnerName(fifo.uid)).c_str(), static_cast<unsigned>(fifo.uid));
        }
        std::printf("\n");
    }
    const std::string warning = Warning(channel, states);
    if (!warning.empty()) std::printf("  warning: %s\n", warning.c_str());
    for (const Direction direction : ChannelObjects::kDirections) {
        const ChannelObjects::State& state = states[direction];
        std::printf("  %s  %s\n", ChannelObjects::Tag(direction), ChannelObjects::Flow(direction));
        const ChannelObjects::Segment& segment = state.segment;
        std::printf("    segment    %s  ", SafeText::ShellQuote(channel.ShmPath(direction)).c_str());
        if (!segment.present) {
            std::printf("absent\n");
        } else if (segment.error != 0) {
            std::printf("%s\n", std::strerror(segment.error));
        } else {
            std::printf("%lld bytes  mode %s  owner %s (%u)\n", static_cast<long long>(segment.size),
                        Octal(segment.mode).c_str(), SafeText::Printable(OwnerName(segment.uid)).c_str(),
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
        std::printf("    semaphore  %s  key 0x%08x  ",
                    SafeText::ShellQuote(channel.SemName(direction)).c_str(),
                    static_cast<unsigned>(channel.SemKey(direction)));
        if (!semaphore.present) {
            std::printf("absent\n");
        } else if (semaphore.error != 0) {
            std::printf("id %d  %s\n", semaphore.id, std::strerror(semaphore.error));
        } else {
            std::printf("id %d  value %d  waiters %d  mode %s  owner %s (%u)%s\n", semaphore.id,
                        semaphore.value, semaphore.waiters, Octal(semaphore.mode).c_str(),
                        SafeText::Printable(OwnerName(semaphore.uid)).c_str(),
                        static_cast<unsigned>(semaphore.uid),
                        semaphore.marked && !semaphore.named ? "  made for another name of this key" : "");
        }
        std::printf("    mapped by  ");
        if (state.mappers.empty()) std::printf("no process");
        for (size_t i = 0; i < state.mappers.size(); ++i) {
            std::printf("%s%d (%s, %s)", i ? ", " : "", static_cast<int>(state.mappers[i].pid),
                        SafeText::Printable(state.mappers[i].command).c_str(),
                        ChannelObjects::RoleOf(state.mappers[i].pid, ends));
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

struct InspectOptions {
    std::string name;
    bool json = false;
    double interval = 0;  // 0: once
};

int Inspect(const InspectOptions& options) {
    const ChannelObjects channel(options.name);
    StopSignal::Install();
    bool first = true;
    do {
        if (!first) PauseUnlessStopped(options.interval);
        if (!first && StopSignal::Requested()) break;
        const std::array<ChannelObjects::State, 2> states = channel.Snapshot();
        if (first && !AnyPresent(states)) {
            std::fprintf(stderr,
                         "kelipc inspect: no channel %s: neither %s nor %s exists, nor its semaphore sets\n",
                         SafeText::ShellQuote(channel.Name()).c_str(),
                         SafeText::ShellQuote(channel.ShmPath(ChannelObjects::kL)).c_str(),
                         SafeText::ShellQuote(channel.ShmPath(ChannelObjects::kR)).c_str());
            return kExitFailure;
        }
        if (options.json) {
            std::printf("%s\n", SafeText::JsonLine(InspectJson(channel, states)).c_str());
        } else {
            if (options.interval > 0) {
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
    } while (options.interval > 0 && !StopSignal::Requested());
    // Ctrl-C is how a watch ends, so it is a success there.
    return kExitOk;
}

}  // namespace

CommandRun SetupInspect(CLI::App& command) {
    auto options = std::make_shared<InspectOptions>();
    command.footer(
        "Shows both directions of the Process channel NAME without disturbing it: the ring header (run\n"
        "flag, positions, bytes waiting, free space, transfer counters), each segment's and semaphore\n"
        "set's mode and owner, the semaphore's value and sleepers, whether each end (server, client) is\n"
        "alive, dead or unknown (it takes no part in liveness or closed) with its pid, and the processes\n"
        "that map each segment, named server or client by those pids. Warns about a channel that runs\n"
        "while no process maps it. Processes of other users are seen only with the privilege to read\n"
        "their memory maps. Names are quoted and escaped, in text and JSON, as 'kelipc list' does.");
    command.add_option("NAME", options->name, "the socket name")
        ->required()
        ->check(Arguments::ExistingChannelName());
    command.add_flag("--json", options->json, "one JSON object (one per line with --watch)");
    CLI::Option* watch =
        command.add_option("--watch", options->interval, "refresh every SECONDS (default 1) until Ctrl-C")
            ->type_name("[SECONDS]")
            ->expected(0, 1)
            ->check(Arguments::Seconds(0.05, 86400));
    return [options, watch] {
        if (watch->count() > 0 && options->interval == 0) options->interval = 1;
        return Inspect(*options);
    };
}
