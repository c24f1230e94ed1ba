#include "AllocHarness.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace KestAlloc {

namespace {

struct Entry {
    std::string operation;
    Coverage coverage;
};

std::mutex entriesMutex;
std::vector<Entry>& entries() {
    static std::vector<Entry> all;
    return all;
}

// Points std::cout at the fixed buffer for the whole program and prints the
// coverage of the runs at the end.
class HarnessEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        previous_ = std::cout.rdbuf(&Output::instance());
    }
    void TearDown() override {
        std::cout.rdbuf(previous_);
        std::lock_guard<std::mutex> lock(entriesMutex);
        std::size_t operations = 0;
        std::size_t points = 0;
        std::printf("Allocation failures: operation, allocations of a complete run, failures absorbed\n");
        for (const Entry& e : entries()) {
            // The harness's own tests run objects of their own.
            if (e.operation.rfind("harness: ", 0) == 0) continue;
            std::printf("  %-90s %6zu %6zu\n", e.operation.c_str(), e.coverage.allocations,
                        e.coverage.swallowed);
            ++operations;
            points += e.coverage.allocations;
        }
        std::printf("Allocation failures: %zu operations, %zu allocation points\n", operations, points);
    }

private:
    std::streambuf* previous_ = nullptr;
};

const bool environmentAdded = [] {
    ::testing::AddGlobalTestEnvironment(new HarnessEnvironment);
    return true;
}();

}  // namespace

void record(const std::string& operation, const Coverage& coverage) {
    std::lock_guard<std::mutex> lock(entriesMutex);
    entries().push_back(Entry{operation, coverage});
}

Output& Output::instance() {
    static Output output;
    return output;
}

Output::Output() noexcept { clear(); }

std::string Output::text() const { return std::string(pbase(), pptr()); }

void Output::clear() noexcept { setp(data_, data_ + kSize); }

Output::int_type Output::overflow(int_type) { return traits_type::eof(); }

bool answersFromAnotherThread(std::function<void()> call, std::chrono::milliseconds limit) {
    return KestTest::finishesWithin(limit, std::move(call));
}

void AllocTest::SetUp() {
    (void)environmentAdded;
    Output::instance().clear();
    ASSERT_FALSE(Failure::armed());
}

void AllocTest::TearDown() {
    Failure::disarm();
    if (leakCheckAvailable()) {
        EXPECT_EQ(leaksNow(), 0) << "memory leaked: see the LeakSanitizer report above";
    }
}

bool leakCheckAvailable() {
#if defined(__SANITIZE_ADDRESS__)
    return true;
#else
    return false;
#endif
}

int leaksNow() {
#if defined(__SANITIZE_ADDRESS__)
    return __lsan_do_recoverable_leak_check();
#else
    return 0;
#endif
}

}  // namespace KestAlloc
