#ifndef KELIPC_TOOL_CHANNEL_OBJECTS_H
#define KELIPC_TOOL_CHANNEL_OBJECTS_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The operating-system objects of one Process channel, named as the library names them, and read-only
// views of their state for the operator commands. Nothing here writes to a segment or a semaphore set,
// so looking at a live channel never disturbs it. Any user can plant an object under a name, so nothing
// here trusts one: no open waits (a FIFO), nothing is mapped (a segment truncated under a mapping
// faults), and header values are only read, never used as sizes.
class ChannelObjects {
public:
    enum Direction { kL = 0, kR = 1 };
    static constexpr Direction kDirections[] = {kL, kR};
    enum Side { kServer = 0, kClient = 1 };
    static constexpr Side kSides[] = {kServer, kClient};
    // kUnknown: the side announces no token (it takes no part in liveness, or it closed cleanly).
    enum class Liveness { kUnknown, kAlive, kDead };

    // One side's liveness as a ring header announces it and its lock shows it.
    struct End {
        Liveness liveness = Liveness::kUnknown;
        pid_t pid = 0;  // as the side wrote it; for display and for naming mappers only
    };

    struct Segment {
        bool present = false;  // the name exists in /dev/shm
        int error = 0;         // errno of a failed open or fstat of a present segment
        bool regular = true;   // false: a FIFO, directory or other object sits under the name
        int64_t size = 0;
        mode_t mode = 0;  // permission bits only
        uid_t uid = 0;
        time_t changed = 0;  // status change time: creation or the last resize
    };

    // Header words as read at one moment; a peer may have been moving a position while they were read.
    struct Ring {
        bool readable = false;  // the segment holds a whole ring header
        bool regular = true;    // false: the name held no regular file when it was opened
        int error = 0;          // errno of a failed open or read
        int32_t writePos = 0;
        int32_t readPos = 0;
        int32_t dataLen = 0;
        int32_t running = 0;
        uint64_t transTotal = 0;
        uint64_t transLast = 0;
        End ends[2];  // by Side

        bool Initialised() const { return readable && dataLen > 0; }
        bool PositionsValid() const;
        // In 64 bits: a hostile dataLen near INT32_MAX overflows the sum of the positions.
        int64_t Waiting() const;  // bytes stored, from the positions; 0 when the positions are invalid
        int64_t Free() const;     // bytes that fit, from the positions
    };

    struct Semaphore {
        bool present = false;
        int error = 0;  // errno of a failed semget (other than ENOENT) or semctl
        int id = -1;
        key_t key = 0;
        int value = 0;
        int waiters = 0;  // processes sleeping until the value rises
        int zeroWaiters = 0;
        int count = 0;        // semaphores in the set
        bool marked = false;  // a server of this library made it and counts its live servers in it
        int servers = 0;      // live servers, when marked
        bool named = false;   // of this layout and carrying the check of the name it was looked up by
        std::array<int, 4> nameCheck{};  // the check it carries, when of this layout
        mode_t mode = 0;
        uid_t uid = 0;
        time_t changed = 0;  // last semctl change, as an open's reset of the signal is
    };

    struct Mapper {
        pid_t pid = 0;
        std::string command;
    };

    struct State {
        Segment segment;
        Ring ring;
        Semaphore semaphore;
        std::vector<Mapper> mappers;
    };

    explicit ChannelObjects(std::string name);

    const std::string& Name() const { return m_name; }
    // Object names as the library derives them from the socket name.
    std::string ShmName(Direction direction) const;  // "<name>_XL_shm"
    std::string ShmPath(Direction direction) const;  // "/dev/shm/<name>_XL_shm"
    std::string SemName(Direction direction) const;  // "<name>_XL_ssm"
    key_t SemKey(Direction direction) const;
    // "/dev/shm/<name>_XS_poll" (server) or "_XC_poll" (client): the FIFO through which that end's
    // descriptor (PollFd) is rung; it exists while the end has one.
    std::string PollPath(Side side) const;
    static const char* Tag(Direction direction);   // "L" or "R"
    static const char* Flow(Direction direction);  // "client->server" or "server->client"
    // The djb2 hash of the name's bytes taken as signed chars, as the library keys its sets.
    static key_t KeyOf(const std::string& name);
    // A name the library could have made segments from: not empty, no '/'.
    static bool ValidName(const std::string& name);

    Segment StatSegment(Direction direction) const;
    Segment StatPoll(Side side) const;  // its presence, mode and owner, as for a segment
    // Opens the segment without waiting and reads its header, if it is a regular file that holds one.
    Ring ReadRing(Direction direction) const;
    // The same from a descriptor already open on the segment (a regular file, as fstat showed).
    static Ring ReadRing(int fd, int64_t size);
    // Opens the segment with the flags (O_RDONLY or O_RDWR) without waiting for a FIFO's writer and without
    // following a link: the descriptor with the size, -1 with errno, or kNotRegular (closed again) when
    // the name holds no regular file.
    static constexpr int kNotRegular = -2;
    int OpenSegment(Direction direction, int flags, int64_t& size) const;
    // Finds the set at the direction's key; named tells whether it was made for this name.
    Semaphore StatSemaphore(Direction direction) const;
    // The set of that id, whatever its key.
    static Semaphore StatSet(int id);
    // Processes that have the current segment of each direction mapped, from one scan of /proc.
    std::array<std::vector<Mapper>, 2> FindMappers() const;
    std::array<State, 2> Snapshot() const;
    // Each side's liveness over both rings: alive in either wins, then dead in either.
    static std::array<End, 2> Ends(const std::array<State, 2>& states);
    static const char* LivenessName(Liveness liveness);  // "alive", "dead" or "unknown"
    // "server", "client", "server+client" or "unknown", from the pids the ends announced.
    static const char* RoleOf(pid_t pid, const std::array<End, 2>& ends);
    // No process maps either segment while a ring's run flag is up: its ends died without closing.
    static bool RunsUnmapped(const std::array<State, 2>& states);

    // Names of the channels whose segments in /dev/shm belong to uid, sorted and without repeats.
    static std::vector<std::string> ListOwnedBy(uid_t uid);
    // Names of every channel with a segment in /dev/shm, whoever owns it, sorted and without repeats.
    static std::vector<std::string> ListAll();
    // The processes mapping each of the given /dev/shm paths, from one scan of /proc.
    static std::map<std::string, std::vector<Mapper>> MappersOf(const std::vector<std::string>& paths);
    // The ids of every System V semaphore set on the machine.
    static std::vector<int> SemaphoreSetIds();

private:
    static Segment StatPath(const std::string& path);

    std::string m_name;
};

#endif  // KELIPC_TOOL_CHANNEL_OBJECTS_H
