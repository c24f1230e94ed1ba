#include <kest/internal/Schedule.h>

#if defined(KEST_SCHEDULE_PERTURBATION)

#include <atomic>
#include <thread>

namespace Kest::detail {

namespace {

std::atomic<std::uint64_t> seed{1};
std::atomic<std::uint64_t> threadsSeen{0};

std::uint64_t splitmix(std::uint64_t x) noexcept {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

struct ThreadSchedule {
    std::uint64_t generation = 0;
    std::uint64_t state = 0;
};
thread_local ThreadSchedule schedule;
std::atomic<std::uint64_t> generation{1};

}  // namespace

void setScheduleSeed(std::uint64_t value) noexcept {
    seed.store(value, std::memory_order_relaxed);
    threadsSeen.store(0, std::memory_order_relaxed);
    generation.fetch_add(1, std::memory_order_release);
}

void schedulePoint() noexcept {
    const std::uint64_t current = generation.load(std::memory_order_acquire);
    if (schedule.generation != current) {
        // First point of this thread under the current seed.
        schedule.generation = current;
        schedule.state = splitmix(seed.load(std::memory_order_relaxed) +
                                  threadsSeen.fetch_add(1, std::memory_order_relaxed)) | 1;
    }
    // xorshift64
    std::uint64_t x = schedule.state;
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    schedule.state = x;
    if ((x & 3) != 0) return;  // three points in four pass straight through
    for (std::uint64_t yields = 1 + ((x >> 8) & 3); yields > 0; --yields) std::this_thread::yield();
}

}  // namespace Kest::detail

#endif
