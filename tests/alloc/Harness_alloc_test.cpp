// The harness itself: it must catch the defects it exists for. Each case
// runs a small object of its own, once written correctly (the harness is
// satisfied) and once with a defect planted (the harness reports it).

#include "AllocHarness.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace KestAlloc;

namespace {

// Long enough that every copy needs the heap.
const std::string kLong = "a string too long for the inline buffer of std::string";

struct Box {
    std::vector<std::string> items;
    // Shared, so that a thread left waiting for it owns it.
    std::shared_ptr<std::mutex> mutex = std::make_shared<std::mutex>();
    // What appendCounting promises items.size() to be.
    std::size_t promised = 1;
};

std::string describe(Box& box) {
    std::string text;
    for (const std::string& item : box.items) text += item + ";";
    return text;
}

std::shared_ptr<Box> boxWithOneItem() {
    auto box = std::make_shared<Box>();
    box->items.push_back(kLong);
    return box;
}

// Appends two items or, if memory runs out, nothing.
void appendTwo(Box& box) {
    std::vector<std::string> copy(box.items);
    copy.push_back(kLong);
    copy.push_back(kLong);
    box.items.swap(copy);
}

// The same with the container changed before an allocation that can fail.
void appendTwoChangingFirst(Box& box) {
    box.items.push_back(kLong);
    box.items.push_back(kLong);
}

// Takes the lock and forgets to release it when an allocation fails.
void appendUnderLockWithoutUnwinding(Box& box) {
    box.mutex->lock();
    box.items.push_back(kLong);
    box.mutex->unlock();
}

// Waits until the promised items are there, then promises one more before
// the allocation that can fail: once a failure broke the promise, the next
// call waits for ever.
void appendBreakingItsPromise(Box& box) {
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock<std::mutex> lock(mutex);
    never.wait(lock, [&box] { return box.items.size() == box.promised; });
    ++box.promised;
    box.items.push_back(kLong);
}

// Swallows the failure and reports nothing.
void appendSwallowingFailure(Box& box) {
    try {
        appendTwo(box);
    } catch (const std::bad_alloc&) {
    }
}

// A leak LeakSanitizer can see once the only pointer to it is hidden; the
// test can still reach it to free it afterwards.
std::uintptr_t hiddenLeak = 0;
constexpr std::uintptr_t kHide = 0x5a5a5a5a5a5a5a5aULL;

// Copies an item to the heap and loses it when the append fails.
void appendLeakingOnFailure(Box& box) {
    auto* item = new std::string(kLong);
    try {
        box.items.push_back(*item);
    } catch (...) {
        if (hiddenLeak == 0) {
            hiddenLeak = reinterpret_cast<std::uintptr_t>(item) ^ kHide;  // the planted leak
        } else {
            delete item;  // one is enough
        }
        throw;
    }
    delete item;
}

}  // namespace

class Harness : public AllocTest {};

TEST_F(Harness, StrongOperationWrittenCorrectlyPasses) {
    const Coverage coverage = coverStrong<Box>("harness: Box::appendTwo", boxWithOneItem, appendTwo, describe);
    EXPECT_TRUE(coverage.finished);
    // The copy of the vector and its item, the two new items and the growth.
    EXPECT_GE(coverage.allocations, 4u);
}

TEST_F(Harness, ReportsAContainerChangedBeforeAnAllocationThatCanFail) {
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
        coverStrong<Box>("harness: Box::appendTwoChangingFirst", boxWithOneItem, appendTwoChangingFirst, describe),
        "the state changed");
}

TEST_F(Harness, ReportsALockNotReleasedOnUnwind) {
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
        cover<Box>(
            "harness: Box::appendUnderLockWithoutUnwinding", boxWithOneItem, appendUnderLockWithoutUnwinding,
            [](Box& box, std::size_t, bool) {
                check(answersFromAnotherThread([mutex = box.mutex] { std::lock_guard<std::mutex> lock(*mutex); },
                                               std::chrono::seconds(2)),
                      "the lock is still taken");
            },
            [](Box&) {}),
        "the lock is still taken");
}

TEST_F(Harness, ReportsAFailureThatDoesNotLeaveTheOperation) {
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
        coverStrong<Box>("harness: Box::appendSwallowingFailure", boxWithOneItem, appendSwallowingFailure, describe),
        "std::bad_alloc did not leave the operation");
}

TEST_F(Harness, ReportsAnOperationThatHangs) {
    Options quick;
    quick.limit = std::chrono::seconds(2);
    // After a failure the check calls the object again, and that call waits for ever.
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
        coverStrong<Box>("harness: Box::appendBreakingItsPromise", boxWithOneItem, appendBreakingItsPromise,
                         describe, quick),
        "(a hang)");
}

TEST_F(Harness, LeakCheckSeesALeakOnAnErrorPath) {
    if (!leakCheckAvailable()) GTEST_SKIP() << "no LeakSanitizer in this build";
    cover<Box>("harness: Box::appendLeakingOnFailure", boxWithOneItem, appendLeakingOnFailure,
               [](Box&, std::size_t, bool) {}, [](Box&) {});
    ASSERT_NE(hiddenLeak, 0u) << "the planted leak did not happen";
    std::fprintf(stderr, "The leak report that follows is the planted one; it is expected.\n");
    EXPECT_GT(leaksNow(), 0) << "LeakSanitizer did not see the planted leak";
    delete reinterpret_cast<std::string*>(hiddenLeak ^ kHide);
    hiddenLeak = 0;
    EXPECT_EQ(leaksNow(), 0);
}
