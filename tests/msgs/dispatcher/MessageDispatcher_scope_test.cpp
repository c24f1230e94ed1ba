// Posting with a scope: the subscriber half only, the service half only, or
// both. Each half of one message is delivered once, whatever the order, and
// a scoped post never reaches the other half.

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/PostScope.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/DispatcherTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

static_assert(std::is_same_v<std::underlying_type_t<PostScope>, std::uint8_t>);
static_assert(static_cast<int>(PostScope::Both) ==
              (static_cast<int>(PostScope::Subscribers) | static_cast<int>(PostScope::Services)));

namespace {

const Identifier Request(0x0100, 2);

const std::string Warning = "PLOX!!!! Warning ---- dropping msg";

// A dispatcher with a forwarder listening to the notifications, a subscriber
// and a ranked pair of services for Request messages addressed below {"svc"}.
struct Scoped {
    Scoped() {
        forwarder = attachForwarder(dispatcher);
        EXPECT_TRUE(dispatcher.subscribe(subscriber, {}, Request));
        EXPECT_TRUE(dispatcher.registerService(service, {"svc"}, Request, 1));
        EXPECT_TRUE(dispatcher.registerService(backup, {"svc"}, Request, 2));
        notices = drainNotices(*forwarder).size();
        start = dispatcher.counters();
    }

    // Messages each queue got since the last call.
    std::vector<std::size_t> taken() {
        return {drainMessages(*subscriber).size(), drainMessages(*service).size(), drainMessages(*backup).size()};
    }

    MessageDispatcher dispatcher;
    std::shared_ptr<MessageQueue> forwarder;
    std::shared_ptr<MessageQueue> subscriber = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageQueue> service = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageQueue> backup = std::make_shared<MessageQueue>();
    std::size_t notices = 0;
    MessageDispatcher::Counters start;
};

using Taken = std::vector<std::size_t>;

}  // namespace

TEST(MessageDispatcherScope, SubscribersScopeReachesTheSubscribersOnlyAndIsTrue) {
    Scoped s;
    ASSERT_EQ(s.notices, 2u);  // the backup's higher rank was registered silently
    // A destination a service covers, one that none covers: true either way.
    EXPECT_TRUE(s.dispatcher.postMessage(makeMessage(Request, {"c"}, {"svc"}), nullptr, PostScope::Subscribers));
    EXPECT_TRUE(s.dispatcher.postMessage(makeMessage(Request, {"c"}, {"nowhere"}), nullptr, PostScope::Subscribers));
    EXPECT_EQ(s.taken(), (Taken{2, 0, 0}));
    const auto now = s.dispatcher.counters();
    EXPECT_EQ(now.posts, s.start.posts + 2);
    EXPECT_EQ(now.serviceRefusals, 0u);
}

TEST(MessageDispatcherScope, ServicesScopeReachesOneServiceOnly) {
    Scoped s;
    EXPECT_TRUE(s.dispatcher.postMessage(makeMessage(Request, {"c"}, {"svc", "x"}), nullptr, PostScope::Services));
    EXPECT_EQ(s.taken(), (Taken{0, 1, 0}));
    // Without destination there is nothing to do: true, and nobody gets it.
    EXPECT_TRUE(s.dispatcher.postMessage(makeMessage(Request, {"c"}), nullptr, PostScope::Services));
    EXPECT_EQ(s.taken(), (Taken{0, 0, 0}));
    // A destination no service covers: false, as an ordinary post, counted.
    EXPECT_FALSE(s.dispatcher.postMessage(makeMessage(Request, {"c"}, {"nowhere"}), nullptr, PostScope::Services));
    EXPECT_EQ(s.taken(), (Taken{0, 0, 0}));
    const auto now = s.dispatcher.counters();
    EXPECT_EQ(now.posts, s.start.posts + 3);
    EXPECT_EQ(now.serviceRefusals, 1u);
}

