#include "BenchCase.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>

#include "common/Commands.h"
#include "common/StopSignal.h"

using namespace std::chrono_literals;

namespace {

constexpr auto kSetupBound = 30s;
constexpr auto kReapBound = 10s;
constexpr auto kStopBound = 5s;

bool SendByte(int fd, char byte) {
    return write(fd, &byte, 1) == 1;
}

void CloseFd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

double CpuSeconds(const rusage& usage) {
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

}  // namespace

BenchCase::BenchCase(BenchTransport::Profile profile, std::string name,
                     std::vector<std::vector<BenchWork>> processes, std::chrono::milliseconds timeout)
    : m_transport(profile, std::move(name)), m_processes(std::move(processes)), m_timeout(timeout) {
    sigemptyset(&m_openMask);
}

bool BenchCase::Run(std::vector<BenchSideResult>& results, double& childCpuSeconds, std::string& error) {
    // SIGINT and SIGTERM stay blocked except inside Wait, here and in the children that inherit the mask.
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGINT);
    sigaddset(&stops, SIGTERM);
    sigprocmask(SIG_BLOCK, &stops, &m_openMask);
    rusage before{};
    getrusage(RUSAGE_CHILDREN, &before);
    bool ok = Launch(error) && Drive(results, error);
    if (!Finish(ok) && ok) {
        error = "a child process did not end cleanly";
        ok = false;
    }
    rusage after{};
    getrusage(RUSAGE_CHILDREN, &after);
    childCpuSeconds = CpuSeconds(after) - CpuSeconds(before);
    if (StopSignal::Requested()) {
        error = "interrupted";
        ok = false;
    }
    sigprocmask(SIG_SETMASK, &m_openMask, nullptr);
    return ok;
}

bool BenchCase::Launch(std::string& error) {
    if (!m_transport.Prepare(error)) return false;
    const pid_t parent = getpid();
    for (size_t index = 0; index < m_processes.size(); ++index) {
        int control[2];
        int report[2];
        if (pipe2(control, O_CLOEXEC) != 0) {
            error = std::string("pipe2: ") + std::strerror(errno);
            return false;
        }
        if (pipe2(report, O_CLOEXEC) != 0) {
            error = std::string("pipe2: ") + std::strerror(errno);
            close(control[0]);
            close(control[1]);
            return false;
        }
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid < 0) {
            error = std::string("fork: ") + std::strerror(errno);
            for (int fd : {control[0], control[1], report[0], report[1]}) close(fd);
            return false;
        }
        if (pid == 0) {
            // Only the runner may hold the other ends, or a child would never see its peer's pipes close.
            for (Child& other : m_children) {
                CloseFd(other.control);
                CloseFd(other.report);
            }
            close(control[1]);
            close(report[0]);
            std::_Exit(ChildMain(index, control[0], report[1], parent));
        }
        close(control[0]);
        close(report[1]);
        Child child;
        child.pid = pid;
        child.control = control[1];
        child.report = report[0];
        m_children.push_back(child);
    }
    m_transport.KeepOnly(false, false);
    return true;
}

bool BenchCase::Drive(std::vector<BenchSideResult>& results, std::string& error) {
    const auto setupDeadline = Clock::now() + kSetupBound;
    Message message{};
    // One at a time: a KelIpc client can only open once its server has.
    for (Child& child : m_children) {
        if (!SendByte(child.control, 'o') || !Receive(child, message, setupDeadline, error)) return false;
        if (message.kind != kReady) {
            error = message.kind == kFailed ? message.result.error : "unexpected message from a child";
            return false;
        }
    }
    for (Child& child : m_children)
        if (!SendByte(child.control, 'g')) {
            error = "a child process went away";
            return false;
        }
    size_t expected = 0;
    for (const auto& works : m_processes) expected += works.size();
    std::vector<size_t> pending(m_children.size());
    for (size_t index = 0; index < m_children.size(); ++index) pending[index] = m_processes[index].size();
    const auto deadline = Clock::now() + m_timeout;
    while (results.size() < expected) {
        std::vector<pollfd> fds;
        std::vector<size_t> owners;
        for (size_t index = 0; index < m_children.size(); ++index) {
            if (pending[index] == 0) continue;
            fds.push_back({m_children[index].report, POLLIN, 0});
            owners.push_back(index);
        }
        const int rc = Wait(fds.data(), fds.size(), deadline);
        if (rc < 0 && errno != EINTR) {
            error = std::string("ppoll: ") + std::strerror(errno);
            return false;
        }
        if (StopSignal::Requested()) {
            error = "interrupted";
            return false;
        }
        if (rc == 0) {
            error = "timed out";
            return false;
        }
        for (size_t at = 0; at < fds.size(); ++at) {
            if (fds[at].revents == 0) continue;
            if (!Receive(m_children[owners[at]], message, deadline, error)) return false;
            if (message.kind != kResult) {
                error = "unexpected message from a child";
                return false;
            }
            results.push_back(message.result);
            --pending[owners[at]];
            if (!message.result.ok) {
                error = message.result.error;
                return false;
            }
        }
    }
    return true;
}

