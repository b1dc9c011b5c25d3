#include "ChannelObjects.h"

#include <KelCycleBuffer.h>
#include <KelSystemSemaphore.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr const char* kShmDir = "/dev/shm/";
constexpr const char* kShmSuffix[] = {"_XL_shm", "_XR_shm"};
constexpr const char* kSemSuffix[] = {"_XL_ssm", "_XR_ssm"};
constexpr size_t kSuffixLength = 7;

// Where each side announces its token in a ring header, and the byte each side locks, as the library
// lays them out: the held word (1 while announced) and the pid, for the server and for the client.
constexpr size_t kHeldOffset[] = {960, 964};
constexpr size_t kPidOffset[] = {968, 972};
constexpr off_t kLockByte[] = {0, 1};

// The caller defines semctl's fourth argument.
union SemArg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

bool AllDigits(const char* text) {
    if (*text == '\0') return false;
    for (; *text != '\0'; ++text) {
        if (*text < '0' || *text > '9') return false;
    }
    return true;
}

std::string CommandOf(const std::string& pidDir) {
    std::string command;
    if (FILE* file = std::fopen((pidDir + "/comm").c_str(), "re")) {
        char line[64] = {};
        if (std::fgets(line, sizeof line, file) != nullptr) command = line;
        std::fclose(file);
    }
    while (!command.empty() && command.back() == '\n') command.pop_back();
    return command;
}

// The path field of a maps line: what follows the fifth field. A segment unlinked since it was mapped
// reads "<path> (deleted)" and so does not match the current one.
const char* MappedPath(const char* line) {
    int end = 0;
    if (std::sscanf(line, "%*s %*s %*s %*s %*s %n", &end) != 0 || end == 0) return nullptr;
    return line + end;
}

// The header words the tool shows end before this offset.
constexpr size_t kHeaderRead = 1024;

template <typename T>
T Word(const char* head, size_t offset) {
    T value;
    std::memcpy(&value, head + offset, sizeof value);
    return value;
}

// The name check a server of the library writes into its set: FNV-1a of the set's name in 15-bit pieces.
std::array<int, 4> NameCheckOf(const std::string& name) {
    uint64_t hash = 14695981039346656037ull;
    for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    std::array<int, 4> check;
    for (size_t i = 0; i < check.size(); ++i) check[i] = static_cast<int>((hash >> (15 * i)) & 0x7FFF);
    return check;
}

// Whether another open file description holds the lock byte; an end's death drops its lock.
ChannelObjects::Liveness LockLiveness(int fd, off_t byte) {
    flock lock{};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = byte;
    lock.l_len = 1;
    if (fcntl(fd, F_OFD_GETLK, &lock) == -1) return ChannelObjects::Liveness::kUnknown;
    return lock.l_type != F_UNLCK ? ChannelObjects::Liveness::kAlive : ChannelObjects::Liveness::kDead;
}

int Rank(ChannelObjects::Liveness liveness) {
    return liveness == ChannelObjects::Liveness::kAlive  ? 2
           : liveness == ChannelObjects::Liveness::kDead ? 1
                                                         : 0;
}

