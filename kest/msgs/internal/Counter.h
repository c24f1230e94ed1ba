#pragma once

// Counters that one lock's holder writes and any thread reads without it.
// Internal to the dispatcher library.

#include <atomic>
#include <cstdint>

namespace Kest::Msgs::detail {

// Adds one to a counter that only the holder of one mutex writes. Writers are
// serialised by that mutex, so a load and a store make the increment (no
// read-modify-write instruction); the atomic only lets readers that do not
// take the mutex read a whole value, some value the counter had.
inline void countOne(std::atomic<std::uint64_t>& counter) noexcept {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace Kest::Msgs::detail
