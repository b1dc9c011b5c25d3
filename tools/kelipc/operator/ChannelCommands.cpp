// kelipc stop, start and clean: act on a Process channel from outside its two ends.

#include <KelCycleBuffer.h>
#include <KelSystemSemaphore.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <csetjmp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/Arguments.h"
#include "common/Commands.h"
#include "common/ResultText.h"
#include "common/SafeText.h"
#include "operator/ChannelObjects.h"

namespace {

using Direction = ChannelObjects::Direction;

// A segment younger than this may belong to a server between creating and mapping it, so --all keeps it.
constexpr time_t kSettleSeconds = 2;

// A segment cut short while it is mapped faults on the next access past its new end; while a ring
// command touches the mapping, that fault ends the command with a message instead of killing it.
sigjmp_buf* g_faultJump = nullptr;

void OnFault(int) {
    if (g_faultJump != nullptr) siglongjmp(*g_faultJump, 1);
    signal(SIGBUS, SIG_DFL);
    raise(SIGBUS);
}

// Attaches to the mapped block and runs the ring's Start or Stop; false when the segment was cut short
// meanwhile. The ring lives on the heap so that the jump out of a fault skips no destructor of ours.
bool GuardedStartStop(char* block, int length, KelSystemSemaphore* semaphore, bool start, int& rc) {
    sigjmp_buf jump;
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = OnFault;
    sigemptyset(&action.sa_mask);
    sigaction(SIGBUS, &action, &previous);
    const bool faulted = sigsetjmp(jump, 1) != 0;
    if (!faulted) {
        g_faultJump = &jump;
        auto* ring = new KelCycleBuffer;
        rc = ring->AttachIpc(block, length, Client, NonBlock, semaphore);
        if (rc == IPC_OK) rc = start ? ring->Start() : ring->Stop();
        delete ring;
    }
    g_faultJump = nullptr;
    sigaction(SIGBUS, &previous, nullptr);
    return !faulted;
}

// Opens one direction as a client of the library would and runs the ring's Start or Stop on it, after
// checking that the name holds a regular file whose header agrees with its size.
bool ActOnRing(const ChannelObjects& channel, Direction direction, bool start) {
    const char* command = start ? "start" : "stop";
    const std::string path = SafeText::ShellQuote(channel.ShmPath(direction));
    const char* tag = ChannelObjects::Tag(direction);
    int64_t size = 0;
    const int fd = channel.OpenSegment(direction, O_RDWR, size);
    if (fd < 0) {
        if (fd == ChannelObjects::kNotRegular)
            std::fprintf(stderr, "kelipc %s: %s: %s is not a regular file\n", command, tag, path.c_str());
        else
            std::fprintf(stderr, "kelipc %s: %s: cannot open %s: %s\n", command, tag, path.c_str(),
                         errno == ENOENT ? "no such segment" : std::strerror(errno));
        return false;
    }
    const ChannelObjects::Ring header = ChannelObjects::ReadRing(fd, size);
    const int64_t headerSize = static_cast<int64_t>(sizeof(KelCBHead));
    if (size < 32768 || size > INT_MAX || !header.Initialised() || header.dataLen != size - headerSize) {
        std::fprintf(stderr,
                     "kelipc %s: %s: %s holds no ring a server has set up (size %lld, data area %d in its "
                     "header)\n",
                     command, tag, path.c_str(), static_cast<long long>(size), header.dataLen);
        close(fd);
        return false;
    }
    void* block = mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (block == MAP_FAILED) {
        std::fprintf(stderr, "kelipc %s: %s: cannot map %s: %s\n", command, tag, path.c_str(),
                     std::strerror(errno));
        return false;
    }
    // Only a set this channel's server made is signalled: one of another name would wake the wrong reader.
    // Without one the run flag still changes, but a reader asleep on it cannot be woken.
    KelSystemSemaphore semaphore;
    const ChannelObjects::Semaphore set = channel.StatSemaphore(direction);
    int rc = IPC_OK;
    if (!set.present || (set.marked && !set.named)) {
        if (!start)
            std::fprintf(stderr,
                         "kelipc %s: %s: no semaphore set of this channel; a sleeping reader stays asleep\n",
                         command, tag);
    } else if ((rc = semaphore.Open(channel.SemName(direction).c_str(), Client, nullptr)) != IPC_OK) {
        std::fprintf(stderr, "kelipc %s: %s: cannot open semaphore set %s, rc=%s\n", command, tag,
                     SafeText::ShellQuote(channel.SemName(direction)).c_str(), ResultText(rc).c_str());
    }
    const bool whole = GuardedStartStop(static_cast<char*>(block), static_cast<int>(size),
                                        semaphore.Opened() ? &semaphore : nullptr, start, rc);
    munmap(block, static_cast<size_t>(size));
    if (!whole) {
        std::fprintf(stderr, "kelipc %s: %s: %s was cut short while it was changed\n", command, tag,
                     path.c_str());
        return false;
    }
    if (rc != IPC_OK) {
        std::fprintf(stderr, "kelipc %s: %s: %s failed, rc=%s\n", command, tag, start ? "Start" : "Stop",
                     ResultText(rc).c_str());
        return false;
    }
    std::printf("%s (%s): %s\n", tag, ChannelObjects::Flow(direction), start ? "started" : "stopped");
    return true;
}

// An end that waits on its descriptor (PollFd) learns of the stop through its FIFO, as from an end's stop.
void RingPolls(const ChannelObjects& channel) {
    for (const ChannelObjects::Side side : ChannelObjects::kSides) {
        const int fd = open(channel.PollPath(side).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) continue;
        struct stat st;
        const char byte = 1;
        // Only a FIFO of this user or root is the channel's: the name is anyone's to take.
        if (fstat(fd, &st) == 0 && S_ISFIFO(st.st_mode) && (st.st_uid == geteuid() || st.st_uid == 0) &&
            write(fd, &byte, 1) < 0 && errno != EAGAIN) {
            std::fprintf(stderr, "kelipc stop: cannot ring %s: %s\n", channel.PollPath(side).c_str(),
                         std::strerror(errno));
        }
        close(fd);
    }
}

int RingCommand(const std::string& name, bool start) {
    const ChannelObjects channel(name);
    if (!channel.StatSegment(ChannelObjects::kL).present &&
        !channel.StatSegment(ChannelObjects::kR).present) {
        std::fprintf(stderr, "kelipc %s: no channel %s: neither %s nor %s exists\n", start ? "start" : "stop",
                     SafeText::ShellQuote(channel.Name()).c_str(),
                     SafeText::ShellQuote(channel.ShmPath(ChannelObjects::kL)).c_str(),
                     SafeText::ShellQuote(channel.ShmPath(ChannelObjects::kR)).c_str());
        return kExitFailure;
    }
    bool ok = true;
    for (const Direction direction : ChannelObjects::kDirections)
        ok = ActOnRing(channel, direction, start) && ok;
    if (!start) RingPolls(channel);
    return ok ? kExitOk : kExitFailure;
}

CommandRun SetupRing(CLI::App& command, bool start) {
    auto name = std::make_shared<std::string>();
    command.footer(
        start
            ? "Starts both directions of the Process channel NAME again, as either end may. Both rings are\n"
              "emptied first: bytes not yet read are lost."
            : "Stops both directions of the live Process channel NAME from outside, as either end may:\n"
              "clears the run flag, empties the rings and wakes a sleeping reader, so that every transfer\n"
              "of both ends returns IPC_ERR_NOT_OPENED until an end (or 'kelipc start') starts the channel\n"
              "again, and rings the descriptor FIFO of each end that has one, so event loops see it too.\n"
              "Releases a process blocked on a channel whose peer died.");
    command.add_option("NAME", *name, "the socket name")->required()->check(Arguments::ExistingChannelName());
    return [name, start] { return RingCommand(*name, start); };
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
            list += (list.empty() ? "pid " : ", pid ") + std::to_string(mapper.pid) + " (" +
                    SafeText::Printable(mapper.command) + ")";
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

// The id of the set at the direction's key when it is this channel's to remove, else -1, saying why a
// set there stays: the key is a hash that other names share, so only a set a server of ours made for exactly
// this name (its marker and name check) is the channel's, and only the invoking user's (root: anyone's).
int OwnSetId(const ChannelObjects& channel, Direction direction) {
    const ChannelObjects::Semaphore set = channel.StatSemaphore(direction);
    if (!set.present) return -1;
    const char* reason = set.error != 0                         ? std::strerror(set.error)
                         : !set.marked                          ? "no server of this library marked it"
                         : !set.named                           ? "it was made for another name"
                         : set.uid != getuid() && getuid() != 0 ? "it belongs to another user"
                                                                : nullptr;
    if (reason == nullptr) return set.id;
    std::printf("left semaphore set key 0x%08x, id %d alone: %s\n",
                static_cast<unsigned>(channel.SemKey(direction)), set.id, reason);
    return -1;
}

// Removes what exists of the channel's four objects, reporting each; mapped channels only when forced,
// and with keepRecent not those a server may still be setting up.
CleanResult CleanChannel(const ChannelObjects& channel, bool force, bool keepRecent, std::string& users) {
    bool segments[2];
    int semIds[2];
    bool any = false;
    for (const Direction direction : ChannelObjects::kDirections) {
        segments[direction] = channel.StatSegment(direction).present;
        semIds[direction] = OwnSetId(channel, direction);
        any = any || segments[direction] || semIds[direction] != -1;
    }
    for (const ChannelObjects::Side side : ChannelObjects::kSides)
        any = any || channel.StatPoll(side).present;
    if (!any) return CleanResult::kAbsent;
    users = MapperList(channel.FindMappers());
    if (!users.empty() && !force) return CleanResult::kInUse;
    if (keepRecent && RecentlyCreated(channel)) return CleanResult::kRecent;
    bool ok = true;
    for (const Direction direction : ChannelObjects::kDirections) {
        if (!segments[direction]) continue;
        if (shm_unlink(channel.ShmName(direction).c_str()) == 0) {
            std::printf("removed segment %s\n", SafeText::ShellQuote(channel.ShmPath(direction)).c_str());
        } else if (errno != ENOENT) {
            std::fprintf(stderr, "kelipc clean: cannot remove %s: %s\n",
                         SafeText::ShellQuote(channel.ShmPath(direction)).c_str(), std::strerror(errno));
            ok = false;
        }
    }
    for (const ChannelObjects::Side side : ChannelObjects::kSides) {
        const std::string fifo = channel.PollPath(side);
        if (unlink(fifo.c_str()) == 0) {
            std::printf("removed descriptor FIFO %s\n", fifo.c_str());
        } else if (errno != ENOENT) {
            std::fprintf(stderr, "kelipc clean: cannot remove %s: %s\n", fifo.c_str(), std::strerror(errno));
            ok = false;
        }
    }
    for (const Direction direction : ChannelObjects::kDirections) {
        if (semIds[direction] == -1) continue;
        // Removal wakes a sleeper with EIDRM: its blocking read fails instead of sleeping on.
        if (semctl(semIds[direction], 0, IPC_RMID) == 0) {
            std::printf("removed semaphore set %s (key 0x%08x, id %d)\n",
                        SafeText::ShellQuote(channel.SemName(direction)).c_str(),
                        static_cast<unsigned>(channel.SemKey(direction)), semIds[direction]);
        } else if (errno != EINVAL && errno != EIDRM) {
            std::fprintf(stderr, "kelipc clean: cannot remove semaphore set %s: %s\n",
                         SafeText::ShellQuote(channel.SemName(direction)).c_str(), std::strerror(errno));
            ok = false;
        }
    }
    if (!users.empty()) std::printf("still mapped by %s until they let go\n", users.c_str());
    return ok ? CleanResult::kRemoved : CleanResult::kFailed;
}

// Removes the sets that a server of this library made (marked), that no live server counts itself in,
// that nobody waits on and whose name has no segment left: a server that died after its segments were
// removed leaves such a set, which no name can find any more. The key is all a set keeps of its name, so
// the segments are matched by the key their names give.
int CleanOrphanSets(bool& ok) {
    std::set<key_t> segmentKeys;
    for (const std::string& name : ChannelObjects::ListAll()) {
        const ChannelObjects channel(name);
        for (const Direction direction : ChannelObjects::kDirections)
            segmentKeys.insert(channel.SemKey(direction));
    }
    const time_t now = std::time(nullptr);
    int removed = 0;
    for (const int id : ChannelObjects::SemaphoreSetIds()) {
        const ChannelObjects::Semaphore set = ChannelObjects::StatSet(id);
        if (set.error != 0 || set.uid != getuid() || !set.marked || set.servers != 0 || set.waiters != 0 ||
            set.zeroWaiters != 0 || segmentKeys.count(set.key) != 0 || now - set.changed < kSettleSeconds)
            continue;
        if (semctl(id, 0, IPC_RMID) == 0) {
            std::printf(
                "removed semaphore set key 0x%08x, id %d: its server is gone and no segment has its name\n",
                static_cast<unsigned>(set.key), id);
            ++removed;
        } else if (errno != EINVAL && errno != EIDRM) {
            std::fprintf(stderr, "kelipc clean: cannot remove semaphore set id %d: %s\n", id,
                         std::strerror(errno));
            ok = false;
        }
    }
    return removed;
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
                std::printf("kept %s: mapped by %s\n", SafeText::ShellQuote(name).c_str(), users.c_str());
                ++kept;
                break;
            case CleanResult::kRecent:
                std::printf("kept %s: created moments ago, perhaps still being opened\n",
                            SafeText::ShellQuote(name).c_str());
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
    const int sets = CleanOrphanSets(ok);
    if (sets > 0) std::printf("removed %d semaphore set%s without segments\n", sets, sets == 1 ? "" : "s");
    return ok ? kExitOk : kExitFailure;
}

struct CleanOptions {
    std::string name;
    bool force = false;
    bool all = false;
};

int Clean(const CleanOptions& options) {
    if (options.all) return CleanAll();
    const ChannelObjects channel(options.name);
    std::string users;
    switch (CleanChannel(channel, options.force, false, users)) {
        case CleanResult::kRemoved:
            return kExitOk;
        case CleanResult::kAbsent:
            std::fprintf(stderr,
                         "kelipc clean: no channel %s: no segment and no semaphore set of it exists\n",
                         SafeText::ShellQuote(channel.Name()).c_str());
            return kExitFailure;
        case CleanResult::kInUse:
            std::fprintf(stderr,
                         "kelipc clean: channel %s is still mapped by %s; --force removes it anyway\n",
                         SafeText::ShellQuote(channel.Name()).c_str(), users.c_str());
            return kExitFailure;
        case CleanResult::kRecent:
        case CleanResult::kFailed:
            break;
    }
    return kExitFailure;
}

}  // namespace

CommandRun SetupStop(CLI::App& command) {
    return SetupRing(command, false);
}

CommandRun SetupStart(CLI::App& command) {
    return SetupRing(command, true);
}

CommandRun SetupClean(CLI::App& command) {
    auto options = std::make_shared<CleanOptions>();
    command.footer(
        "Removes the shared-memory segments, semaphore sets and descriptor FIFOs (<NAME>_XS_poll,\n"
        "<NAME>_XC_poll) of the Process channel NAME. Refuses while a process maps a segment, unless\n"
        "--force; processes that still map it keep their mapping but nobody\n"
        "can open the channel any more. --all removes every channel of the current user that no process\n"
        "maps, found from its segments in /dev/shm, and every semaphore set of the current user left "
        "without\n"
        "segments by a server of this library that is gone (a set made by an older or foreign server is\n"
        "left alone). --all keeps objects changed in the last 2 seconds: an end may still be opening them.\n"
        "Other names share a semaphore key, so a set is removed only when a server of this library made it\n"
        "for exactly this name, and only the current user's (root: anyone's). Put '--' before a NAME that\n"
        "begins with '-', as in the lines 'kelipc list' suggests.");
    CLI::Option* name =
        command.add_option("NAME", options->name, "the socket name")->check(Arguments::ExistingChannelName());
    CLI::Option* force =
        command.add_flag("--force", options->force, "remove even while processes map the channel");
    CLI::Option* all = command.add_flag("--all", options->all, "every unused channel of the current user");
    all->excludes(name)->excludes(force);
    command.parse_complete_callback([name, all] {
        if (name->count() == 0 && all->count() == 0) throw CLI::RequiredError("NAME or --all");
    });
    return [options] { return Clean(*options); };
}