std::vector<std::string> ListSegments(bool anyOwner, uid_t uid) {
    std::vector<std::string> names;
    DIR* dir = opendir(kShmDir);
    if (dir == nullptr) return names;
    while (const dirent* entry = readdir(dir)) {
        const std::string file = entry->d_name;
        if (file.size() <= kSuffixLength) continue;
        const std::string suffix = file.substr(file.size() - kSuffixLength);
        if (suffix != kShmSuffix[0] && suffix != kShmSuffix[1]) continue;
        struct stat st;
        if (lstat((kShmDir + file).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        if (!anyOwner && st.st_uid != uid) continue;
        names.push_back(file.substr(0, file.size() - kSuffixLength));
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

}  // namespace

bool ChannelObjects::Ring::PositionsValid() const {
    return Initialised() && writePos >= 0 && writePos < dataLen && readPos >= 0 && readPos < dataLen;
}

int64_t ChannelObjects::Ring::Waiting() const {
    if (!PositionsValid()) return 0;
    return (int64_t{writePos} + dataLen - readPos) % dataLen;
}

int64_t ChannelObjects::Ring::Free() const {
    if (!PositionsValid()) return 0;
    // One byte always stays free so that full and empty differ.
    return dataLen - 1 - Waiting();
}

ChannelObjects::ChannelObjects(std::string name) : m_name(std::move(name)) {}

std::string ChannelObjects::ShmName(Direction direction) const {
    return m_name + kShmSuffix[direction];
}

std::string ChannelObjects::ShmPath(Direction direction) const {
    return kShmDir + ShmName(direction);
}

std::string ChannelObjects::SemName(Direction direction) const {
    return m_name + kSemSuffix[direction];
}

key_t ChannelObjects::SemKey(Direction direction) const {
    return KeyOf(SemName(direction));
}

const char* ChannelObjects::Tag(Direction direction) {
    return direction == kL ? "L" : "R";
}

const char* ChannelObjects::Flow(Direction direction) {
    return direction == kL ? "client->server" : "server->client";
}

key_t ChannelObjects::KeyOf(const std::string& name) {
    uint32_t hash = 5381;
    for (const char c : name) {
        hash = hash * 33u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
    }
    return static_cast<key_t>(static_cast<int32_t>(hash));
}

bool ChannelObjects::ValidName(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos && name.size() < 240;
}

ChannelObjects::Segment ChannelObjects::StatSegment(Direction direction) const {
    return StatPath(ShmPath(direction));
}

std::string ChannelObjects::PollPath(Side side) const {
    return kShmDir + m_name + (side == kServer ? "_XS_poll" : "_XC_poll");
}

ChannelObjects::Segment ChannelObjects::StatPoll(Side side) const {
    return StatPath(PollPath(side));
}

ChannelObjects::Segment ChannelObjects::StatPath(const std::string& path) {
    Segment segment;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        if (errno != ENOENT) {
            segment.present = true;
            segment.error = errno;
        }
        return segment;
    }
    segment.present = true;
    segment.regular = S_ISREG(st.st_mode);
    segment.size = static_cast<int64_t>(st.st_size);
    segment.mode = st.st_mode & 07777;
    segment.uid = st.st_uid;
    segment.changed = st.st_ctime;
    return segment;
}

int ChannelObjects::OpenSegment(Direction direction, int flags, int64_t& size) const {
    const int fd = open(ShmPath(direction).c_str(), flags | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        const int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        close(fd);
        return kNotRegular;
    }
    size = static_cast<int64_t>(st.st_size);
    return fd;
}

ChannelObjects::Ring ChannelObjects::ReadRing(Direction direction) const {
    int64_t size = 0;
    const int fd = OpenSegment(direction, O_RDONLY, size);
    if (fd < 0) {
        Ring ring;
        ring.regular = fd != kNotRegular;
        if (fd == -1) ring.error = errno;
        return ring;
    }
    Ring ring = ReadRing(fd, size);
    close(fd);
    return ring;
}

ChannelObjects::Ring ChannelObjects::ReadRing(int fd, int64_t size) {
    Ring ring;
    // A segment shorter than a ring header holds no ring; one cut shorter since fstat reads short.
    if (size < static_cast<int64_t>(sizeof(KelCBHead))) return ring;
    alignas(8) char head[kHeaderRead];
    ssize_t got;
    do {
        got = pread(fd, head, sizeof head, 0);
    } while (got == -1 && errno == EINTR);
    if (got != static_cast<ssize_t>(sizeof head)) {
        if (got == -1) ring.error = errno;
        return ring;
    }
    ring.writePos = Word<int32_t>(head, offsetof(KelCBHead, writePos));
    ring.readPos = Word<int32_t>(head, offsetof(KelCBHead, readPos));
    ring.dataLen = Word<int32_t>(head, offsetof(KelCBHead, dataLen));
    ring.running = Word<int32_t>(head, offsetof(KelCBHead, running));
    ring.transTotal = Word<uint64_t>(head, offsetof(KelCBHead, transTotal));
    ring.transLast = Word<uint64_t>(head, offsetof(KelCBHead, transLast));
    for (const Side side : kSides) {
        End& end = ring.ends[side];
        end.pid = Word<pid_t>(head, kPidOffset[side]);
        if (Word<int32_t>(head, kHeldOffset[side]) != 0) end.liveness = LockLiveness(fd, kLockByte[side]);
    }
    ring.readable = true;
    return ring;
}

ChannelObjects::Semaphore ChannelObjects::StatSemaphore(Direction direction) const {
    // No size and no permission bits: finds the set without asking for any access to it.
    const int id = semget(SemKey(direction), 0, 0);
    if (id != -1) {
        Semaphore semaphore = StatSet(id);
        semaphore.named = semaphore.count == KelSystemSemaphore::kServerSetSize &&
                          semaphore.nameCheck == NameCheckOf(SemName(direction));
        return semaphore;
    }
    Semaphore semaphore;
    if (errno != ENOENT) {
        semaphore.present = true;
        semaphore.error = errno;
    }
    return semaphore;
}

ChannelObjects::Semaphore ChannelObjects::StatSet(int id) {
    Semaphore semaphore;
    semaphore.present = true;
    semaphore.id = id;
    struct semid_ds ds;
    std::memset(&ds, 0, sizeof ds);
    SemArg arg;
    arg.buf = &ds;
    if (semctl(id, 0, IPC_STAT, arg) == -1) {
        semaphore.error = errno;
        return semaphore;
    }
    semaphore.mode = ds.sem_perm.mode & 0777;
    semaphore.uid = ds.sem_perm.uid;
    semaphore.key = ds.sem_perm.__key;
    semaphore.count = static_cast<int>(ds.sem_nsems);
    semaphore.changed = ds.sem_ctime;
    const int value = semctl(id, 0, GETVAL);
    const int waiters = value == -1 ? -1 : semctl(id, 0, GETNCNT);
    const int zeroWaiters = waiters == -1 ? -1 : semctl(id, 0, GETZCNT);
    if (value == -1 || waiters == -1 || zeroWaiters == -1) {
        semaphore.error = errno;
        return semaphore;
    }
    semaphore.value = value;
    semaphore.waiters = waiters;
    semaphore.zeroWaiters = zeroWaiters;
    // A server of this library (of this or an older layout) keeps its marker and live count here.
    if (semaphore.count > KelSystemSemaphore::kServerCount) {
        const int marker = semctl(id, KelSystemSemaphore::kMarker, GETVAL);
        const int servers = marker == -1 ? -1 : semctl(id, KelSystemSemaphore::kServerCount, GETVAL);
        if (marker == -1 || servers == -1) {
            semaphore.error = errno;
            return semaphore;
        }
        semaphore.marked = marker == KelSystemSemaphore::kMarkerValue;
        semaphore.servers = servers;
    }
    if (semaphore.count == KelSystemSemaphore::kServerSetSize) {
        static_assert(KelSystemSemaphore::kNameCheckCount == 4, "the name check has four pieces");
        for (int i = 0; i < KelSystemSemaphore::kNameCheckCount; ++i) {
            const int piece = semctl(id, KelSystemSemaphore::kNameCheck + i, GETVAL);
            if (piece == -1) {
                semaphore.error = errno;
                return semaphore;
            }
            semaphore.nameCheck[static_cast<size_t>(i)] = piece;
        }
    }
    return semaphore;
}

std::vector<int> ChannelObjects::SemaphoreSetIds() {
    std::vector<int> ids;
    FILE* file = std::fopen("/proc/sysvipc/sem", "re");
    if (file == nullptr) return ids;
    char line[512];
    // The first line names the columns: key, semid, ...
    if (std::fgets(line, sizeof line, file) != nullptr) {
        while (std::fgets(line, sizeof line, file) != nullptr) {
            long long key = 0;
            int id = -1;
            if (std::sscanf(line, "%lld %d", &key, &id) == 2 && id >= 0) ids.push_back(id);
        }
    }
    std::fclose(file);
    return ids;
}

std::map<std::string, std::vector<ChannelObjects::Mapper>> ChannelObjects::MappersOf(
    const std::vector<std::string>& paths) {
    std::map<std::string, std::vector<Mapper>> mappers;
    for (const std::string& path : paths) mappers[path];
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return mappers;
    char* line = nullptr;
    size_t capacity = 0;
    std::vector<std::string> found;
    while (const dirent* entry = readdir(proc)) {
        if (!AllDigits(entry->d_name)) continue;
        const std::string pidDir = std::string("/proc/") + entry->d_name;
        // Processes of other users cannot be read without privileges; they are passed over.
        FILE* maps = std::fopen((pidDir + "/maps").c_str(), "re");
        if (maps == nullptr) continue;
        found.clear();
        ssize_t length;
        while ((length = getline(&line, &capacity, maps)) > 0) {
            if (line[length - 1] == '\n') line[--length] = '\0';
            // Most lines are not shared memory at all; skip them before parsing.
            if (std::strstr(line, kShmDir) == nullptr) continue;
            const char* path = MappedPath(line);
            if (path == nullptr || mappers.count(path) == 0) continue;
            if (std::find(found.begin(), found.end(), path) == found.end()) found.push_back(path);
        }
        std::fclose(maps);
        if (found.empty()) continue;
        Mapper mapper;
        mapper.pid = static_cast<pid_t>(std::atol(entry->d_name));
        mapper.command = CommandOf(pidDir);
        for (const std::string& path : found) mappers[path].push_back(mapper);
    }
    std::free(line);
    closedir(proc);
    for (auto& entry : mappers) {
        std::sort(entry.second.begin(), entry.second.end(),
                  [](const Mapper& a, const Mapper& b) { return a.pid < b.pid; });
    }
    return mappers;
}

std::array<std::vector<ChannelObjects::Mapper>, 2> ChannelObjects::FindMappers() const {
    std::map<std::string, std::vector<Mapper>> found = MappersOf({ShmPath(kL), ShmPath(kR)});
    return {found[ShmPath(kL)], found[ShmPath(kR)]};
}

std::array<ChannelObjects::State, 2> ChannelObjects::Snapshot() const {
    std::array<State, 2> states;
    for (const Direction direction : kDirections) {
        State& state = states[direction];
        state.segment = StatSegment(direction);
        if (state.segment.present) state.ring = ReadRing(direction);
        state.semaphore = StatSemaphore(direction);
    }
    // Scanned after the header mappings are gone, so this process never counts itself.
    const std::array<std::vector<Mapper>, 2> mappers = FindMappers();
    for (const Direction direction : kDirections) states[direction].mappers = mappers[direction];
    return states;
}

std::array<ChannelObjects::End, 2> ChannelObjects::Ends(const std::array<State, 2>& states) {
    std::array<End, 2> ends;
    for (const Side side : kSides) {
        for (const State& state : states) {
            const End& seen = state.ring.ends[side];
            if (!state.ring.readable) continue;
            if (Rank(seen.liveness) > Rank(ends[side].liveness)) ends[side].liveness = seen.liveness;
            if (ends[side].pid == 0 || seen.liveness == Liveness::kAlive) {
                if (seen.pid != 0) ends[side].pid = seen.pid;
            }
        }
    }
    return ends;
}

const char* ChannelObjects::LivenessName(Liveness liveness) {
    return liveness == Liveness::kAlive ? "alive" : liveness == Liveness::kDead ? "dead" : "unknown";
}

const char* ChannelObjects::RoleOf(pid_t pid, const std::array<End, 2>& ends) {
    const bool server = pid != 0 && ends[kServer].pid == pid;
    const bool client = pid != 0 && ends[kClient].pid == pid;
    return server && client ? "server+client" : server ? "server" : client ? "client" : "unknown";
}

bool ChannelObjects::RunsUnmapped(const std::array<State, 2>& states) {
    bool running = false;
    for (const State& state : states) {
        if (!state.mappers.empty()) return false;
        running = running || (state.ring.Initialised() && state.ring.running != 0);
    }
    return running;
}

std::vector<std::string> ChannelObjects::ListOwnedBy(uid_t uid) {
    return ListSegments(false, uid);
}

std::vector<std::string> ChannelObjects::ListAll() {
    return ListSegments(true, 0);
}
