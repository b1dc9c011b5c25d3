#include "TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

namespace kt {
namespace {

std::mutex g_namesMutex;
std::vector<std::string> g_names;

const char* const kSuffixes[] = {"", "_XL", "_XR", "_OL", "_OR"};

void RemoveAllFor(const std::string& base) {
    for (const char* poll : {"_XS_poll", "_XC_poll"}) unlink(("/dev/shm/" + base + poll).c_str());
    for (const char* suffix : kSuffixes) {
        RemoveShm(base + suffix + "_shm");
        RemoveSem(base + suffix + "_ssm");
        RemoveShm(base + suffix);
        RemoveSem(base + suffix);
    }
}

// Removes what a test made even when it failed half-way; children leave through _exit and skip this.
class CleanupEnvironment : public testing::Environment {
public:
    void TearDown() override {
        std::lock_guard<std::mutex> lock(g_namesMutex);
        for (const std::string& base : g_names) RemoveAllFor(base);
        g_names.clear();
    }
};

const testing::Environment* const g_cleanup = testing::AddGlobalTestEnvironment(new CleanupEnvironment);

}  // namespace

std::string UniqueName(const char* tag) {
    static std::atomic<int> counter{0};
    std::string name = "kt" + std::to_string(getpid()) + "_" + std::to_string(counter++) + "_" + tag;
    Track(name);
    return name;
}

void Track(const std::string& name) {
    std::lock_guard<std::mutex> lock(g_namesMutex);
    g_names.push_back(name);
}

struct LogCapture::State {
    mutable std::mutex mutex;
    std::vector<KelLogRecord> records;
};

LogCapture::LogCapture() : m_state(new State) {
    State* state = m_state;
    KelLogger::GetInstance()->SetSink([state](const KelLogRecord& record) {
        std::lock_guard<std::mutex> lock(state->mutex);
        state->records.push_back(record);
    });
}

LogCapture::~LogCapture() {
    KelLogger::GetInstance()->SetSink(nullptr);
    delete m_state;
}

std::vector<KelLogRecord> LogCapture::Records() const {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->records;
}

size_t LogCapture::Count(const std::string& message) const {
    size_t n = 0;
    for (const KelLogRecord& record : Records()) n += record.message == message ? 1 : 0;
    return n;
}

std::vector<std::string> LogCapture::Lines(const std::string& file) const {
    std::vector<std::string> lines;
    for (const KelLogRecord& record : Records()) {
        EXPECT_EQ(file, record.file);
        EXPECT_EQ(1, record.level);
        lines.push_back(record.function + "|" + record.message);
    }
    return lines;
}

namespace {
int g_readyFd = -1;  // in a child: the write end of its parent's WaitReady pipe
}  // namespace

void TellReady() {
    const char byte = 1;
    if (write(g_readyFd, &byte, 1) != 1) _exit(97);
}

Child::Child(const std::function<int()>& fn) : m_ready{-1, -1}, m_pid(-1) {
    if (pipe2(m_ready, O_CLOEXEC) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
        close(m_ready[0]);
        g_readyFd = m_ready[1];
        int code = 99;
        try {
            code = fn();
        } catch (...) {
            code = 98;
        }
        _exit(code);
    }
    close(m_ready[1]);
}

Child::~Child() {
    if (m_pid > 0) Kill();
    close(m_ready[0]);
}

bool Child::WaitReady(int timeoutMs) {
    pollfd entry{m_ready[0], POLLIN, 0};
    char byte = 0;
    return poll(&entry, 1, timeoutMs) == 1 && read(m_ready[0], &byte, 1) == 1;
}

void Child::Kill() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
}

