#pragma once

// SignalWatch: turns SIGINT and SIGTERM into a call on a thread of its own,
// so that a command can end cleanly (stop its bridge, print its summary)
// instead of dying with its bridge half-stopped.
//
// Construct it before any other thread starts (before the bridge): it blocks
// both signals in the calling thread, and threads started later inherit that
// mask, so only its own thread ever takes them (with sigwait). The
// destructor wakes that thread and joins it, then restores the mask.

#include <atomic>
#include <functional>
#include <thread>

#include <signal.h>

namespace KestTool {

class SignalWatch {
public:
    // `onSignal` runs on the watch's thread at the first SIGINT or SIGTERM;
    // it must only wake the command (put to a queue, notify a condition
    // variable), never block.
    explicit SignalWatch(std::function<void()> onSignal);
    ~SignalWatch();

    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    // The signal that arrived, 0 while none has.
    int signal() const noexcept { return signal_.load(); }

private:
    void run();

    std::function<void()> onSignal_;
    sigset_t previous_{};
    std::atomic<int> signal_{0};
    std::atomic<bool> done_{false};  // set by the destructor before it wakes the thread
    std::thread thread_;
};

}  // namespace KestTool
