// The history of handled message identities: refusing repeats, and forgetting
// the oldest identity once more than 10000 are held.

#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

using Kest::Msgs::MessagesHandled;
using Kest::Msgs::PostScope;

static_assert(MessagesHandled::DefaultHistoryLength == 10000);
static_assert(std::is_default_constructible_v<MessagesHandled>);
static_assert(std::is_copy_constructible_v<MessagesHandled>);
static_assert(std::is_copy_assignable_v<MessagesHandled>);
static_assert(std::is_nothrow_move_constructible_v<MessagesHandled>);
static_assert(std::is_nothrow_move_assignable_v<MessagesHandled>);

namespace {

std::string nth(unsigned int n) { return "s" + std::to_string(n); }

// A history holding s1..s10000, oldest first.
MessagesHandled fullHistory() {
    MessagesHandled history;
    for (unsigned int n = 1; n <= MessagesHandled::DefaultHistoryLength; ++n) {
        EXPECT_TRUE(history.handleMessage(nth(n))) << n;
    }
    return history;
}

}  // namespace

TEST(MessagesHandled, FirstHandleAcceptsAndSecondRefuses) {
    MessagesHandled history;
    EXPECT_FALSE(history.isMessageHandled("a"));
    EXPECT_TRUE(history.handleMessage("a"));
    EXPECT_FALSE(history.handleMessage("a"));
    EXPECT_TRUE(history.isMessageHandled("a"));
}

TEST(MessagesHandled, LookingUpRecordsNothing) {
    MessagesHandled history;
    EXPECT_FALSE(history.isMessageHandled("a"));
    EXPECT_FALSE(history.isMessageHandled("a"));
    EXPECT_TRUE(history.handleMessage("a"));
    EXPECT_FALSE(history.isMessageHandled("b"));
}

TEST(MessagesHandled, EmptyStringIsRememberedLikeAnyOther) {
    MessagesHandled history;
    EXPECT_FALSE(history.isMessageHandled(""));
    EXPECT_TRUE(history.handleMessage(""));
    EXPECT_TRUE(history.isMessageHandled(""));
    EXPECT_FALSE(history.handleMessage(""));
    EXPECT_FALSE(history.isMessageHandled(" "));
}

TEST(MessagesHandled, RemembersTenThousandStrings) {
    MessagesHandled history = fullHistory();
    for (unsigned int n = 1; n <= 10000; ++n) ASSERT_TRUE(history.isMessageHandled(nth(n))) << n;
    EXPECT_FALSE(history.isMessageHandled(nth(10001)));
}

TEST(MessagesHandled, TenThousandAndFirstStringEvictsTheFirst) {
    MessagesHandled history = fullHistory();

    EXPECT_TRUE(history.handleMessage(nth(10001)));

    EXPECT_FALSE(history.isMessageHandled(nth(1)));
    for (unsigned int n = 2; n <= 10001; ++n) ASSERT_TRUE(history.isMessageHandled(nth(n))) << n;
    // s1 is new again, and taking it in evicts s2 in turn.
    EXPECT_TRUE(history.handleMessage(nth(1)));
    EXPECT_FALSE(history.isMessageHandled(nth(2)));
    EXPECT_TRUE(history.isMessageHandled(nth(3)));
    EXPECT_TRUE(history.isMessageHandled(nth(1)));
    EXPECT_FALSE(history.handleMessage(nth(3)));
}

TEST(MessagesHandled, RefusedRepeatDoesNotMoveToTheBack) {
    MessagesHandled history = fullHistory();

    EXPECT_FALSE(history.handleMessage(nth(1)));
    EXPECT_TRUE(history.handleMessage(nth(10001)));

    EXPECT_FALSE(history.isMessageHandled(nth(1)));
    EXPECT_TRUE(history.isMessageHandled(nth(2)));
}

TEST(MessagesHandled, EvictsStrictlyInOrderOfFirstAcceptance) {
    MessagesHandled history = fullHistory();
    for (unsigned int n = 10001; n <= 10500; ++n) ASSERT_TRUE(history.handleMessage(nth(n))) << n;

    for (unsigned int n = 1; n <= 500; ++n) ASSERT_FALSE(history.isMessageHandled(nth(n))) << n;
    for (unsigned int n = 501; n <= 10500; ++n) ASSERT_TRUE(history.isMessageHandled(nth(n))) << n;
}