int Child::Wait(int timeoutMs) {
    int status = 0;
    if (m_pid <= 0) return -1;
    if (!WaitUntil([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, timeoutMs)) {
        Kill();
        return -1;
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int RunInChild(const std::function<int()>& fn, int timeoutMs) {
    Child child(fn);
    return child.Wait(timeoutMs);
}

bool ShmExists(const std::string& name) {
    struct stat st;
    return stat(("/dev/shm/" + (name[0] == '/' ? name.substr(1) : name)).c_str(), &st) == 0;
}

int32_t Djb2Key(const std::string& name) {
    uint32_t hash = 5381;
    for (char c : name)
        hash = hash * 33u + static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(c)));
    return static_cast<int32_t>(hash);
}

bool SemExists(const std::string& name) {
    return semget(Djb2Key(name), 1, 0) != -1;
}

void RemoveShm(const std::string& name) {
    shm_unlink(name.c_str());
}

void RemoveSem(const std::string& name) {
    int id = semget(Djb2Key(name), 1, 0);
    if (id != -1) semctl(id, 0, IPC_RMID);
}

bool WaitUntil(const std::function<bool()>& pred, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::vector<char> Pattern(size_t n, uint64_t from) {
    std::vector<char> bytes(n);
    for (size_t i = 0; i < n; ++i) bytes[i] = PatternByte(from + i);
    return bytes;
}

int64_t FirstWrong(const char* bytes, size_t n, uint64_t from) {
    for (size_t i = 0; i < n; ++i) {
        if (bytes[i] != PatternByte(from + i)) return static_cast<int64_t>(i);
    }
    return -1;
}

bool BareEnd(KelCBHead* head, int64_t total, bool writes, int chunk, const std::function<bool()>& pause,
             const std::function<void()>& signal) {
    char* const area = reinterpret_cast<char*>(head) + sizeof(KelCBHead);
    const int64_t len = head->dataLen;
    int32_t* const own = writes ? &head->writePos : &head->readPos;
    int32_t* const other = writes ? &head->readPos : &head->writePos;
    for (int64_t done = 0; done < total;) {
        const int32_t at = __atomic_load_n(own, __ATOMIC_RELAXED);
        const int32_t peer = __atomic_load_n(other, __ATOMIC_ACQUIRE);
        const int64_t stored = ((writes ? at - peer : peer - at) + len) % len;
        const int64_t piece = std::min<int64_t>(chunk, total - done);
        if ((writes ? len - 1 - stored : stored) < piece) {
            if (!pause()) return false;
            continue;
        }
        for (int64_t i = 0; i < piece; ++i) {
            char& byte = area[(at + i) % len];
            if (writes) {
                byte = PatternByte(done + i);
            } else if (byte != PatternByte(done + i)) {
                return false;
            }
        }
        __atomic_store_n(own, static_cast<int32_t>((at + piece) % len), __ATOMIC_RELEASE);
        if (writes) signal();
        done += piece;
    }
    return true;
}

int ChannelObjects(const std::string& name) {
    int n = 0;
    for (const char* direction : {"_XL", "_XR"}) {
        n += ShmExists(name + direction + "_shm") + SemExists(name + direction + "_ssm");
    }
    return n;
}

namespace {
std::atomic<bool> g_held{false};
std::atomic<bool> g_release{false};

void HoldingHandler(int) {
    g_held.store(true);
    for (int i = 0; i < 5000 && !g_release.load(); ++i) {
        timespec ms{0, 1000000};
        nanosleep(&ms, nullptr);
    }
}
}  // namespace

SignalHold::SignalHold() : m_previous(new struct sigaction) {
    g_held = false;
    g_release = false;
    struct sigaction action {};
    action.sa_handler = HoldingHandler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, static_cast<struct sigaction*>(m_previous));
}

SignalHold::~SignalHold() {
    Release();
    sigaction(SIGUSR1, static_cast<struct sigaction*>(m_previous), nullptr);
    delete static_cast<struct sigaction*>(m_previous);
}

bool SignalHold::Hold(pthread_t thread) {
    g_held = false;
    g_release = false;
    return pthread_kill(thread, SIGUSR1) == 0 && WaitUntil([] { return g_held.load(); }, 5000);
}

void SignalHold::Release() {
    g_release = true;
}

}  // namespace kt
