#ifndef KELIPC_TOOL_BENCH_CASE_H
#define KELIPC_TOOL_BENCH_CASE_H

#include <poll.h>
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "BenchTransport.h"
#include "BenchWorker.h"

// One measurement in fresh processes: every entry of `processes` becomes a forked child running those
// sides on their own threads. The runner steps the children through open (the process with end 0
// first), ready, go and close over pipes, with a bound on every wait; a failure, a timeout or a signal
// makes the children stop their sockets and close them, and a child that does not leave in time is
// killed and the objects of its name are removed.
class BenchCase {
public:
    BenchCase(BenchTransport::Profile profile, std::string name,
              std::vector<std::vector<BenchWork>> processes, std::chrono::milliseconds timeout);

    // results: one per side, in the order the children reported them. childCpuSeconds: user + sys of the
    // whole children, setup included (RUSAGE_CHILDREN). False with a reason when anything failed.
    bool Run(std::vector<BenchSideResult>& results, double& childCpuSeconds, std::string& error);
    int KernelBuffer() const { return m_transport.KernelBuffer(); }  // after Run

private:
    using Clock = std::chrono::steady_clock;

    enum MessageKind : int32_t { kReady = 1, kFailed = 2, kResult = 3 };
    struct Message {
        int32_t kind;
        int32_t pad;
        BenchSideResult result;
    };
    struct Child {
        pid_t pid = -1;
        int control = -1;  // runner -> child: 'o' open, 'g' go, 'c' close; end of file: stop
        int report = -1;   // child -> runner: Message records
    };

    bool Launch(std::string& error);
    bool Drive(std::vector<BenchSideResult>& results, std::string& error);
    bool Finish(bool ok);
    bool Receive(Child& child, Message& message, Clock::time_point deadline, std::string& error);

    int ChildMain(size_t index, int control, int report, pid_t parent);
    int ChildAbort(std::vector<BenchWorker*>& workers, int notify, size_t doneAlready);
    // Waits in ppoll with the caller's signal mask, so a signal ends the wait without a race. The ppoll
    // result; 0 at the deadline (Clock::time_point::max() waits without one).
    int Wait(pollfd* fds, size_t count, Clock::time_point deadline) const;

    BenchTransport m_transport;
    std::vector<std::vector<BenchWork>> m_processes;
    std::chrono::milliseconds m_timeout;
    std::vector<Child> m_children;
    sigset_t m_openMask;
};

#endif  // KELIPC_TOOL_BENCH_CASE_H
