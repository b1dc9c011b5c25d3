#ifndef KELIPC_TOOL_CHANNEL_OBJECTS_H
#define KELIPC_TOOL_CHANNEL_OBJECTS_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// The operating-system objects of one Process channel, named as the library names them, and read-only
// views of their state for the operator commands. Nothing here writes to a segment or a semaphore set,
// so looking at a live channel never disturbs it.
class ChannelObjects {
public:
    enum Direction { kL = 0, kR = 1 };
    static constexpr Direction kDirections[] = {kL, kR};

    struct Segment {
        bool present = false;  // the name exists in /dev/shm
        int error = 0;         // errno of a failed open or fstat of a present segment
        int64_t size = 0;
        mode_t mode = 0;  // permission bits only
        uid_t uid = 0;
        time_t changed = 0;  // status change time: creation or the last resize
    };

    // Header words as loaded one by one; the peer may move a position between two loads.
    struct Ring {
        bool readable = false;  // the segment holds a whole ring header
        int error = 0;          // errno of a failed open or mapping
        int32_t writePos = 0;
        int32_t readPos = 0;
        int32_t dataLen = 0;
        int32_t running = 0;
        uint64_t transTotal = 0;
        uint64_t transLast = 0;

        bool Initialised() const { return readable && dataLen > 0; }
        bool PositionsValid() const;
        int32_t Waiting() const;  // bytes stored, from the positions; 0 when the positions are invalid
        int32_t Free() const;     // bytes that fit, from the positions
    };

    struct Semaphore {
        bool present = false;
        int error = 0;  // errno of a failed semget (other than ENOENT) or semctl
        int id = -1;
        int value = 0;
        int waiters = 0;  // processes sleeping until the value rises
        mode_t mode = 0;
        uid_t uid = 0;
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
    static const char* Tag(Direction direction);   // "L" or "R"
    static const char* Flow(Direction direction);  // "client->server" or "server->client"
    // The djb2 hash of the name's bytes taken as signed chars, as the library keys its sets.
    static key_t KeyOf(const std::string& name);
    // A name the library could have made segments from: not empty, no '/'.
    static bool ValidName(const std::string& name);

    Segment StatSegment(Direction direction) const;
    // Maps the header read-only, loads its words atomically and unmaps it.
    Ring ReadRing(Direction direction) const;
    Semaphore StatSemaphore(Direction direction) const;
    // Processes that have the current segment of each direction mapped, from one scan of /proc.
    std::array<std::vector<Mapper>, 2> FindMappers() const;
    std::array<State, 2> Snapshot() const;

    // Names of the channels whose segments in /dev/shm belong to uid, sorted and without repeats.
    static std::vector<std::string> ListOwnedBy(uid_t uid);

private:
    std::string m_name;
};

#endif  // KELIPC_TOOL_CHANNEL_OBJECTS_H
