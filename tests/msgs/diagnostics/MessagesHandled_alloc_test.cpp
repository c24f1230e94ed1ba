// The history when memory runs out. Each allocation that a call makes is made
// to fail in turn (the replaced operator new of support/AllocationFailure);
// after every failure the history must answer and evict exactly as before the
// call, and later calls must complete. A history whose index and ring fell
// out of step could loop for ever, so every check runs on a copy, on a
// thread of its own, within a time limit.

#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <support/AllocationFailure.h>
#include <support/QueuesTestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

using Kest::Msgs::MessagesHandled;
using Kest::Msgs::PostScope;
namespace Failure = KestTest::AllocationFailure;

namespace {

constexpr std::size_t Length = MessagesHandled::DefaultHistoryLength;

// Short strings stay in a std::string's own buffer; long ones need the heap.
std::string shortId(std::size_t n) { return "s" + std::to_string(n); }
// All of one length (up to a million), so that each fits the slot of another.
std::string longId(std::size_t n) {
    const std::string digits = std::to_string(n);
    return "an-identity-too-long-for-the-inline-buffer-" + std::string(6 - digits.size(), '0') + digits;
}

// Empty when `history` remembers exactly `expected` (oldest first) and not
// `absent`, and then, given Length new strings, forgets the expected ones one
// per call in their order; otherwise what differed.
std::string compare(MessagesHandled& history, std::deque<std::string> expected, const std::string& absent) {
    for (const std::string& id : expected) {
        if (!history.isMessageHandled(id)) return "forgot " + id;
    }
    if (history.isMessageHandled(absent)) return "remembers " + absent;
    for (std::size_t n = 0; n < Length; ++n) {
        const std::string fresh = "fresh-" + std::to_string(n);
        if (!history.handleMessage(fresh)) return "refused the new " + fresh;
        expected.push_back(fresh);
        if (expected.size() <= Length) continue;
        const std::string evicted = expected.front();
        expected.pop_front();
        if (history.isMessageHandled(evicted)) return "did not evict " + evicted + " after " + fresh;
        if (!history.isMessageHandled(expected.front())) return "evicted " + expected.front() + " too early";
    }
    return {};
}

// Checks `history` against `expected` on a copy, within a time limit.
void expectHistory(const MessagesHandled& history, const std::deque<std::string>& expected,
                   const std::string& absent) {
    auto copy = std::make_shared<MessagesHandled>(history);
    auto difference = std::make_shared<std::string>();
    const bool ended = KestTest::finishesWithin(std::chrono::seconds(10), [copy, expected, absent, difference] {
        *difference = compare(*copy, expected, absent);
    });
    ASSERT_TRUE(ended) << "the history hangs";
    EXPECT_EQ(*difference, "");
}

std::deque<std::string> fill(MessagesHandled& history, std::size_t count, std::string (*make)(std::size_t)) {
    std::deque<std::string> remembered;
    for (std::size_t n = 0; n < count; ++n) {
        remembered.push_back(make(n));
        EXPECT_TRUE(history.handleMessage(remembered.back()));
    }
    return remembered;
}

// Checks, on a copy and within a time limit, that `history` refuses `id` in
// `handled` and accepts it in the other half (if any).
void expectScopes(const MessagesHandled& history, const std::string& id, PostScope handled) {
    auto copy = std::make_shared<MessagesHandled>(history);
    auto answers = std::make_shared<std::vector<bool>>();
    const bool ended = KestTest::finishesWithin(std::chrono::seconds(10), [copy, id, handled, answers] {
        answers->push_back(copy->handleMessage(id, handled));
        answers->push_back(copy->handleMessage(id, PostScope::Both));
        if (handled == PostScope::Subscribers) answers->push_back(copy->handleMessage(id, PostScope::Services));
        if (handled == PostScope::Services) answers->push_back(copy->handleMessage(id, PostScope::Subscribers));
    });
    ASSERT_TRUE(ended) << "the history hangs";
    std::vector<bool> expected{false, false};
    if (handled != PostScope::Both) expected.push_back(true);
    EXPECT_EQ(*answers, expected);
}

// Makes each allocation of history.handleMessage(id) (or of
// handleMessage(id, scope) for one half) fail in turn, checking the history
// after each failure; then checks the completed call. Returns the number of
// failed calls.
std::size_t failEachAllocationOfHandle(MessagesHandled& history, std::deque<std::string> remembered,
                                       const std::string& id, PostScope scope = PostScope::Both) {
    bool accepted = false;
    std::size_t failures = 0;
    const auto handle = [&] {
        return scope == PostScope::Both ? history.handleMessage(id) : history.handleMessage(id, scope);
    };
    // Once a check failed, the history is not called again on this thread:
    // a broken one could loop for ever here, where no time limit applies.
    Failure::failEachAllocationInTurn([&] { if (!::testing::Test::HasFailure()) accepted = handle(); },
                                      [&](std::size_t n, bool threw) {
                                          SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
                                          ++failures;
                                          EXPECT_TRUE(threw);
                                          // One hanging history is enough: each keeps a thread busy.
                                          if (::testing::Test::HasFailure()) return;
                                          expectHistory(history, remembered, id);
                                      });
    EXPECT_TRUE(accepted);
    remembered.push_back(id);
    if (remembered.size() > Length) remembered.pop_front();
    if (!::testing::Test::HasFailure()) expectScopes(history, id, scope);
    if (!::testing::Test::HasFailure()) expectHistory(history, remembered, "never-handled");
    return failures;
}

}  // namespace

