#include "ChannelObjects.h"

#include <KelCycleBuffer.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr const char* kShmDir = "/dev/shm/";
constexpr const char* kShmSuffix[] = {"_XL_shm", "_XR_shm"};
constexpr const char* kSemSuffix[] = {"_XL_ssm", "_XR_ssm"};
constexpr size_t kSuffixLength = 7;

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

}  // namespace

bool ChannelObjects::Ring::PositionsValid() const {
    return Initialised() && writePos >= 0 && writePos < dataLen && readPos >= 0 && readPos < dataLen;
}

int32_t ChannelObjects::Ring::Waiting() const {
    if (!PositionsValid()) return 0;
    return (writePos + dataLen - readPos) % dataLen;
}

int32_t ChannelObjects::Ring::Free() const {
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
    Segment segment;
    struct stat st;
    if (lstat(ShmPath(direction).c_str(), &st) != 0) {
        if (errno != ENOENT) {
            segment.present = true;
            segment.error = errno;
        }
        return segment;
    }
    segment.present = true;
    segment.size = static_cast<int64_t>(st.st_size);
    segment.mode = st.st_mode & 07777;
    segment.uid = st.st_uid;
    segment.changed = st.st_ctime;
    return segment;
}

ChannelObjects::Ring ChannelObjects::ReadRing(Direction direction) const {
    Ring ring;
    const int fd = shm_open(ShmName(direction).c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        ring.error = errno;
        return ring;
    }
    struct stat st;
    void* address = MAP_FAILED;
    if (fstat(fd, &st) != 0) {
        ring.error = errno;
    } else if (st.st_size >= static_cast<off_t>(sizeof(KelCBHead))) {
        address = mmap(nullptr, sizeof(KelCBHead), PROT_READ, MAP_SHARED, fd, 0);
        if (address == MAP_FAILED) ring.error = errno;
    }
    // A segment shorter than the header stays unread: the words past its end would fault.
    close(fd);
    if (address == MAP_FAILED) return ring;
    const KelCBHead* head = static_cast<const KelCBHead*>(address);
    // Acquire, as the peer ends load them: a position is published after the bytes it covers.
    ring.writePos = __atomic_load_n(&head->writePos, __ATOMIC_ACQUIRE);
    ring.readPos = __atomic_load_n(&head->readPos, __ATOMIC_ACQUIRE);
    ring.dataLen = __atomic_load_n(&head->dataLen, __ATOMIC_ACQUIRE);
    ring.running = __atomic_load_n(&head->running, __ATOMIC_ACQUIRE);
    ring.transTotal = __atomic_load_n(&head->transTotal, __ATOMIC_RELAXED);
    ring.transLast = __atomic_load_n(&head->transLast, __ATOMIC_RELAXED);
    ring.readable = true;
    munmap(address, sizeof(KelCBHead));
    return ring;
}

ChannelObjects::Semaphore ChannelObjects::StatSemaphore(Direction direction) const {
    Semaphore semaphore;
    // No size and no permission bits: finds the set without asking for any access to it.
    semaphore.id = semget(SemKey(direction), 0, 0);
    if (semaphore.id == -1) {
        if (errno != ENOENT) {
            semaphore.present = true;
            semaphore.error = errno;
        }
        return semaphore;
    }
    semaphore.present = true;
    struct semid_ds ds;
    std::memset(&ds, 0, sizeof ds);
    SemArg arg;
    arg.buf = &ds;
    if (semctl(semaphore.id, 0, IPC_STAT, arg) == -1) {
        semaphore.error = errno;
        return semaphore;
    }
    semaphore.mode = ds.sem_perm.mode & 0777;
    semaphore.uid = ds.sem_perm.uid;
    const int value = semctl(semaphore.id, 0, GETVAL);
    const int waiters = value == -1 ? -1 : semctl(semaphore.id, 0, GETNCNT);
    if (value == -1 || waiters == -1) {
        semaphore.error = errno;
        return semaphore;
    }
    semaphore.value = value;
    semaphore.waiters = waiters;
    return semaphore;
}

std::array<std::vector<ChannelObjects::Mapper>, 2> ChannelObjects::FindMappers() const {
    std::array<std::vector<Mapper>, 2> mappers;
    const std::string paths[] = {ShmPath(kL), ShmPath(kR)};
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return mappers;
    char* line = nullptr;
    size_t capacity = 0;
    while (const dirent* entry = readdir(proc)) {
        if (!AllDigits(entry->d_name)) continue;
        const std::string pidDir = std::string("/proc/") + entry->d_name;
        // Processes of other users cannot be read without privileges; they are passed over.
        FILE* maps = std::fopen((pidDir + "/maps").c_str(), "re");
        if (maps == nullptr) continue;
        bool found[2] = {false, false};
        ssize_t length;
        while ((length = getline(&line, &capacity, maps)) > 0) {
            if (line[length - 1] == '\n') line[--length] = '\0';
            // Most lines are not shared memory at all; skip them before parsing.
            if (std::strstr(line, kShmDir) == nullptr) continue;
            const char* path = MappedPath(line);
            if (path == nullptr) continue;
            for (const Direction direction : kDirections) found[direction] |= paths[direction] == path;
        }
        std::fclose(maps);
        if (!found[kL] && !found[kR]) continue;
        Mapper mapper;
        mapper.pid = static_cast<pid_t>(std::atol(entry->d_name));
        mapper.command = CommandOf(pidDir);
        for (const Direction direction : kDirections) {
            if (found[direction]) mappers[direction].push_back(mapper);
        }
    }
    std::free(line);
    closedir(proc);
    for (std::vector<Mapper>& list : mappers) {
        std::sort(list.begin(), list.end(), [](const Mapper& a, const Mapper& b) { return a.pid < b.pid; });
    }
    return mappers;
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

std::vector<std::string> ChannelObjects::ListOwnedBy(uid_t uid) {
    std::vector<std::string> names;
    DIR* dir = opendir(kShmDir);
    if (dir == nullptr) return names;
    while (const dirent* entry = readdir(dir)) {
        const std::string file = entry->d_name;
        if (file.size() <= kSuffixLength) continue;
        const std::string suffix = file.substr(file.size() - kSuffixLength);
        if (suffix != kShmSuffix[kL] && suffix != kShmSuffix[kR]) continue;
        struct stat st;
        if (lstat((kShmDir + file).c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != uid) continue;
        names.push_back(file.substr(0, file.size() - kSuffixLength));
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}
