#pragma once

// Lock boundaries of the libraries, with an optional test-only schedule
// perturbation.
//
// Built with KEST_SCHEDULE_PERTURBATION (the CMake option of that name, for
// tests only), every lock and unlock of the libraries passes a schedule
// point that, driven by a seeded random sequence per thread, sometimes
// yields the processor. Stress tests run over many seeds this way so that
// rare interleavings show up; a failing seed can be replayed. In ordinary
// builds the points compile to nothing.
//
// Not installed: for the libraries' own sources and the tests.

#include <kest/metadata/Api.h>

#include <cstdint>
#include <mutex>

namespace Kest::detail {

#if defined(KEST_SCHEDULE_PERTURBATION)
KEST_CORE_API void schedulePoint() noexcept;
// Seeds the perturbation of the threads that pass their first point after
// this call (each thread's sequence is derived from the seed and the order
// in which threads first arrive).
KEST_CORE_API void setScheduleSeed(std::uint64_t seed) noexcept;
#else
inline void schedulePoint() noexcept {}
#endif

// std::lock_guard with a schedule point on each side of locking and unlocking.
class LockGuard {
public:
    explicit LockGuard(std::mutex& mutex) : mutex_(mutex) {
        schedulePoint();
        mutex_.lock();
        schedulePoint();
    }
    ~LockGuard() {
        schedulePoint();
        mutex_.unlock();
        schedulePoint();
    }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    std::mutex& mutex_;
};

}  // namespace Kest::detail