TEST(MessagesHandledAllocation, FailedFirstCallLeavesTheHistoryEmptyAndUsable) {
    MessagesHandled history;
    // The first call reserves the whole history (ring and buckets), then
    // copies the long identity.
    EXPECT_EQ(failEachAllocationOfHandle(history, {}, longId(0)), 3u);
}

TEST(MessagesHandledAllocation, FailedCallOnAPartlyFilledHistoryChangesNothing) {
    MessagesHandled history;
    const std::deque<std::string> remembered = fill(history, 100, shortId);
    EXPECT_EQ(failEachAllocationOfHandle(history, remembered, longId(1)), 1u);
}

TEST(MessagesHandledAllocation, FailedCallOnAFullHistoryEvictsNothing) {
    MessagesHandled history;
    std::deque<std::string> remembered = fill(history, Length, shortId);
    // And once more after the ring has turned.
    ASSERT_TRUE(history.handleMessage(shortId(Length)));
    remembered.push_back(shortId(Length));
    remembered.pop_front();
    EXPECT_EQ(failEachAllocationOfHandle(history, remembered, longId(2)), 1u);
}

TEST(MessagesHandledAllocation, FailedFirstScopedCallLeavesTheHistoryEmptyAndUsable) {
    for (PostScope scope : {PostScope::Subscribers, PostScope::Services}) {
        MessagesHandled history;
        EXPECT_EQ(failEachAllocationOfHandle(history, {}, longId(0), scope), 3u);
    }
}

TEST(MessagesHandledAllocation, FailedScopedCallOnAFullHistoryEvictsNothing) {
    MessagesHandled history;
    std::deque<std::string> remembered = fill(history, Length, shortId);
    ASSERT_TRUE(history.handleMessage(shortId(Length), PostScope::Services));
    remembered.push_back(shortId(Length));
    remembered.pop_front();
    EXPECT_EQ(failEachAllocationOfHandle(history, remembered, longId(3), PostScope::Subscribers), 1u);
}

TEST(MessagesHandledAllocation, HandlingTheOtherHalfAllocatesNothingAndCannotFail) {
    MessagesHandled history;
    std::vector<std::string> ids;
    for (std::size_t n = 0; n < Length; ++n) {
        ids.push_back(longId(n));
        ASSERT_TRUE(history.handleMessage(ids.back(), PostScope::Subscribers));
    }
    Failure::resetCount();
    {
        Failure::Guard guard(1);  // the first allocation would fail
        for (const std::string& id : ids) ASSERT_TRUE(history.handleMessage(id, PostScope::Services));
        EXPECT_FALSE(Failure::failed());
    }
    EXPECT_EQ(Failure::allocations(), 0u);
    for (const std::string& id : ids) ASSERT_FALSE(history.handleMessage(id, PostScope::Services));
}