TEST(MessageDispatcherScope, ServicesScopeFallsBackByRankAndReportsTheDrop) {
    Scoped s;
    // Ahead of the two others: it refuses everything.
    auto full = std::make_shared<MessageQueue_FixedDepth>(0u);
    ASSERT_TRUE(s.dispatcher.registerService(full, {"svc"}, Request, 0));
    CaptureStdout output;
    EXPECT_TRUE(s.dispatcher.postMessage(makeMessage(Request, {"c"}, {"svc"}), nullptr, PostScope::Services));
    EXPECT_EQ(s.taken(), (Taken{0, 1, 0}));
    const auto lines = output.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), Warning), 1);
    EXPECT_EQ(s.dispatcher.counters().drops, 1u);
    EXPECT_EQ(s.dispatcher.counters().serviceRefusals, 0u);
    EXPECT_EQ(full->refusedPuts(), 1u);
}

TEST(MessageDispatcherScope, SubscribersThenServicesOfOneMessageAreEachDeliveredOnce) {
    Scoped s;
    const auto message = makeMessage(Request, {"c"}, {"svc"});
    EXPECT_TRUE(s.dispatcher.postMessage(message, nullptr, PostScope::Subscribers));
    EXPECT_EQ(s.taken(), (Taken{1, 0, 0}));
    EXPECT_TRUE(s.dispatcher.postMessage(message, nullptr, PostScope::Services));
    EXPECT_EQ(s.taken(), (Taken{0, 1, 0}));

    // Every later post of it is a repeat, whatever its scope.
    EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr, PostScope::Subscribers));
    EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr, PostScope::Services));
    EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr, PostScope::Both));
    EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(s.taken(), (Taken{0, 0, 0}));
    const auto now = s.dispatcher.counters();
    EXPECT_EQ(now.posts, s.start.posts + 2);
    EXPECT_EQ(now.repeats, 4u);
}

TEST(MessageDispatcherScope, ServicesThenSubscribersOfOneMessageAreEachDeliveredOnce) {
    Scoped s;
    const auto message = makeMessage(Request, {"c"}, {"svc"});
    EXPECT_TRUE(s.dispatcher.postMessage(message, nullptr, PostScope::Services));
    EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr, PostScope::Services));
    EXPECT_TRUE(s.dispatcher.postMessage(message, nullptr, PostScope::Subscribers));
    EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr, PostScope::Subscribers));
    EXPECT_EQ(s.taken(), (Taken{1, 1, 0}));
}

TEST(MessageDispatcherScope, SecondSubscribersPostIsRefusedAndBothAfterEitherHalfToo) {
    Scoped s;
    const auto first = makeMessage(Request, {"c"}, {"svc"});
    EXPECT_TRUE(s.dispatcher.postMessage(first, nullptr, PostScope::Subscribers));
    EXPECT_FALSE(s.dispatcher.postMessage(first, nullptr, PostScope::Subscribers));
    EXPECT_FALSE(s.dispatcher.postMessage(first, nullptr, PostScope::Both));
    const auto second = makeMessage(Request, {"c"}, {"svc"});
    EXPECT_TRUE(s.dispatcher.postMessage(second, nullptr, PostScope::Services));
    EXPECT_FALSE(s.dispatcher.postMessage(second, nullptr));
    // The refused ordinary posts delivered nothing, and left the other half open.
    EXPECT_EQ(s.taken(), (Taken{1, 1, 0}));
    EXPECT_TRUE(s.dispatcher.postMessage(first, nullptr, PostScope::Services));
    EXPECT_TRUE(s.dispatcher.postMessage(second, nullptr, PostScope::Subscribers));
    EXPECT_EQ(s.taken(), (Taken{1, 1, 0}));
}

TEST(MessageDispatcherScope, EitherHalfAfterAnOrdinaryPostIsRefused) {
    Scoped s;
    const auto message = makeMessage(Request, {"c"}, {"svc"});
    EXPECT_TRUE(s.dispatcher.postMessage(message, nullptr, PostScope::Both));
    EXPECT_EQ(s.taken(), (Taken{1, 1, 0}));
    EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr, PostScope::Subscribers));
    EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr, PostScope::Services));
    EXPECT_EQ(s.taken(), (Taken{0, 0, 0}));
}

