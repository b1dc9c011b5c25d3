#include "StopSignal.h"

#include <pthread.h>
#include <csignal>

namespace {

volatile std::sig_atomic_t g_signal = 0;

void OnSignal(int number) {
    g_signal = number;
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
    return g_signal != 0;
}

int StopSignal::Number() {
    return g_signal;
}

void StopSignal::BlockInThisThread() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}