namespace {

// A full history that has turned 500 times: s501..s10500, oldest first.
MessagesHandled turnedHistory() {
    MessagesHandled history = fullHistory();
    for (unsigned int n = 10001; n <= 10500; ++n) EXPECT_TRUE(history.handleMessage(nth(n))) << n;
    return history;
}

// True when `history` holds exactly t0..t(count-1) and, given 10000 more
// strings, forgets them in that order.
void expectFreshlyFilledWith(MessagesHandled& history, unsigned int count) {
    auto t = [](unsigned int n) { return "t" + std::to_string(n); };
    for (unsigned int n = 0; n < count; ++n) ASSERT_TRUE(history.isMessageHandled(t(n))) << n;
    for (unsigned int n = count; n < MessagesHandled::DefaultHistoryLength + count; ++n) {
        ASSERT_TRUE(history.handleMessage(t(n))) << n;
        if (n >= MessagesHandled::DefaultHistoryLength) {
            const unsigned int evicted = n - MessagesHandled::DefaultHistoryLength;
            ASSERT_FALSE(history.isMessageHandled(t(evicted))) << "after " << n;
            ASSERT_TRUE(history.isMessageHandled(t(evicted + 1))) << "after " << n;
        }
    }
}

}  // namespace

TEST(MessagesHandled, MovedFromHistoryIsEmptyAndEvictsFromItsNewStart) {
    MessagesHandled history = turnedHistory();
    MessagesHandled moved(std::move(history));

    // The moved-to history answers and evicts as the original would have.
    EXPECT_TRUE(moved.isMessageHandled(nth(501)));
    EXPECT_TRUE(moved.handleMessage(nth(10501)));
    EXPECT_FALSE(moved.isMessageHandled(nth(501)));
    EXPECT_TRUE(moved.isMessageHandled(nth(502)));

    // The moved-from one remembers nothing and starts over from its first string.
    for (unsigned int n : {1u, 501u, 10500u}) EXPECT_FALSE(history.isMessageHandled(nth(n))) << n;
    for (unsigned int n = 0; n < 10; ++n) ASSERT_TRUE(history.handleMessage("t" + std::to_string(n)));
    expectFreshlyFilledWith(history, 10);
}

TEST(MessagesHandled, MoveAssignedFromHistoryIsEmptyAndEvictsFromItsNewStart) {
    MessagesHandled history = turnedHistory();
    MessagesHandled target;
    ASSERT_TRUE(target.handleMessage("old"));
    target = std::move(history);

    EXPECT_FALSE(target.isMessageHandled("old"));
    EXPECT_TRUE(target.isMessageHandled(nth(10500)));
    EXPECT_TRUE(target.handleMessage(nth(10501)));
    EXPECT_FALSE(target.isMessageHandled(nth(501)));

    EXPECT_FALSE(history.isMessageHandled(nth(10500)));
    for (unsigned int n = 0; n < 3; ++n) ASSERT_TRUE(history.handleMessage("t" + std::to_string(n)));
    expectFreshlyFilledWith(history, 3);
}

TEST(MessagesHandled, CopyAnswersAndEvictsAsTheOriginalAndIndependently) {
    const MessagesHandled original = turnedHistory();
    MessagesHandled copy(original);
    MessagesHandled assigned;
    ASSERT_TRUE(assigned.handleMessage("old"));
    assigned = original;
    EXPECT_FALSE(assigned.isMessageHandled("old"));

    for (MessagesHandled* history : {&copy, &assigned}) {
        for (unsigned int n = 10501; n <= 10600; ++n) ASSERT_TRUE(history->handleMessage(nth(n))) << n;
        for (unsigned int n = 501; n <= 600; ++n) ASSERT_FALSE(history->isMessageHandled(nth(n))) << n;
        for (unsigned int n = 601; n <= 10600; ++n) ASSERT_TRUE(history->isMessageHandled(nth(n))) << n;
    }
    // The original is untouched by what its copies took in.
    EXPECT_TRUE(original.isMessageHandled(nth(501)));
    EXPECT_FALSE(original.isMessageHandled(nth(10501)));
}

TEST(MessagesHandled, NonConstLookupAnswersAsTheConstOne) {
    MessagesHandled history;
    ASSERT_TRUE(history.handleMessage("a"));
    // Both overloads are exported: taking their addresses links against the library.
    bool (MessagesHandled::*query)(const std::string&) = &MessagesHandled::isMessageHandled;
    bool (MessagesHandled::*constQuery)(const std::string&) const = &MessagesHandled::isMessageHandled;
    EXPECT_TRUE((history.*query)("a"));
    EXPECT_FALSE((history.*query)("b"));
    EXPECT_TRUE((history.*constQuery)("a"));
    EXPECT_FALSE((history.*constQuery)("b"));
}

// ---- Scopes: the subscriber half and the service half of one message ------

TEST(MessagesHandledScopes, SubscribersThenServicesAreEachAcceptedOnce) {
    MessagesHandled history;
    EXPECT_TRUE(history.handleMessage("a", PostScope::Subscribers));
    EXPECT_TRUE(history.isMessageHandled("a"));
    EXPECT_FALSE(history.handleMessage("a", PostScope::Subscribers));
    EXPECT_TRUE(history.handleMessage("a", PostScope::Services));
    EXPECT_FALSE(history.handleMessage("a", PostScope::Services));
    EXPECT_FALSE(history.handleMessage("a", PostScope::Subscribers));
    EXPECT_FALSE(history.handleMessage("a", PostScope::Both));
    EXPECT_FALSE(history.handleMessage("a"));
}