TEST(MessageDispatcherScope, BothIsAnOrdinaryPost) {
    // The same sequence posted plainly and with PostScope::Both: same
    // results, deliveries, counters and notifications.
    auto run = [](bool scoped) {
        Scoped s;
        const auto post = [&](const std::shared_ptr<const Message>& m) {
            return scoped ? s.dispatcher.postMessage(m, s.subscriber, PostScope::Both)
                          : s.dispatcher.postMessage(m, s.subscriber);
        };
        std::vector<bool> results;
        const auto message = makeMessage(Request, {"c"}, {"svc"});
        results.push_back(post(message));
        results.push_back(post(message));
        results.push_back(post(makeMessage(Request, {"c"}, {"nowhere"})));
        results.push_back(post(makeMessage(Request, {"c"})));
        results.push_back(post(nullptr));
        std::vector<std::size_t> seen = s.taken();
        const auto c = s.dispatcher.counters();
        seen.insert(seen.end(), {static_cast<std::size_t>(c.posts), static_cast<std::size_t>(c.repeats),
                                 static_cast<std::size_t>(c.emptyMessages),
                                 static_cast<std::size_t>(c.serviceRefusals), drainNotices(*s.forwarder).size()});
        return std::make_pair(results, seen);
    };
    const auto plain = run(false);
    EXPECT_EQ(plain.first, (std::vector<bool>{true, false, false, true, false}));
    // The subscriber is the sender: excluded. Posts: 3, and the 6 notifications
    // of the set-up (the forwarder's four subscriptions included).
    EXPECT_EQ(plain.second, (std::vector<std::size_t>{0, 1, 0, 9, 1, 1, 1, 0}));
    EXPECT_EQ(run(true), plain);
}

TEST(MessageDispatcherScope, ScopedPostNeverReachesTheOtherHalf) {
    // A queue that is only a service never gets the subscriber copy; one that
    // is only a subscriber never gets the service copy, even when it is a
    // service of a key that covers the message too.
    MessageDispatcher dispatcher;
    auto subscriber = std::make_shared<MessageQueue>();
    auto service = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(subscriber, {}, Request));
    ASSERT_TRUE(dispatcher.registerService(service, {}, Request, 1));
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"d", std::to_string(i)}), nullptr,
                                           PostScope::Subscribers));
    }
    EXPECT_EQ(service->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(subscriber->getAvailableMessagesCount(), 20u);
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"d", std::to_string(i)}), nullptr,
                                           PostScope::Services));
    }
    EXPECT_EQ(service->getAvailableMessagesCount(), 20u);
    EXPECT_EQ(subscriber->getAvailableMessagesCount(), 20u);
}

TEST(MessageDispatcherScope, QueueThatIsSubscriberAndServiceGetsOneCopyPerHalf) {
    // An ordinary post gives such a queue one copy (the halves share the
    // served set); posted as two halves it gets each half's copy.
    MessageDispatcher dispatcher;
    auto both = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(both, {}, Request));
    ASSERT_TRUE(dispatcher.registerService(both, {"svc"}, Request, 1));
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"svc"}), nullptr));
    EXPECT_EQ(drainMessages(*both).size(), 1u);
    const auto message = makeMessage(Request, {"c"}, {"svc"});
    ASSERT_TRUE(dispatcher.postMessage(message, nullptr, PostScope::Subscribers));
    ASSERT_TRUE(dispatcher.postMessage(message, nullptr, PostScope::Services));
    EXPECT_EQ(drainMessages(*both), (std::vector<std::shared_ptr<const Message>>{message, message}));
}

TEST(MessageDispatcherScope, SenderIsExcludedInEachHalf) {
    Scoped s;
    // The sender is the subscriber, then the first service: it counts as served.
    const auto message = makeMessage(Request, {"c"}, {"svc"});
    EXPECT_TRUE(s.dispatcher.postMessage(message, s.subscriber, PostScope::Subscribers));
    EXPECT_TRUE(s.dispatcher.postMessage(message, s.service, PostScope::Services));
    EXPECT_EQ(s.taken(), (Taken{0, 0, 0}));
}

