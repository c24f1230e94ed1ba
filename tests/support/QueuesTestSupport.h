#pragma once

// Helpers for the queue tests: a reader thread blocked in getMessage that a
// test can observe, and a bounded run of code that might deadlock.
//
// "Blocked" is read from the kernel: once the reader has announced that it is
// about to call getMessage, the only place where it can fall asleep is the
// queue's condition variable (the queue's mutex is not held by the test while
// it looks). So a test can put a message knowing that the reader is already
// waiting, without guessing with sleeps.

#include <kest/model/Message.h>
#include <kest/model/MessageQueueInterface.h>

#include <support/StressTestSupport.h>  // scaledCount, for the queue stress tests

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>

// Lets GoogleTest print a message in a failed check by its identifier and
// identity instead of as raw bytes.
namespace Kest::Msgs {
inline void PrintTo(const Message& message, std::ostream* out) {
    *out << "Message{id " << static_cast<unsigned long>(message.id()) << ", identity "
         << (message.identity.initialized() ? message.identity() : std::string("(unset)")) << '}';
}
}  // namespace Kest::Msgs

namespace KestTest {

// The kernel's id of the calling thread.
inline pid_t currentThreadId() { return static_cast<pid_t>(::syscall(SYS_gettid)); }

// The scheduler state of a thread of this process ('R' running, 'S' asleep in
// a wait, ...), or '?' when the thread no longer exists.
inline char threadState(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text;
    if (!stat || !std::getline(stat, text)) return '?';
    // "tid (name) S ...": the name may hold spaces and parentheses, so look
    // after the last closing one.
    const std::string::size_type close = text.rfind(')');
    if (close == std::string::npos || close + 2 >= text.size()) return '?';
    return text[close + 2];
}

// Runs `body` on a thread of its own and waits up to `limit` for it to end.
// True when it ended in time. A body that never ends (a deadlock) is left
// running, detached, so that the test fails instead of hanging: whatever the
// body uses must be owned by the body itself (capture shared pointers).
template <class Body>
bool finishesWithin(std::chrono::milliseconds limit, Body body) {
    struct State {
        std::mutex mutex;
        std::condition_variable ended;
        bool done = false;
    };
    auto state = std::make_shared<State>();
    std::thread worker([state, body = std::move(body)]() mutable {
        body();
        std::lock_guard<std::mutex> lock(state->mutex);
        state->done = true;
        state->ended.notify_all();
    });
    bool done = false;
    {
        std::unique_lock<std::mutex> lock(state->mutex);
        done = state->ended.wait_for(lock, limit, [&] { return state->done; });
    }
    if (done) {
        worker.join();
    } else {
        worker.detach();
    }
    return done;
}

// Runs `body` on a thread of its own and waits up to `limit` for it to end;
// exceptions of `body` reach the caller. For calls that must not deadlock:
// a body still running after `limit` is stuck and can never be joined, so
// the process is ended (std::abort) with a line on standard error that names
// the test, rather than going on beside a thread that holds who knows what.
template <class Body>
void endsWithinOrAbort(std::chrono::milliseconds limit, Body body) {
    std::packaged_task<void()> task(std::move(body));
    std::future<void> ended = task.get_future();
    std::thread worker(std::move(task));
    if (ended.wait_for(limit) != std::future_status::ready) {
        std::fprintf(stderr, "%s: still running after %lld ms, deadlocked; ending the process\n",
                     currentTestName().c_str(), static_cast<long long>(limit.count()));
        std::fflush(stderr);
        worker.detach();
        std::abort();
    }
    worker.join();
    ended.get();
}

// A thread that makes one getMessage call on a queue: getMessage() when no
// time-out is given, else getMessage(timeout).
class Reader {
public:
    Reader(std::shared_ptr<Kest::Msgs::MessageQueueInterface> queue,
           std::optional<std::chrono::milliseconds> timeout)
        : state_(std::make_shared<State>()) {
        state_->queue = std::move(queue);
        thread_ = std::thread([state = state_, timeout] {
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                state->tid = currentThreadId();
                state->started = true;
                state->changed.notify_all();
            }
            const auto start = std::chrono::steady_clock::now();
            std::shared_ptr<const Kest::Msgs::Message> message =
                timeout ? state->queue->getMessage(*timeout) : state->queue->getMessage();
            const auto elapsed = std::chrono::steady_clock::now() - start;
            std::lock_guard<std::mutex> lock(state->mutex);
            state->result = std::move(message);
            state->elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed);
            state->done = true;
            state->changed.notify_all();
        });
    }

    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    // A reader that has not returned by now is released with a message of
    // its own; if even that does not end it, the thread is left detached
    // (it owns the queue through the shared state) so that the test ends.
    ~Reader() {
        if (!waitForResult(std::chrono::milliseconds(0))) {
            try {
                state_->queue->putMessage(
                    std::make_shared<Kest::Msgs::Message>(Kest::Msgs::Identifier(0xFFFF, 0xFFFF)));
            } catch (...) {
            }
        }
        if (waitForResult(std::chrono::seconds(2))) {
            thread_.join();
        } else {
            thread_.detach();
        }
    }

    // True once the reader sleeps inside getMessage; false when it returned
    // instead, or when `limit` passed first.
    bool waitUntilBlocked(std::chrono::milliseconds limit = std::chrono::seconds(5)) {
        const auto giveUp = std::chrono::steady_clock::now() + limit;
        pid_t tid = 0;
        {
            std::unique_lock<std::mutex> lock(state_->mutex);
            if (!state_->changed.wait_until(lock, giveUp, [&] { return state_->started; })) return false;
            tid = state_->tid;
        }
        while (std::chrono::steady_clock::now() < giveUp) {
            {
                std::lock_guard<std::mutex> lock(state_->mutex);
                if (state_->done) return false;
            }
            if (threadState(tid) == 'S') return true;
            std::this_thread::yield();
        }
        return false;
    }

    // True once getMessage has returned; waits up to `limit` for it.
    bool waitForResult(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(state_->mutex);
        return state_->changed.wait_for(lock, limit, [&] { return state_->done; });
    }

    // What getMessage returned, and how long it took; valid after waitForResult.
    std::shared_ptr<const Kest::Msgs::Message> result() const {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->result;
    }
    std::chrono::milliseconds elapsed() const {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->elapsed;
    }

private:
    struct State {
        std::shared_ptr<Kest::Msgs::MessageQueueInterface> queue;
        std::mutex mutex;
        std::condition_variable changed;
        bool started = false;
        bool done = false;
        pid_t tid = 0;
        std::shared_ptr<const Kest::Msgs::Message> result;
        std::chrono::milliseconds elapsed{0};
    };
    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace KestTest