TEST(MessagesHandledScopes, ServicesThenSubscribersAreEachAcceptedOnce) {
    MessagesHandled history;
    EXPECT_TRUE(history.handleMessage("a", PostScope::Services));
    EXPECT_FALSE(history.handleMessage("a", PostScope::Services));
    EXPECT_TRUE(history.handleMessage("a", PostScope::Subscribers));
    EXPECT_FALSE(history.handleMessage("a", PostScope::Subscribers));
}

TEST(MessagesHandledScopes, BothAfterEitherHalfIsRefusedAndLeavesTheOtherHalfOpen) {
    MessagesHandled history;
    ASSERT_TRUE(history.handleMessage("s", PostScope::Subscribers));
    ASSERT_TRUE(history.handleMessage("v", PostScope::Services));
    EXPECT_FALSE(history.handleMessage("s", PostScope::Both));
    EXPECT_FALSE(history.handleMessage("v", PostScope::Both));
    EXPECT_FALSE(history.handleMessage("s"));
    // The refusal added nothing: the other half is still open.
    EXPECT_TRUE(history.handleMessage("s", PostScope::Services));
    EXPECT_TRUE(history.handleMessage("v", PostScope::Subscribers));
}

TEST(MessagesHandledScopes, EitherHalfAfterBothIsRefused) {
    MessagesHandled history;
    ASSERT_TRUE(history.handleMessage("a"));
    EXPECT_FALSE(history.handleMessage("a", PostScope::Subscribers));
    EXPECT_FALSE(history.handleMessage("a", PostScope::Services));
    ASSERT_TRUE(history.handleMessage("b", PostScope::Both));
    EXPECT_FALSE(history.handleMessage("b"));
    EXPECT_FALSE(history.handleMessage("b", PostScope::Subscribers));
}

TEST(MessagesHandledScopes, ValueThatIsNoScopeIsRefusedAndRecordsNothing) {
    MessagesHandled history;
    ASSERT_TRUE(history.handleMessage("half", PostScope::Subscribers));
    for (unsigned int bits : {0u, 4u, 5u, 7u, 255u}) {
        const auto scope = static_cast<PostScope>(bits);
        EXPECT_FALSE(history.handleMessage("new", scope)) << bits;
        EXPECT_FALSE(history.handleMessage("half", scope)) << bits;
    }
    EXPECT_FALSE(history.isMessageHandled("new"));
    EXPECT_TRUE(history.handleMessage("new"));
    EXPECT_TRUE(history.handleMessage("half", PostScope::Services));
}

TEST(MessagesHandledScopes, SecondHalfKeepsTheStringsPlaceInTheHistory) {
    MessagesHandled history;
    ASSERT_TRUE(history.handleMessage(nth(1), PostScope::Subscribers));
    for (unsigned int n = 2; n <= MessagesHandled::DefaultHistoryLength; ++n) ASSERT_TRUE(history.handleMessage(nth(n)));
    // The second half of the oldest string does not refresh it ...
    ASSERT_TRUE(history.handleMessage(nth(1), PostScope::Services));
    // ... so the next new string still evicts it, both halves at once.
    ASSERT_TRUE(history.handleMessage(nth(MessagesHandled::DefaultHistoryLength + 1)));
    EXPECT_FALSE(history.isMessageHandled(nth(1)));
    EXPECT_TRUE(history.isMessageHandled(nth(2)));
    EXPECT_TRUE(history.handleMessage(nth(1), PostScope::Subscribers));
    EXPECT_FALSE(history.isMessageHandled(nth(2)));
}

TEST(MessagesHandledScopes, EvictedSlotForgetsTheScopesOfItsOldString) {
    // A string that takes the ring slot of one handled in both halves starts
    // with its own scope only.
    MessagesHandled history = fullHistory();
    ASSERT_TRUE(history.handleMessage("new", PostScope::Subscribers));
    EXPECT_FALSE(history.isMessageHandled(nth(1)));
    EXPECT_TRUE(history.handleMessage("new", PostScope::Services));
}

TEST(MessagesHandledScopes, CopyAndMoveKeepTheScopes) {
    MessagesHandled history;
    ASSERT_TRUE(history.handleMessage("a", PostScope::Subscribers));
    MessagesHandled copy(history);
    EXPECT_FALSE(copy.handleMessage("a", PostScope::Subscribers));
    EXPECT_TRUE(copy.handleMessage("a", PostScope::Services));
    // The original is independent of the copy.
    EXPECT_TRUE(history.handleMessage("a", PostScope::Services));
    MessagesHandled assigned;
    ASSERT_TRUE(history.handleMessage("b", PostScope::Services));
    assigned = history;
    EXPECT_TRUE(assigned.handleMessage("b", PostScope::Subscribers));
    MessagesHandled moved(std::move(history));
    EXPECT_FALSE(moved.handleMessage("b", PostScope::Services));
    EXPECT_TRUE(moved.handleMessage("b", PostScope::Subscribers));
}
