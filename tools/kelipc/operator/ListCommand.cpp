// kelipc list: every Process channel on the machine, its ends' liveness, and the stale ones.

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/Commands.h"
#include "common/SafeText.h"
#include "operator/ChannelObjects.h"

namespace {

using Json = nlohmann::ordered_json;

struct Summary {
    std::string name;
    std::array<ChannelObjects::State, 2> states;
    std::array<ChannelObjects::End, 2> ends;
    std::vector<ChannelObjects::Mapper> mappers;  // of either segment, once each
    bool mappersKnown = true;                     // false: another user's processes may map it unseen
    std::vector<std::string> reasons;             // why it is stale; empty when it is not
    std::vector<std::string> polls;               // the sides whose descriptor FIFO exists
    std::string clean;                            // the command that removes it, when stale
};

std::vector<Summary> Survey() {
    std::vector<Summary> summaries;
    std::vector<std::string> paths;
    for (const std::string& name : ChannelObjects::ListAll()) {
        Summary summary;
        summary.name = name;
        const ChannelObjects channel(name);
        for (const ChannelObjects::Direction direction : ChannelObjects::kDirections) {
            ChannelObjects::State& state = summary.states[direction];
            state.segment = channel.StatSegment(direction);
            if (state.segment.present) state.ring = channel.ReadRing(direction);
            state.semaphore = channel.StatSemaphore(direction);
            paths.push_back(channel.ShmPath(direction));
            // Without privileges, the maps of another user's processes are closed to us.
            if (state.segment.present && state.segment.uid != geteuid() && geteuid() != 0)
                summary.mappersKnown = false;
        }
        summaries.push_back(summary);
    }
    // One scan of /proc for all channels, after every header mapping of ours is gone.
    std::map<std::string, std::vector<ChannelObjects::Mapper>> mappers = ChannelObjects::MappersOf(paths);
    for (Summary& summary : summaries) {
        const ChannelObjects channel(summary.name);
        for (const ChannelObjects::Direction direction : ChannelObjects::kDirections) {
            summary.states[direction].mappers = mappers[channel.ShmPath(direction)];
            for (const ChannelObjects::Mapper& mapper : summary.states[direction].mappers) {
                bool listed = false;
                for (const ChannelObjects::Mapper& seen : summary.mappers)
                    listed = listed || seen.pid == mapper.pid;
                if (!listed) summary.mappers.push_back(mapper);
            }
        }
        summary.ends = ChannelObjects::Ends(summary.states);
        for (const ChannelObjects::Side side : ChannelObjects::kSides)
            if (channel.StatPoll(side).present)
                summary.polls.push_back(side == ChannelObjects::kServer ? "server" : "client");
        if (summary.ends[ChannelObjects::kServer].liveness == ChannelObjects::Liveness::kDead)
            summary.reasons.push_back("the server is dead");
        if (summary.ends[ChannelObjects::kClient].liveness == ChannelObjects::Liveness::kDead)
            summary.reasons.push_back("the client is dead");
        if (summary.mappers.empty() && summary.mappersKnown) summary.reasons.push_back("no process maps it");
        if (!summary.reasons.empty()) {
            // A live end that still maps it keeps its mapping; only --force removes the names under it.
            // Quoted so that it pastes back as this name, after '--' so that no name reads as an option.
            summary.clean = std::string("kelipc clean ") + (summary.mappers.empty() ? "" : "--force ") +
                            "-- " + SafeText::ShellQuote(summary.name);
        }
    }
    return summaries;
}

Json EndJson(const ChannelObjects::End& end) {
    return {{"liveness", ChannelObjects::LivenessName(end.liveness)}, {"pid", end.pid}};
}

Json SummaryJson(const Summary& summary) {
    Json mappers = Json::array();
    for (const ChannelObjects::Mapper& mapper : summary.mappers) {
        mappers.push_back({{"pid", mapper.pid},
                           {"command", mapper.command},
                           {"role", ChannelObjects::RoleOf(mapper.pid, summary.ends)}});
    }
    Json json;
    SafeText::PutName(json, "name", summary.name);
    json.update(Json{{"segments", Json::array()},
                     {"server", EndJson(summary.ends[ChannelObjects::kServer])},
                     {"client", EndJson(summary.ends[ChannelObjects::kClient])},
                     {"mappers", mappers},
                     {"descriptors", summary.polls},
                     {"stale", !summary.reasons.empty()},
                     {"reasons", summary.reasons}});
    for (const ChannelObjects::Direction direction : ChannelObjects::kDirections) {
        if (summary.states[direction].segment.present)
            json["segments"].push_back(ChannelObjects::Tag(direction));
    }
    if (!summary.clean.empty()) json["clean"] = summary.clean;
    return json;
}

std::string EndText(const char* side, const ChannelObjects::End& end) {
    std::string text = std::string(side) + " " + ChannelObjects::LivenessName(end.liveness);
    if (end.pid != 0) text += " (pid " + std::to_string(end.pid) + ")";
    return text;
}

void PrintSummary(const Summary& summary) {
    std::printf("%s  %s  %s  mapped by ", SafeText::ShellQuote(summary.name).c_str(),
                EndText("server", summary.ends[ChannelObjects::kServer]).c_str(),
                EndText("client", summary.ends[ChannelObjects::kClient]).c_str());
    if (summary.mappers.empty()) std::printf(summary.mappersKnown ? "no process" : "no process seen");
    for (size_t i = 0; i < summary.mappers.size(); ++i) {
        const ChannelObjects::Mapper& mapper = summary.mappers[i];
        std::printf("%s%d (%s, %s)", i ? ", " : "", static_cast<int>(mapper.pid),
                    SafeText::Printable(mapper.command).c_str(),
                    ChannelObjects::RoleOf(mapper.pid, summary.ends));
    }
    std::string polls;
    for (const std::string& side : summary.polls) polls += (polls.empty() ? "  descriptors: " : ", ") + side;
    std::printf("%s\n", polls.c_str());
    if (summary.reasons.empty()) return;
    std::string reasons;
    for (const std::string& reason : summary.reasons) reasons += (reasons.empty() ? "" : ", ") + reason;
    std::printf("  stale: %s; to remove it: %s\n", reasons.c_str(), summary.clean.c_str());
}

}  // namespace

CommandRun SetupList(CLI::App& command) {
    auto json = std::make_shared<bool>(false);
    command.footer(
        "Lists every Process channel on the machine, found from its segments in /dev/shm: whether its\n"
        "server and its client are alive, dead or unknown, with their pids, and the processes that map\n"
        "it. A channel with a dead end, or that no process maps, is marked stale with the 'kelipc clean'\n"
        "command that removes it. Processes of other users are seen only with the privilege to read\n"
        "their memory maps. Names are shown in bash quoting: 'name', or $'...' with \\xHH escapes for\n"
        "control characters and bytes that are not UTF-8, so that they paste back unchanged. In JSON a\n"
        "name that is not UTF-8 has those bytes as U+FFFD in \"name\" and all its bytes in hex in\n"
        "\"nameHex\".");
    command.add_flag("--json", *json, "one JSON object holding the array \"channels\"");
    return [json] {
        const std::vector<Summary> summaries = Survey();
        if (*json) {
            Json channels = Json::array();
            for (const Summary& summary : summaries) channels.push_back(SummaryJson(summary));
            std::printf("%s\n", SafeText::JsonLine(Json{{"channels", channels}}).c_str());
        } else {
            if (summaries.empty()) std::printf("no channels\n");
            for (const Summary& summary : summaries) PrintSummary(summary);
        }
        return kExitOk;
    };
}
