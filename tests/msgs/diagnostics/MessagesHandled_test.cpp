// The history of handled message identities: refusing repeats, and forgetting
// the oldest identity once more than 10000 are held.

#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

using Kest::Msgs::MessagesHandled;

static_assert(MessagesHandled::DefaultHistoryLength == 10000);
static_assert(std::is_default_constructible_v<MessagesHandled>);

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
