#pragma once

// Helpers for the stress tests: the message-count scale, the loop over
// schedule seeds, a standard-output capture that several threads may write
// to, a progress counter that threads wait on, and a time-limited rendezvous.
//
// Environment:
//   KEST_STRESS_SCALE    factor applied to message counts (default 1.0; 0.1 under ThreadSanitizer)
//   KEST_SCHEDULE_SEEDS  seeds run per test when the libraries perturb the schedule (default 20)
//   KEST_SCHEDULE_SEED   run this one seed only (to replay a failure)

#include <kest/internal/Schedule.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <mutex>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace KestTest {

using Clock = std::chrono::steady_clock;

// How long any one wait of a stress test may take before the test fails
// instead of hanging.
inline constexpr std::chrono::seconds StressWaitLimit{60};

inline bool schedulePerturbed() {
#if defined(KEST_SCHEDULE_PERTURBATION)
    return true;
#else
    return false;
#endif
}

// KEST_STRESS_SCALE as a number; 1 when unset, unreadable or not positive.
inline double stressScale() {
    const char* text = std::getenv("KEST_STRESS_SCALE");
    if (text == nullptr) return 1.0;
    char* end = nullptr;
    const double scale = std::strtod(text, &end);
    return (end != text && scale > 0.0) ? scale : 1.0;
}

// `count` scaled by KEST_STRESS_SCALE, and cut by `perturbedDivisor` when the
// schedule is perturbed (each test then runs once per seed), never below
// `minimum`.
inline int scaledCount(int count, int minimum, int perturbedDivisor = 1) {
    double scaled = count * stressScale();
    if (schedulePerturbed()) scaled /= perturbedDivisor;
    return std::max(minimum, static_cast<int>(scaled));
}

inline std::uint64_t environmentNumber(const char* name, std::uint64_t fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    return std::strtoull(text, nullptr, 10);
}

inline std::string currentTestName() {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return info == nullptr ? std::string("*")
                           : std::string(info->test_suite_name()) + "." + info->name();
}

// Runs `body(seed)` once per schedule seed. With the schedule perturbation
// built in, that is seeds 1..KEST_SCHEDULE_SEEDS, or only KEST_SCHEDULE_SEED;
// every seed reseeds the libraries' yields. Without it, `body` runs once, with
// KEST_SCHEDULE_SEED or 1, which then only seeds the test's own choices.
// Failures carry the seed and how to replay it; the loop stops at the first
// failing seed.
template <class Body>
void forEachScheduleSeed(Body body) {
    std::vector<std::uint64_t> seeds;
    if (std::getenv("KEST_SCHEDULE_SEED") != nullptr) {
        seeds.push_back(environmentNumber("KEST_SCHEDULE_SEED", 1));
    } else if (schedulePerturbed()) {
        const std::uint64_t count = std::max<std::uint64_t>(1, environmentNumber("KEST_SCHEDULE_SEEDS", 20));
        for (std::uint64_t seed = 1; seed <= count; ++seed) seeds.push_back(seed);
    } else {
        seeds.push_back(1);
    }
    for (std::uint64_t seed : seeds) {
#if defined(KEST_SCHEDULE_PERTURBATION)
        Kest::detail::setScheduleSeed(seed);
#endif
        std::ostringstream replay;
        replay << "schedule seed " << seed << (schedulePerturbed() ? " (perturbed)" : "")
               << "; replay with KEST_SCHEDULE_SEED=" << seed
               << " kest_stress_tests --gtest_filter=" << currentTestName();
        SCOPED_TRACE(replay.str());
        body(seed);
        if (::testing::Test::HasFailure()) {
            std::printf("FAILED with %s\n", replay.str().c_str());
            return;
        }
    }
}

// A stream buffer that appends everything written to it under a mutex, so
// that threads writing at once lose nothing; std::cout is redirected to it
// for the capture's lifetime.
class SynchronizedCapture : private std::streambuf {
public:
    SynchronizedCapture() : old_(std::cout.rdbuf(this)) {}
    ~SynchronizedCapture() override { std::cout.rdbuf(old_); }
    SynchronizedCapture(const SynchronizedCapture&) = delete;
    SynchronizedCapture& operator=(const SynchronizedCapture&) = delete;

    // Everything written so far, split at newlines (an unfinished last line
    // is kept).
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> result;
        std::istringstream in(text_);
        for (std::string line; std::getline(in, line);) result.push_back(line);
        return result;
    }

private:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        std::lock_guard<std::mutex> lock(mutex_);
        text_.push_back(traits_type::to_char_type(c));
        return c;
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        std::lock_guard<std::mutex> lock(mutex_);
        text_.append(s, static_cast<std::size_t>(n));
        return n;
    }
    int sync() override { return 0; }

    mutable std::mutex mutex_;
    std::string text_;  // guarded by mutex_
    std::streambuf* old_;
};

