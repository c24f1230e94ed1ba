#include "Signals.h"

#include <pthread.h>

#include <system_error>

namespace KestTool {

namespace {

sigset_t watchedSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

SignalWatch::SignalWatch(std::function<void()> onSignal) : onSignal_(std::move(onSignal)) {
    const sigset_t set = watchedSignals();
    if (const int error = pthread_sigmask(SIG_BLOCK, &set, &previous_)) {
        throw std::system_error(error, std::generic_category(), "pthread_sigmask");
    }
    thread_ = std::thread([this] { run(); });
}

SignalWatch::~SignalWatch() {
    done_.store(true);
    // A signal of our own wakes sigwait; done_ tells it apart from one sent
    // by someone else.
    pthread_kill(thread_.native_handle(), SIGTERM);
    thread_.join();
    // A signal that arrived while the command was ending stays pending on the
    // process; take it here, before the mask is lifted, so that it does not
    // kill the process with its default action on the way out.
    const sigset_t set = watchedSignals();
    sigset_t pending;
    while (sigpending(&pending) == 0 && (sigismember(&pending, SIGINT) == 1 || sigismember(&pending, SIGTERM) == 1)) {
        int taken = 0;
        sigwait(&set, &taken);
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

void SignalWatch::run() {
    const sigset_t set = watchedSignals();
    for (;;) {
        int taken = 0;
        if (sigwait(&set, &taken) != 0) continue;
        if (done_.load()) return;
        int expected = 0;
        if (signal_.compare_exchange_strong(expected, taken)) onSignal_();
    }
}

}  // namespace KestTool