TEST(MessageDispatcherScope, ScopedPostsPostNoNotificationsAndTableChangesStillDo) {
    Scoped s;
    ASSERT_TRUE(s.dispatcher.postMessage(makeMessage(Request, {"c"}, {"svc"}), nullptr, PostScope::Subscribers));
    ASSERT_TRUE(s.dispatcher.postMessage(makeMessage(Request, {"c"}, {"svc"}), nullptr, PostScope::Services));
    EXPECT_TRUE(drainNotices(*s.forwarder).empty());
    auto other = std::make_shared<MessageQueue>();
    ASSERT_TRUE(s.dispatcher.subscribe(other, {"x"}, Request));
    ASSERT_TRUE(s.dispatcher.unregisterService(s.backup, {"svc"}, Request));
    EXPECT_EQ(drainNotices(*s.forwarder),
              (std::vector<Notice>{notice(9, Request, {"x"}, {}, 0), notice(5, Request, {}, {"svc"}, 1),
                                   notice(6, Request, {}, {"svc"}, ~0UL)}));
}

TEST(MessageDispatcherScope, ValueThatIsNoScopeIsRefusedAndRecordsNothing) {
    Scoped s;
    const auto message = makeMessage(Request, {"c"}, {"svc"});
    for (unsigned int bits : {0u, 4u, 7u, 255u}) {
        EXPECT_FALSE(s.dispatcher.postMessage(message, nullptr, static_cast<PostScope>(bits))) << bits;
    }
    EXPECT_EQ(s.taken(), (Taken{0, 0, 0}));
    const auto now = s.dispatcher.counters();
    EXPECT_EQ(now.posts, s.start.posts);
    EXPECT_EQ(now.repeats, 0u);
    // Not recorded as handled: the ordinary post goes through.
    EXPECT_TRUE(s.dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(s.taken(), (Taken{1, 1, 0}));
}

TEST(MessageDispatcherScope, EmptyMessageIsRefusedAndCountedInEveryScope) {
    Scoped s;
    for (PostScope scope : {PostScope::Subscribers, PostScope::Services, PostScope::Both}) {
        EXPECT_FALSE(s.dispatcher.postMessage(nullptr, nullptr, scope));
    }
    EXPECT_EQ(s.dispatcher.counters().emptyMessages, 3u);
}

TEST(MessageDispatcherScope, LargeTablesRouteEachHalfAsSmallOnes) {
    // More than twelve keys on each side: the hashed lookup, with several covering entries.
    MessageDispatcher dispatcher;
    auto subscriber = std::make_shared<MessageQueue>();
    auto service = std::make_shared<MessageQueue>();
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(dispatcher.subscribe(std::make_shared<MessageQueue>(), {"other", std::to_string(i)}, Request));
        ASSERT_TRUE(dispatcher.registerService(std::make_shared<MessageQueue>(), {"other", std::to_string(i)}, Request, 1));
    }
    ASSERT_TRUE(dispatcher.subscribe(subscriber, {"plant"}, Request));
    ASSERT_TRUE(dispatcher.subscribe(subscriber, {"plant", "line"}, Request));
    ASSERT_TRUE(dispatcher.registerService(service, {"svc"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(service, {"svc", "a"}, Request, 1));
    const auto message = makeMessage(Request, {"plant", "line"}, {"svc", "a"});
    EXPECT_TRUE(dispatcher.postMessage(message, nullptr, PostScope::Subscribers));
    EXPECT_EQ(drainMessages(*subscriber).size(), 1u);
    EXPECT_EQ(service->getAvailableMessagesCount(), 0u);
    EXPECT_TRUE(dispatcher.postMessage(message, nullptr, PostScope::Services));
    EXPECT_EQ(drainMessages(*service).size(), 1u);
    EXPECT_EQ(subscriber->getAvailableMessagesCount(), 0u);
}
