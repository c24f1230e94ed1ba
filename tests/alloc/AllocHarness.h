#pragma once

// The allocation-failure harness: every public operation of the libraries run
// with its first allocation failing, then its second, and so on until a run
// completes (KestTest::AllocationFailure::failEachAllocationInTurn), with
// the state checked after each failure.
//
// An operation is described by four functions:
//  - setup()             a fresh state (a std::shared_ptr); never armed;
//  - attempt(state)      the operation; armed, so its n-th allocation fails;
//  - afterFailure(state, n, threw)
//                        checks what the failure left: the state against
//                        the guarantee the operation documents, then that
//                        the object still works (an ordinary call succeeds);
//  - afterSuccess(state) checks the complete run's result.
// After each failure the state is thrown away and set up afresh, so that
// every run starts from the same state and reaches the same allocations:
// the harness checks that the complete run made exactly as many
// allocations as there were failing runs before it.
//
// The whole run, checks included, happens on a thread of its own within a
// time limit, so that an operation or a check that hangs (a lock not
// released, a loop that never ends) fails the test instead of stalling the
// suite. Everything the four functions use must therefore be owned by them:
// capture by value (std::shared_ptr), never by reference to the test's
// locals. Checks use check() and checkEqual() (or EXPECT_*); the first
// failed check ends the run.
//
// Leaks: in builds with AddressSanitizer every test of the harness ends with
// a leak check of its own (AllocTest::TearDown), so that a leak is reported
// against the operation's test; LeakSanitizer checks again at exit.
//
// Standard output: the library's diagnostic lines go to std::cout. For the
// whole program the harness points std::cout at a fixed buffer (Output) that
// never allocates, so that output adds no allocations of its own to an
// operation and can be compared exactly. Tests of what happens when the
// stream's buffer itself cannot grow put a std::ostringstream in its place.

#include <support/AllocationFailure.h>
#include <support/QueuesTestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>

namespace KestAlloc {

namespace Failure = KestTest::AllocationFailure;

// What a run of one operation covered.
struct Coverage {
    std::size_t allocations = 0;  // allocations of the complete run
    std::size_t failures = 0;     // runs with one allocation failing
    std::size_t swallowed = 0;    // of those, runs that std::bad_alloc did not leave
    bool finished = false;        // false: the run hung (or a check did)
};

struct Options {
    // The operation may absorb a failed allocation (an output stream does):
    // std::bad_alloc need not leave it.
    bool mayAbsorb = false;
    std::chrono::seconds limit{240};
    std::size_t maxAllocations = 20000;
};

// Records a run for the summary printed at the end of the program.
void record(const std::string& operation, const Coverage& coverage);

// Thrown to end a run after a failed check: one failure is enough, and the
// object that failed a check may hang the next call.
struct StopRun {};

// Checks for the four functions of a run: a failure is reported and ends the run.
inline void check(bool ok, const std::string& what) {
    if (ok) return;
    ADD_FAILURE() << what;
    throw StopRun{};
}
template <class T>
void checkEqual(const T& actual, const T& expected, const std::string& what) {
    if (actual == expected) return;
    ADD_FAILURE() << what << "\n  actual:   " << ::testing::PrintToString(actual)
                  << "\n  expected: " << ::testing::PrintToString(expected);
    throw StopRun{};
}

// The fixed buffer behind std::cout: never allocates; what does not fit is dropped.
class Output : public std::streambuf {
public:
    static Output& instance();
    // The text written since the last clear(). Allocates: call it unarmed.
    std::string text() const;
    void clear() noexcept;

private:
    Output() noexcept;
    int_type overflow(int_type c) override;

