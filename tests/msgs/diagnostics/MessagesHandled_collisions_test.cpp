// The history when identities collide: strings that share a hash bucket, or
// the whole hash, are still told apart by their text, forgotten in the order
// they came and found after the ring has turned. The hash is replaced through
// the dispatcher library's test hook; every check that could loop for ever on
// a broken chain runs on a thread of its own, within a time limit.

#include <kest/msgs/diagnostics/MessagesHandled.h>

#if defined(KEST_TEST_HOOKS)
#include <kest/msgs/internal/TestHooks.h>
#endif

#include <support/QueuesTestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>

using Kest::Msgs::MessagesHandled;
using Kest::Msgs::PostScope;

#if defined(KEST_TEST_HOOKS)

namespace {

constexpr std::size_t Length = MessagesHandled::DefaultHistoryLength;
constexpr std::uint32_t Buckets = 32768;  // the history's bucket count for 10000 strings

// "<hash>:<name>" hashes to the number before the colon, so that a test
// chooses which strings share a bucket (hashes equal modulo Buckets) or the
// whole hash.
std::uint32_t hashFromText(const std::string& id) {
    return static_cast<std::uint32_t>(std::stoul(id.substr(0, id.find(':'))));
}

// Sixteen buckets, four whole hashes in each: chains of about 150 strings
// over a full history, most pairs in a chain with equal hashes.
std::uint32_t fewHashes(const std::string& id) {
    const std::size_t h = std::hash<std::string>()(id);
    return static_cast<std::uint32_t>(h % 16 + (h / 16 % 4) * Buckets);
}

std::string in(std::uint32_t hash, const std::string& name) { return std::to_string(hash) + ":" + name; }

// Strings of buckets of their own, away from bucket 7.
std::string filler(std::size_t n) { return in(static_cast<std::uint32_t>(100 + n), "filler"); }

class MessagesHandledCollisions : public ::testing::Test {
protected:
    void TearDown() override { Kest::Msgs::detail::hooks::setIdentityHash(nullptr); }

    // Runs `check` on its own thread, within a time limit; a chain that
    // points back at itself would make it loop for ever.
    static void bounded(std::function<void()> check) {
        ASSERT_TRUE(KestTest::finishesWithin(std::chrono::seconds(20), std::move(check))) << "the history hangs";
    }
};

}  // namespace

TEST_F(MessagesHandledCollisions, StringsWithOneHashAreToldApartByTheirText) {
    Kest::Msgs::detail::hooks::setIdentityHash(&hashFromText);
    bounded([] {
        MessagesHandled history;
        EXPECT_TRUE(history.handleMessage(in(5, "a")));
        EXPECT_TRUE(history.handleMessage(in(5, "b")));
        EXPECT_TRUE(history.handleMessage(in(5 + Buckets, "a")));  // same bucket, other hash
        EXPECT_FALSE(history.handleMessage(in(5, "a")));
        EXPECT_FALSE(history.handleMessage(in(5, "b")));
        EXPECT_FALSE(history.handleMessage(in(5 + Buckets, "a")));
        EXPECT_FALSE(history.isMessageHandled(in(5, "c")));
        EXPECT_FALSE(history.isMessageHandled(in(6, "a")));
    });
}

TEST_F(MessagesHandledCollisions, ScopesStayWithTheirStringWhenHashesCollide) {
    Kest::Msgs::detail::hooks::setIdentityHash(&hashFromText);
    bounded([] {
        MessagesHandled history;
        EXPECT_TRUE(history.handleMessage(in(9, "a"), PostScope::Subscribers));
        EXPECT_TRUE(history.handleMessage(in(9, "b"), PostScope::Services));
        EXPECT_FALSE(history.handleMessage(in(9, "a"), PostScope::Subscribers));
        EXPECT_FALSE(history.handleMessage(in(9, "b"), PostScope::Services));
        EXPECT_TRUE(history.handleMessage(in(9, "a"), PostScope::Services));
        EXPECT_TRUE(history.handleMessage(in(9, "b"), PostScope::Subscribers));
        EXPECT_FALSE(history.handleMessage(in(9, "a")));
        EXPECT_FALSE(history.handleMessage(in(9, "b")));
    });
}

TEST_F(MessagesHandledCollisions, WrappedHistoryOfOneBucketForgetsInOrderAndFindsTheRest) {
    // Every string in one bucket, two whole hashes taking turns: the chain
    // holds the whole history and the ring turns under it.
    Kest::Msgs::detail::hooks::setIdentityHash(&hashFromText);
    bounded([] {
        auto nth = [](std::size_t n) { return in(n % 2 == 0 ? 3 : 3 + Buckets, "s" + std::to_string(n)); };
        MessagesHandled history;
        for (std::size_t n = 0; n < Length + 500; ++n) ASSERT_TRUE(history.handleMessage(nth(n))) << n;
        for (std::size_t n = 0; n < 500; ++n) ASSERT_FALSE(history.isMessageHandled(nth(n))) << n;
        for (std::size_t n = 500; n < Length + 500; ++n) ASSERT_TRUE(history.isMessageHandled(nth(n))) << n;
        // A forgotten string is new again, and taking it in forgets the next oldest.
        EXPECT_TRUE(history.handleMessage(nth(0)));
        EXPECT_FALSE(history.isMessageHandled(nth(500)));
        EXPECT_TRUE(history.isMessageHandled(nth(501)));
        EXPECT_FALSE(history.handleMessage(nth(0)));
    });
}