bool BenchCase::Receive(Child& child, Message& message, Clock::time_point deadline, std::string& error) {
    char* const into = reinterpret_cast<char*>(&message);
    size_t done = 0;
    while (done < sizeof message) {
        pollfd entry{child.report, POLLIN, 0};
        const int rc = Wait(&entry, 1, deadline);
        if (StopSignal::Requested()) {
            error = "interrupted";
            return false;
        }
        if (rc == 0) {
            error = "timed out";
            return false;
        }
        if (rc < 0) {
            if (errno == EINTR) continue;
            error = std::string("ppoll: ") + std::strerror(errno);
            return false;
        }
        const ssize_t got = read(child.report, into + done, sizeof message - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            error = "a child process exited early";
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

// Children close their sockets on 'c', or stop them first when the pipe just closes. The last child (a
// KelIpc client) goes first, so that the server removes the semaphores only after the client has stopped
// using them. True when every child exited with status 0 by itself.
bool BenchCase::Finish(bool ok) {
    bool clean = true;
    const auto giveUp = Clock::now() + kReapBound;
    for (auto child = m_children.rbegin(); child != m_children.rend(); ++child) {
        if (ok) SendByte(child->control, 'c');
        CloseFd(child->control);
        int status = 0;
        for (;;) {
            const pid_t rc = waitpid(child->pid, &status, WNOHANG);
            if (rc == child->pid) {
                clean = clean && WIFEXITED(status) && WEXITSTATUS(status) == kExitOk;
                break;
            }
            if (rc < 0 && errno != EINTR) {
                clean = false;
                break;
            }
            if (Clock::now() > giveUp) {
                std::fprintf(stderr, "kelipc bench: a child process did not exit, killing it\n");
                kill(child->pid, SIGKILL);
                waitpid(child->pid, &status, 0);
                clean = false;
                break;
            }
            std::this_thread::sleep_for(1ms);
        }
        CloseFd(child->report);
    }
    // Nothing uses the name any more: whatever a failed child left is safe to remove.
    if (!ok || !clean) BenchTransport::Sweep(m_transport.GetProfile(), m_transport.Name());
    m_children.clear();
    return clean;
}

int BenchCase::Wait(pollfd* fds, size_t count, Clock::time_point deadline) const {
    timespec limit{};
    timespec* timeout = nullptr;
    if (deadline != Clock::time_point::max()) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
        if (left.count() <= 0) return 0;
        limit.tv_sec = static_cast<time_t>(left.count() / 1000000000);
        limit.tv_nsec = static_cast<long>(left.count() % 1000000000);
        timeout = &limit;
    }
    return ppoll(fds, count, timeout, &m_openMask);
}

int BenchCase::ChildMain(size_t index, int control, int report, pid_t parent) {
    // A child must not outlive the runner: its death sends SIGTERM, which takes the stop path.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) return kExitFailure;
    const std::vector<BenchWork>& works = m_processes[index];
    bool plays[2] = {false, false};
    for (const BenchWork& work : works) plays[work.end] = true;
    m_transport.KeepOnly(plays[0], plays[1]);
    const auto forever = Clock::time_point::max();
    // Reads the runner's next command; 0 at end of file or on a signal.
    auto command = [&]() -> char {
        for (;;) {
            pollfd entry{control, POLLIN, 0};
            const int rc = Wait(&entry, 1, forever);
            if (StopSignal::Requested()) return 0;
            if (rc < 0 && errno == EINTR) continue;
            char byte = 0;
            if (rc < 0 || read(control, &byte, 1) != 1) return 0;
            return byte;
        }
    };
    Message message{};
    // Tells the runner why setup failed, then waits for it to let go before releasing anything.
    auto refuse = [&](const std::string& why) {
        message.kind = kFailed;
        std::snprintf(message.result.error, sizeof message.result.error, "%s", why.c_str());
        if (write(report, &message, sizeof message) == static_cast<ssize_t>(sizeof message)) command();
        m_transport.Close();
        return kExitFailure;
    };
    if (command() != 'o') return kExitFailure;
    std::string error;
    for (int end = 0; end < 2; ++end)
        if (plays[end] && !m_transport.Open(end, error)) return refuse(error);
    int notify[2];
    if (pipe2(notify, O_CLOEXEC) != 0) return refuse(std::string("pipe2: ") + std::strerror(errno));
    std::vector<std::unique_ptr<BenchWorker>> owned;
    std::vector<BenchWorker*> workers;
    for (const BenchWork& work : works) {
        owned.push_back(std::make_unique<BenchWorker>(m_transport, work));
        workers.push_back(owned.back().get());
        workers.back()->Launch(notify[1]);
    }
    // Counts the workers' notes ('r' ready, then 'd' done) until `want` have come; false when the
    // runner closed the pipe or a signal came first.
    size_t ready = 0;
    size_t done = 0;
    auto collect = [&](size_t& counter, size_t want) {
        while (counter < want) {
            pollfd fds[2] = {{notify[0], POLLIN, 0}, {control, POLLIN, 0}};
            const int rc = Wait(fds, 2, forever);
            if (StopSignal::Requested()) return false;
            if (rc < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            if (fds[1].revents != 0) return false;  // only an abort arrives while the workers run
            char note = 0;
            if (read(notify[0], &note, 1) == 1) {
                if (note == 'r') ++ready;
                if (note == 'd') ++done;
            }
        }
        return true;
    };
    if (!collect(ready, works.size())) return ChildAbort(workers, notify[0], done);
    message.kind = kReady;
    if (write(report, &message, sizeof message) != static_cast<ssize_t>(sizeof message) || command() != 'g')
        return ChildAbort(workers, notify[0], done);
    for (BenchWorker* worker : workers) worker->Go();
    if (!collect(done, works.size())) return ChildAbort(workers, notify[0], done);
    bool ok = true;
    for (BenchWorker* worker : workers) {
        worker->Join();
        message.kind = kResult;
        message.result = worker->Result();
        ok = ok && message.result.ok;
        if (write(report, &message, sizeof message) != static_cast<ssize_t>(sizeof message)) ok = false;
    }
    // Closing the client stops both rings, so the close waits until the runner has heard from every side.
    const char last = command();
    m_transport.Close();
    return ok && last == 'c' ? kExitOk : kExitFailure;
}

// Stopping a KelIpc socket ends the blocked transfers of both ends; kernel transfers end when the process
// does, and the kernel releases their objects.
int BenchCase::ChildAbort(std::vector<BenchWorker*>& workers, int notify, size_t doneAlready) {
    for (BenchWorker* worker : workers) worker->Abort();
    if (!m_transport.Stop()) std::_Exit(kExitFailure);
    const auto giveUp = Clock::now() + kStopBound;
    size_t done = doneAlready;
    while (done < workers.size()) {
        pollfd entry{notify, POLLIN, 0};
        const int rc = Wait(&entry, 1, giveUp);
        if (rc == 0) std::_Exit(kExitFailure);  // still inside a transfer: unmapping now would be unsafe
        char note = 0;
        if (rc > 0 && read(notify, &note, 1) == 1 && note == 'd') ++done;
    }
    for (BenchWorker* worker : workers) worker->Join();
    m_transport.Close();
    return kExitFailure;
}