// A counter that threads advance and others wait on. Advancing wakes the
// waiters only once the smallest awaited value is reached, so that waiting
// for "n more posts" costs one wake-up, not one per post.
class Progress {
public:
    void advance() {
        bool wake = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++count_;
            if (count_ >= nextWake_) {
                nextWake_ = std::numeric_limits<long>::max();
                wake = true;
            }
        }
        if (wake) changed_.notify_all();
    }
    // No further advances: every waiter returns.
    void finish() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            finished_ = true;
        }
        changed_.notify_all();
    }
    long value() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }
    bool finished() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return finished_;
    }
    // Waits until the count reaches `target` or finish() was called; false
    // if StressWaitLimit passed first.
    bool waitUntil(long target) {
        std::unique_lock<std::mutex> lock(mutex_);
        const Clock::time_point deadline = Clock::now() + StressWaitLimit;
        while (count_ < target && !finished_) {
            nextWake_ = std::min(nextWake_, target);
            if (changed_.wait_until(lock, deadline) == std::cv_status::timeout &&
                count_ < target && !finished_) {
                return false;
            }
        }
        return true;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    long count_ = 0;                                     // guarded by mutex_
    long nextWake_ = std::numeric_limits<long>::max();  // guarded by mutex_
    bool finished_ = false;                              // guarded by mutex_
};

// A reusable rendezvous of a fixed number of threads. arrive() returns false
// if the others did not all arrive within StressWaitLimit; the rendezvous is
// then broken and every later arrive() returns false at once, so that no
// thread waits for one that gave up.
class Rendezvous {
public:
    explicit Rendezvous(int parties) : parties_(parties) {}
    bool arrive() {
        std::unique_lock<std::mutex> lock(mutex_);
        if (broken_) return false;
        const long round = round_;
        if (++arrived_ == parties_) {
            arrived_ = 0;
            ++round_;
            lock.unlock();
            all_.notify_all();
            return true;
        }
        if (all_.wait_for(lock, StressWaitLimit, [&] { return round_ != round || broken_; }) &&
            round_ != round) {
            return true;
        }
        broken_ = true;
        lock.unlock();
        all_.notify_all();
        return false;
    }

private:
    std::mutex mutex_;
    std::condition_variable all_;
    const int parties_;
    int arrived_ = 0;      // guarded by mutex_
    long round_ = 0;       // guarded by mutex_
    bool broken_ = false;  // guarded by mutex_
};

// One line of the dispatcher's drop report:
// "PLOX message is - : sender = [a][b], dest = <None>, cat = 3, id = 17".
struct TraceLine {
    bool senderSet = false;
    std::vector<std::string> sender;
    bool destinationSet = false;
    std::vector<std::string> destination;
    unsigned long category = 0;
    unsigned long type = 0;
};

inline const std::string DropWarningLine = "PLOX!!!! Warning ---- dropping msg";
inline const std::string DropTracePrefix = "PLOX message is - : sender = ";

namespace detail {

// Reads "<None>" or a run of "[part]" at `at`; false if neither is there.
inline bool parseTraceAddress(const std::string& line, std::size_t& at, bool& set,
                              std::vector<std::string>& parts) {
    static const std::string none = "<None>";
    if (line.compare(at, none.size(), none) == 0) {
        set = false;
        at += none.size();
        return true;
    }
    set = true;
    while (at < line.size() && line[at] == '[') {
        const std::size_t close = line.find(']', at);
        if (close == std::string::npos) return false;
        parts.push_back(line.substr(at + 1, close - at - 1));
        at = close + 1;
    }
    return true;
}

inline bool parseTraceNumber(const std::string& line, std::size_t& at, const std::string& label,
                             unsigned long& value) {
    if (line.compare(at, label.size(), label) != 0) return false;
    at += label.size();
    const std::size_t start = at;
    while (at < line.size() && line[at] >= '0' && line[at] <= '9') ++at;
    if (at == start) return false;
    value = std::stoul(line.substr(start, at - start));
    return true;
}

}  // namespace detail

// Parses a drop trace line; false for anything that is not exactly one.
inline bool parseTraceLine(const std::string& line, TraceLine& out) {
    if (line.compare(0, DropTracePrefix.size(), DropTracePrefix) != 0) return false;
    std::size_t at = DropTracePrefix.size();
    TraceLine parsed;
    if (!detail::parseTraceAddress(line, at, parsed.senderSet, parsed.sender)) return false;
    static const std::string dest = ", dest = ";
    if (line.compare(at, dest.size(), dest) != 0) return false;
    at += dest.size();
    if (!detail::parseTraceAddress(line, at, parsed.destinationSet, parsed.destination)) return false;
    if (!detail::parseTraceNumber(line, at, ", cat = ", parsed.category)) return false;
    if (!detail::parseTraceNumber(line, at, ", id = ", parsed.type)) return false;
    if (at != line.size()) return false;
    out = std::move(parsed);
    return true;
}

}  // namespace KestTest