TEST_F(MessagesHandledCollisions, StringReplacingTheOnlyOtherOfItsBucketIsFoundAfterwards) {
    // The oldest string is alone in its bucket when a new string of the
    // same bucket takes its place in the ring.
    Kest::Msgs::detail::hooks::setIdentityHash(&hashFromText);
    bounded([] {
        MessagesHandled history;
        ASSERT_TRUE(history.handleMessage(in(7, "oldest")));
        for (std::size_t n = 1; n < Length; ++n) ASSERT_TRUE(history.handleMessage(filler(n)));
        EXPECT_TRUE(history.handleMessage(in(7, "new")));
        EXPECT_FALSE(history.isMessageHandled(in(7, "oldest")));
        EXPECT_TRUE(history.isMessageHandled(in(7, "new")));
        EXPECT_FALSE(history.isMessageHandled(in(7, "other")));
        // The bucket keeps working: a second string joins the chain.
        EXPECT_TRUE(history.handleMessage(in(7 + Buckets, "second")));
        EXPECT_TRUE(history.isMessageHandled(in(7, "new")));
        EXPECT_TRUE(history.isMessageHandled(in(7 + Buckets, "second")));
        EXPECT_FALSE(history.handleMessage(in(7, "new")));
    });
}

TEST_F(MessagesHandledCollisions, StringReplacingTheFirstOfALongerChainIsFoundAfterwards) {
    // The oldest string heads a chain of two in the new string's bucket.
    Kest::Msgs::detail::hooks::setIdentityHash(&hashFromText);
    bounded([] {
        MessagesHandled history;
        ASSERT_TRUE(history.handleMessage(in(7, "oldest")));
        ASSERT_TRUE(history.handleMessage(in(7, "second")));
        for (std::size_t n = 2; n < Length; ++n) ASSERT_TRUE(history.handleMessage(filler(n)));
        EXPECT_TRUE(history.handleMessage(in(7, "new")));
        EXPECT_FALSE(history.isMessageHandled(in(7, "oldest")));
        EXPECT_TRUE(history.isMessageHandled(in(7, "second")));
        EXPECT_TRUE(history.isMessageHandled(in(7, "new")));
        // Next the second goes, and the new string stays.
        EXPECT_TRUE(history.handleMessage(filler(Length)));
        EXPECT_FALSE(history.isMessageHandled(in(7, "second")));
        EXPECT_TRUE(history.isMessageHandled(in(7, "new")));
    });
}

TEST_F(MessagesHandledCollisions, CopiedHistoryKeepsItsChains) {
    Kest::Msgs::detail::hooks::setIdentityHash(&hashFromText);
    bounded([] {
        MessagesHandled history;
        for (std::size_t n = 0; n < Length + 10; ++n) {
            ASSERT_TRUE(history.handleMessage(in(static_cast<std::uint32_t>(n % 3), std::string(n % 2 == 0 ? 30 : 1, 'x') + std::to_string(n))));
        }
        MessagesHandled copy(history);
        for (std::size_t n = 10; n < Length + 10; ++n) {
            ASSERT_TRUE(copy.isMessageHandled(in(static_cast<std::uint32_t>(n % 3), std::string(n % 2 == 0 ? 30 : 1, 'x') + std::to_string(n)))) << n;
        }
        EXPECT_FALSE(copy.isMessageHandled(in(0, std::string(30, 'x') + "0")));
    });
}

TEST_F(MessagesHandledCollisions, AgreesWithASetAndQueueOverRandomIdsInFewBuckets) {
    Kest::Msgs::detail::hooks::setIdentityHash(&fewHashes);
    bounded([] {
        std::mt19937 random(11);
        std::uniform_int_distribution<std::size_t> pick(0, 12000);
        MessagesHandled history;
        std::set<std::string> remembered;
        std::deque<std::string> order;
        for (std::size_t step = 0; step < 40000; ++step) {
            const std::size_t n = pick(random);
            // Short ids stay in the entry, long ones need a buffer of their own.
            const std::string id = (n % 3 == 0 ? std::string(30, 'L') : std::string()) + std::to_string(n);
            const bool fresh = remembered.insert(id).second;
            if (fresh) {
                order.push_back(id);
                if (order.size() > Length) {
                    remembered.erase(order.front());
                    order.pop_front();
                }
            }
            ASSERT_EQ(history.handleMessage(id), fresh) << "step " << step << ", id " << id;
            const std::string probe = std::to_string(pick(random));
            ASSERT_EQ(history.isMessageHandled(probe), remembered.count(probe) != 0) << "step " << step;
        }
    });
}

#else

TEST(MessagesHandledCollisions, NeedTheDispatcherLibrarysTestHooks) {
    GTEST_SKIP() << "replacing the history's hash needs the dispatcher library's test hooks (KEST_TEST_HOOKS)";
}

#endif
