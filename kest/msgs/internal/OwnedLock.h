#pragma once

// The lock of a dispatcher or a callback queue, with a record of the thread
// that holds it, so that a call from code running under that lock on the
// same thread (a callback calling back into what delivers to it) throws at
// once instead of locking a second time and hanging for ever. Internal to
// the dispatcher library.
//
// The owner is a relaxed atomic. It is written only by the thread that holds
// the mutex (right after locking, and cleared right before unlocking), and a
// thread only ever compares it with its own id. A thread always reads its own
// latest write to an atomic, or a later one, so it sees its own id exactly
// while it holds the lock: after its clear, only other threads' ids or the
// empty id can follow. Whether a read sees another thread's id or the empty
// one makes no difference to the comparison, so no ordering is needed.

#include <kest/internal/Schedule.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace Kest::Msgs::detail {

// A plain word, so that the check costs a load and a compare.
static_assert(std::atomic<std::thread::id>::is_always_lock_free);

// Throws std::system_error with std::errc::resource_deadlock_would_occur and
// the text "<operation>: called from inside <where>".
[[noreturn]] void throwReentry(const char* operation, const char* where);

// Throws as above when the calling thread is `owner`.
inline void throwIfOwner(const std::atomic<std::thread::id>& owner, const char* operation, const char* where) {
    if (owner.load(std::memory_order_relaxed) == std::this_thread::get_id()) throwReentry(operation, where);
}

// Holds `mutex` for its lifetime and records the holding thread in `owner`.
// When the calling thread holds it already, the constructor throws (see
// throwReentry) before touching anything. The schedule points of
// Kest::detail::LockGuard stay on both sides of locking and unlocking.
class OwnedLock {
public:
    OwnedLock(std::mutex& mutex, std::atomic<std::thread::id>& owner, const char* operation, const char* where)
        : mutex_(mutex), owner_(owner) {
        const std::thread::id self = std::this_thread::get_id();
        if (owner_.load(std::memory_order_relaxed) == self) throwReentry(operation, where);
        Kest::detail::schedulePoint();
        mutex_.lock();
        owner_.store(self, std::memory_order_relaxed);
        Kest::detail::schedulePoint();
    }
    ~OwnedLock() {
        Kest::detail::schedulePoint();
        owner_.store(std::thread::id(), std::memory_order_relaxed);
        mutex_.unlock();
        Kest::detail::schedulePoint();
    }
    OwnedLock(const OwnedLock&) = delete;
    OwnedLock& operator=(const OwnedLock&) = delete;

private:
    std::mutex& mutex_;
    std::atomic<std::thread::id>& owner_;
};

}  // namespace Kest::Msgs::detail
