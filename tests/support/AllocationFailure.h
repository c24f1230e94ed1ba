#pragma once

// Allocation failure on demand, for tests of what an operation leaves behind
// when memory runs out.
//
// A test executable that links tests/support/AllocationFailure.cpp replaces
// every form of the global operator new and operator delete (plain, array,
// nothrow, aligned, and the sized deletes). The replacements count every
// allocation and, once armed with arm(n), make the n-th allocation from then
// on fail: the throwing forms throw std::bad_alloc, the nothrow forms return
// a null pointer. The failure happens once; the counter is disarmed by it.
//
// Allocations of every thread are counted and can be the one that fails, so
// arm only around code whose allocations the test controls. The state is a
// few atomics at namespace scope, constant-initialised: the operators work
// from the first allocation of the program on, static initialisers
// included, and nothing here allocates.

#include <cstddef>
#include <new>

namespace KestTest::AllocationFailure {

// Makes the n-th allocation from now fail (n = 1: the very next one); arm(0)
// disarms. Clears failed().
void arm(std::size_t n) noexcept;
void disarm() noexcept;
bool armed() noexcept;
// True once the armed allocation has failed, until the next arm().
bool failed() noexcept;

// Allocations made (or attempted, the failed one included) since the last
// resetCount(), by every thread.
std::size_t allocations() noexcept;
void resetCount() noexcept;

// Arms for its lifetime: the n-th allocation within its scope fails.
class Guard {
public:
    explicit Guard(std::size_t n) noexcept { arm(n); }
    ~Guard() { disarm(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
};

// Runs `attempt()` with its first allocation failing, then with its second
// failing, and so on, until a run ends without reaching the armed
// allocation. After each run in which the allocation failed, calls
// `afterFailure(n, threw)`: n is the allocation that failed (1-based) and
// `threw` tells whether std::bad_alloc left `attempt` (false: the operation
// swallowed it). Other exceptions pass through, disarmed. Returns the number
// of allocations of the last, complete run, or `limit` + 1 when `limit`
// failing runs did not bring a complete one (an operation that allocates
// without end).
template <class Attempt, class AfterFailure>
std::size_t failEachAllocationInTurn(Attempt&& attempt, AfterFailure&& afterFailure,
                                     std::size_t limit = 100000) {
    for (std::size_t n = 1; n <= limit; ++n) {
        bool threw = false;
        resetCount();
        arm(n);
        try {
            attempt();
        } catch (const std::bad_alloc&) {
            threw = true;
        } catch (...) {
            disarm();
            throw;
        }
        const bool failedRun = failed();
        disarm();
        if (!failedRun && !threw) return allocations();
        afterFailure(n, threw);
    }
    return limit + 1;
}

}  // namespace KestTest::AllocationFailure
