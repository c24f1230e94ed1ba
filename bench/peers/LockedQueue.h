#pragma once

// The floor for the queue workloads: the simplest correct blocking queue of
// shared messages, a mutex, a std::list and a condition variable, with none of
// a MessageQueue's time-out handling or virtual calls.

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <utility>

namespace KestBench::Peers {

template <class T>
class LockedQueue {
public:
    void push(T value) {
        std::lock_guard<std::mutex> lock(mutex_);
        items_.push_back(std::move(value));
        available_.notify_one();
    }

    // Waits until an item is there.
    T pop() {
        std::unique_lock<std::mutex> lock(mutex_);
        available_.wait(lock, [this] { return !items_.empty(); });
        T value = std::move(items_.front());
        items_.pop_front();
        return value;
    }

private:
    std::mutex mutex_;
    std::list<T> items_;  // guarded by mutex_
    std::condition_variable available_;
};

}  // namespace KestBench::Peers
