#include "common/StopSignal.h"

#include <pthread.h>

#include <atomic>
#include <csignal>

namespace {

// The handler may run on any thread that has not blocked the signals yet (a transfer thread just
// starting), while the supervisor polls: a lock-free atomic is both signal-safe and race-free there.
std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal flag must be lock-free");

void OnSignal(int number) {
    g_signal.store(number, std::memory_order_relaxed);
}

}  // namespace

bool StopSignal::Install() {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0 &&
           sigaction(SIGPIPE, &ignore, nullptr) == 0;
}

bool StopSignal::Requested() {
    return g_signal.load(std::memory_order_relaxed) != 0;
}

int StopSignal::Number() {
    return g_signal.load(std::memory_order_relaxed);
}

void StopSignal::BlockInThisThread() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}