    static constexpr std::size_t kSize = 1 << 20;
    char data_[kSize];
};

// The text written to std::cout since the current attempt began.
inline std::string output() { return Output::instance().text(); }

// For its lifetime, std::cout writes into a std::ostringstream of its own,
// whose buffer grows (and so allocates) as lines are written.
struct GrowingOutput {
    std::shared_ptr<std::ostringstream> stream = std::make_shared<std::ostringstream>();
    GrowingOutput() { std::cout.rdbuf(stream->rdbuf()); }
    ~GrowingOutput() {
        // A later GrowingOutput may have taken std::cout over already.
        if (std::cout.rdbuf() == stream->rdbuf()) std::cout.rdbuf(&Output::instance());
    }
    GrowingOutput(const GrowingOutput&) = delete;
    GrowingOutput& operator=(const GrowingOutput&) = delete;
};

// Runs `call` on another thread and waits for it: false when it did not
// return within `limit` (a lock left taken). `call` must own what it uses.
bool answersFromAnotherThread(std::function<void()> call,
                              std::chrono::milliseconds limit = std::chrono::seconds(10));

template <class State, class Setup, class Attempt, class AfterFailure, class AfterSuccess>
Coverage cover(const std::string& operation, Setup setup, Attempt attempt, AfterFailure afterFailure,
               AfterSuccess afterSuccess, Options options = {}) {
    struct Result {
        Coverage coverage;
        bool stopped = false;
    };
    auto result = std::make_shared<Result>();
    auto body = [result, operation, setup = std::move(setup), attempt = std::move(attempt),
                 afterFailure = std::move(afterFailure), afterSuccess = std::move(afterSuccess), options]() {
        std::shared_ptr<State> state = setup();
        try {
            result->coverage.allocations = Failure::failEachAllocationInTurn(
                [&] {
                    Output::instance().clear();
                    attempt(*state);
                },
                [&](std::size_t n, bool threw) {
                    ++result->coverage.failures;
                    if (!threw) ++result->coverage.swallowed;
                    {
                        SCOPED_TRACE(operation + ": allocation " + std::to_string(n) + " failed");
                        check(threw || options.mayAbsorb, "std::bad_alloc did not leave the operation");
                        afterFailure(*state, n, threw);
                    }
                    if (::testing::Test::HasFailure()) throw StopRun{};
                    state = setup();
                },
                options.maxAllocations);
            if (result->coverage.allocations > options.maxAllocations) {
                ADD_FAILURE() << operation << ": no run completed within " << options.maxAllocations
                              << " allocations";
                throw StopRun{};
            }
            SCOPED_TRACE(operation + ": the complete run");
            afterSuccess(*state);
        } catch (const StopRun&) {
            result->stopped = true;
        } catch (const std::exception& e) {
            // Leaving this thread would end the program: report it instead.
            ADD_FAILURE() << operation << ": unexpected exception: " << e.what();
            result->stopped = true;
        } catch (...) {
            ADD_FAILURE() << operation << ": unexpected exception";
            result->stopped = true;
        }
        state.reset();
    };
    const bool finished = KestTest::finishesWithin(options.limit, std::move(body));
    // A run that hangs still owns `result` and may write to it: read it only
    // once its thread has ended.
    Coverage coverage;
    if (finished) coverage = result->coverage;
    coverage.finished = finished;
    EXPECT_TRUE(coverage.finished) << operation << ": did not finish within " << options.limit.count()
                                   << " s (a hang)";
    if (finished && !result->stopped) {
        // Each run starts from the same state, so the complete run reaches
        // exactly the allocations that the failing runs before it failed.
        EXPECT_EQ(coverage.allocations, coverage.failures)
            << operation << ": the runs did not make the same allocations";
        record(operation, coverage);
    }
    return coverage;
}

// An operation with the strong guarantee: after a failure `describe(state)`
// is exactly what it was before, and the operation then succeeds. After the
// complete run (and after the repeated call) `describe` gives what it gives
// on a state where the operation ran without failing.
template <class State, class Setup, class Op, class Describe>
Coverage coverStrong(const std::string& operation, Setup setup, Op op, Describe describe,
                     Options options = {}) {
    // What a state looks like before and after the operation, learnt from a
    // run without failures on a state of its own (on the harness's thread,
    // so that a hang there is bounded too).
    struct Reference {
        bool known = false;
        std::string before;
        std::string after;
    };
    auto reference = std::make_shared<Reference>();
    auto setupKnowingReference = [setup, op, describe, reference]() {
        if (!reference->known) {
            std::shared_ptr<State> model = setup();
            Output::instance().clear();  // as each attempt does
            reference->before = describe(*model);
            op(*model);
            reference->after = describe(*model);
            reference->known = true;
        }
        return setup();
    };
    return cover<State>(
        operation, setupKnowingReference, op,
        [op, describe, reference](State& state, std::size_t, bool) {
            checkEqual(describe(state), reference->before, "the state changed");
            op(state);
            checkEqual(describe(state), reference->after, "the call made after the failure did not succeed");
        },
        [describe, reference](State& state) {
            checkEqual(describe(state), reference->after, "the result differs from a run without failures");
        },
        options);
}

// An operation that allocates nothing: its first run completes.
template <class State, class Setup, class Op>
Coverage coverNoAllocation(const std::string& operation, Setup setup, Op op) {
    const Coverage coverage = cover<State>(
        operation, setup, op, [](State&, std::size_t, bool) {}, [](State&) {});
    EXPECT_EQ(coverage.allocations, 0u) << operation << " allocates";
    return coverage;
}

// The fixture of the harness's tests: a clean output buffer at the start, a
// leak check at the end (with AddressSanitizer).
class AllocTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// True when this build checks for leaks (AddressSanitizer's LeakSanitizer).
bool leakCheckAvailable();
// Runs LeakSanitizer now: the number of leaks it reported (0 without it).
int leaksNow();

}  // namespace KestAlloc