TEST(MessagesHandledAllocation, FillingHistoryAllocatesNothingAfterTheFirstCallForShortIdentities) {
    // Everything a call changes is reserved by the first one: a short
    // identity (no copy on the heap) can then never fail half-way.
    for (PostScope scope : {PostScope::Both, PostScope::Subscribers, PostScope::Services}) {
        MessagesHandled history;
        ASSERT_TRUE(history.handleMessage(shortId(0), scope));
        std::vector<std::string> ids;
        for (std::size_t n = 1; n < Length; ++n) ids.push_back(shortId(n));
        Failure::resetCount();
        for (const std::string& id : ids) ASSERT_TRUE(history.handleMessage(id, scope));
        EXPECT_EQ(Failure::allocations(), 0u);
    }
}

TEST(MessagesHandledAllocation, FullHistoryAllocatesNothingForIdentitiesThatFitTheirSlot) {
    MessagesHandled shortHistory;
    fill(shortHistory, Length, shortId);
    std::vector<std::string> shortIds;
    for (std::size_t n = Length; n < 3 * Length; ++n) shortIds.push_back(shortId(n));
    Failure::resetCount();
    for (const std::string& id : shortIds) ASSERT_TRUE(shortHistory.handleMessage(id));
    EXPECT_EQ(Failure::allocations(), 0u);

    // A long identity reuses the buffer of the long one it replaces.
    MessagesHandled longHistory;
    fill(longHistory, Length, longId);
    std::vector<std::string> longIds;
    for (std::size_t n = Length; n < 2 * Length; ++n) longIds.push_back(longId(n));
    Failure::resetCount();
    for (const std::string& id : longIds) ASSERT_TRUE(longHistory.handleMessage(id));
    EXPECT_EQ(Failure::allocations(), 0u);
}

TEST(MessagesHandledAllocation, FailedCopyAssignmentLeavesTheTargetUnchanged) {
    MessagesHandled source;
    fill(source, Length - 20, shortId);
    for (std::size_t n = 0; n < 20; ++n) ASSERT_TRUE(source.handleMessage(longId(n)));
    MessagesHandled target;
    const std::deque<std::string> remembered = fill(target, 50, longId);

    std::size_t failures = 0;
    Failure::failEachAllocationInTurn([&] { if (!::testing::Test::HasFailure()) target = source; },
                                      [&](std::size_t n, bool threw) {
                                          SCOPED_TRACE("allocation " + std::to_string(n) + " failed");
                                          ++failures;
                                          EXPECT_TRUE(threw);
                                          if (::testing::Test::HasFailure()) return;
                                          expectHistory(target, remembered, shortId(0));
                                      });
    // Ring, buckets and the twenty long strings.
    EXPECT_EQ(failures, 22u);
    EXPECT_TRUE(target.isMessageHandled(shortId(0)));
    EXPECT_FALSE(target.isMessageHandled(longId(20)));
}

TEST(MessagesHandledAllocation, ArmedCounterFailsTheNthAllocationOnly) {
    // The support itself: the second allocation fails, once, then all succeed.
    // Calls of ::operator new, because an optimiser may remove a
    // new-expression whose result is never used, and the count would shift.
    void* first = nullptr;
    void* third = nullptr;
    {
        Failure::Guard guard(2);
        first = ::operator new(sizeof(int));
        EXPECT_THROW(::operator delete(::operator new(sizeof(int))), std::bad_alloc);
        EXPECT_TRUE(Failure::failed());
        EXPECT_FALSE(Failure::armed());
        third = ::operator new(sizeof(int));
    }
    EXPECT_NE(first, nullptr);
    EXPECT_NE(third, nullptr);
    ::operator delete(first);
    ::operator delete(third);
    Failure::arm(1);
    void* refused = ::operator new(sizeof(int), std::nothrow);
    EXPECT_EQ(refused, nullptr);
    EXPECT_TRUE(Failure::failed());
    Failure::disarm();
    ::operator delete(refused);
}
