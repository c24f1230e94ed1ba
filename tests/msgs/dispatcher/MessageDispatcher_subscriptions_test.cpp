// Subscriptions: the table they build, the notifications they announce, and
// the snapshot getSubscriptionsTable takes.

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <support/DispatcherTestSupport.h>
#include <support/QueuesTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

const Identifier Reading(0x0100, 1);
const Identifier Alarm(0x0100, 7);

using Table = MessageDispatcherInterface::SubscriptionsTable;

MessageKey subscriptionKey(const Identifier& id, const Address& sender) {
    return MessageKey(static_cast<unsigned long>(id), sender, {}, MessageKey::HashFunction());
}

Table snapshot(const MessageDispatcher& dispatcher) {
    Table table;
    dispatcher.getSubscriptionsTable(table);
    return table;
}

// Notices in a fixed order, for calls whose order follows the table's iteration order.
std::vector<Notice> sorted(std::vector<Notice> notices) {
    std::sort(notices.begin(), notices.end(), [](const Notice& a, const Notice& b) {
        if (a.type != b.type) return a.type < b.type;
        if (a.keyId != b.keyId) return a.keyId < b.keyId;
        return a.keySender < b.keySender;
    });
    return notices;
}

class MessageDispatcherSubscriptions : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(drainNotices(*forwarder).empty()); }

    MessageDispatcher dispatcher;
    std::shared_ptr<MessageQueue> forwarder = attachForwarder(dispatcher);
    std::shared_ptr<MessageQueue> queue = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageQueue> other = std::make_shared<MessageQueue>();
};

}  // namespace

TEST_F(MessageDispatcherSubscriptions, SubscribingSameQueueTwiceChangesNothingTheSecondTime) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant", "line2"}, Reading));
    EXPECT_EQ(drainNotices(*forwarder),
              std::vector<Notice>{notice(9, Reading, {"plant", "line2"}, {}, 0)});
    const Table before = snapshot(dispatcher);

    EXPECT_TRUE(dispatcher.subscribe(queue, {"plant", "line2"}, Reading));

    EXPECT_TRUE(drainNotices(*forwarder).empty());
    EXPECT_EQ(snapshot(dispatcher), before);
    EXPECT_EQ(before.at(subscriptionKey(Reading, {"plant", "line2"})), 1u);
    // Still one delivery per post, not two.
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line2", "press"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
}

TEST_F(MessageDispatcherSubscriptions, SubscribingEmptyQueueIsRefused) {
    EXPECT_FALSE(dispatcher.subscribe(nullptr, {"plant"}, Reading));
    EXPECT_TRUE(drainNotices(*forwarder).empty());
    EXPECT_EQ(snapshot(dispatcher).count(subscriptionKey(Reading, {"plant"})), 0u);
}

TEST_F(MessageDispatcherSubscriptions, TwoQueuesUnderOneKeyShareOneEntry) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(other, {"plant"}, Reading));

    const Table table = snapshot(dispatcher);
    EXPECT_EQ(table.at(subscriptionKey(Reading, {"plant"})), 2u);
    EXPECT_EQ(table.size(), 5u);  // the forwarder's four keys and this one
    EXPECT_EQ(drainNotices(*forwarder), (std::vector<Notice>{notice(9, Reading, {"plant"}, {}, 0),
                                                             notice(9, Reading, {"plant"}, {}, 0)}));
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "press"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(other->getAvailableMessagesCount(), 1u);
}

TEST_F(MessageDispatcherSubscriptions, SameQueueUnderTwoAddressesMakesTwoEntries) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant", "line1"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant", "line2"}, Reading));

    const Table table = snapshot(dispatcher);
    EXPECT_EQ(table.at(subscriptionKey(Reading, {"plant", "line1"})), 1u);
    EXPECT_EQ(table.at(subscriptionKey(Reading, {"plant", "line2"})), 1u);
    EXPECT_EQ(table.size(), 6u);
    EXPECT_EQ(drainNotices(*forwarder),
              (std::vector<Notice>{notice(9, Reading, {"plant", "line1"}, {}, 0),
                                   notice(9, Reading, {"plant", "line2"}, {}, 0)}));
}

TEST_F(MessageDispatcherSubscriptions, UnsubscribingFromKeyWithoutEntryIsTrueAndSilent) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    drainNotices(*forwarder);
    const Table before = snapshot(dispatcher);

    EXPECT_TRUE(dispatcher.unsubscribe(queue, {"plant", "line2"}, Reading));
    EXPECT_TRUE(dispatcher.unsubscribe(queue, {"plant"}, Alarm));
    EXPECT_TRUE(dispatcher.unsubscribe(nullptr, {"office"}, Reading));

    EXPECT_TRUE(drainNotices(*forwarder).empty());
    EXPECT_EQ(snapshot(dispatcher), before);
}

TEST_F(MessageDispatcherSubscriptions, UnsubscribingQueueNotInKeyIsTrueAndSilent) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    drainNotices(*forwarder);

    EXPECT_TRUE(dispatcher.unsubscribe(other, {"plant"}, Reading));

    EXPECT_TRUE(drainNotices(*forwarder).empty());
    EXPECT_EQ(snapshot(dispatcher).at(subscriptionKey(Reading, {"plant"})), 1u);
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
}

TEST_F(MessageDispatcherSubscriptions, UnsubscribingOneOfTwoQueuesKeepsTheKey) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(other, {"plant"}, Reading));
    drainNotices(*forwarder);

    EXPECT_TRUE(dispatcher.unsubscribe(queue, {"plant"}, Reading));

    EXPECT_EQ(drainNotices(*forwarder), std::vector<Notice>{notice(10, Reading, {"plant"}, {}, 0)});
    EXPECT_EQ(snapshot(dispatcher).at(subscriptionKey(Reading, {"plant"})), 1u);
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(other->getAvailableMessagesCount(), 1u);
}

TEST_F(MessageDispatcherSubscriptions, UnsubscribingLastQueueAnnouncesRemovalAndErasesKey) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant", "line2"}, Reading));
    drainNotices(*forwarder);
    const std::weak_ptr<MessageQueue> watched = queue;
    ASSERT_EQ(queue.use_count(), 2);

    EXPECT_TRUE(dispatcher.unsubscribe(queue, {"plant", "line2"}, Reading));

    EXPECT_EQ(drainNotices(*forwarder),
              std::vector<Notice>{notice(10, Reading, {"plant", "line2"}, {}, 0)});
    const Table table = snapshot(dispatcher);
    EXPECT_EQ(table.count(subscriptionKey(Reading, {"plant", "line2"})), 0u);
    EXPECT_EQ(table.size(), 4u);
    EXPECT_EQ(queue.use_count(), 1);  // the dispatcher let go of it
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line2"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TEST_F(MessageDispatcherSubscriptions, UnsubscribeFromAllAnnouncesEveryKeyItLeaves) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {"office", "desk"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {}, Alarm));
    ASSERT_TRUE(dispatcher.subscribe(other, {"plant"}, Reading));
    drainNotices(*forwarder);

    EXPECT_TRUE(dispatcher.unsubscribeFromAll(queue));

    EXPECT_EQ(sorted(drainNotices(*forwarder)),
              sorted({notice(10, Reading, {"plant"}, {}, 0), notice(10, Reading, {"office", "desk"}, {}, 0),
                      notice(10, Alarm, {}, {}, 0)}));
    const Table table = snapshot(dispatcher);
    EXPECT_EQ(table.count(subscriptionKey(Reading, {"office", "desk"})), 0u);
    EXPECT_EQ(table.count(subscriptionKey(Alarm, {})), 0u);
    EXPECT_EQ(table.at(subscriptionKey(Reading, {"plant"})), 1u);
    EXPECT_EQ(table.size(), 5u);
    EXPECT_EQ(queue.use_count(), 1);
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant"}), nullptr));
    ASSERT_TRUE(dispatcher.postMessage(makeMessage(Alarm, {"office", "desk"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(other->getAvailableMessagesCount(), 1u);
}

TEST_F(MessageDispatcherSubscriptions, UnsubscribeFromAllForQueueSubscribedNowhereIsSilent) {
    ASSERT_TRUE(dispatcher.subscribe(other, {"plant"}, Reading));
    drainNotices(*forwarder);
    const Table before = snapshot(dispatcher);

    EXPECT_TRUE(dispatcher.unsubscribeFromAll(queue));
    EXPECT_TRUE(dispatcher.unsubscribeFromAll(nullptr));

    EXPECT_TRUE(drainNotices(*forwarder).empty());
    EXPECT_EQ(snapshot(dispatcher), before);
}

TEST_F(MessageDispatcherSubscriptions, UnsubscribeFromAllLeavesServiceRegistrations) {
    const Identifier Request(0x0100, 2);
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.registerService(queue, {"plant"}, Request, 1));
    drainNotices(*forwarder);

    EXPECT_TRUE(dispatcher.unsubscribeFromAll(queue));

    EXPECT_EQ(drainNotices(*forwarder), std::vector<Notice>{notice(10, Reading, {"plant"}, {}, 0)});
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {}, {"plant"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
}

TEST_F(MessageDispatcherSubscriptions, NotificationSubscriberHearsOthersButNotItself) {
    auto listener = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(listener, {}, noticeId(9)));
    EXPECT_EQ(drainNotices(*forwarder), std::vector<Notice>{notice(9, noticeId(9), {}, {}, 0)});

    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(listener, {"office"}, Reading));

    EXPECT_EQ(drainNotices(*listener), std::vector<Notice>{notice(9, Reading, {"plant"}, {}, 0)});
    // The forwarder, another listener, heard both.
    EXPECT_EQ(drainNotices(*forwarder), (std::vector<Notice>{notice(9, Reading, {"plant"}, {}, 0),
                                                             notice(9, Reading, {"office"}, {}, 0)}));
}

TEST_F(MessageDispatcherSubscriptions, RemovalNoticeSkipsTheRemovedQueue) {
    auto listener = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(listener, {}, noticeId(10)));
    ASSERT_TRUE(dispatcher.subscribe(listener, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    drainNotices(*forwarder);

    ASSERT_TRUE(dispatcher.unsubscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.unsubscribe(listener, {"plant"}, Reading));

    EXPECT_EQ(drainNotices(*listener), std::vector<Notice>{notice(10, Reading, {"plant"}, {}, 0)});
    EXPECT_EQ(drainNotices(*forwarder), (std::vector<Notice>{notice(10, Reading, {"plant"}, {}, 0),
                                                             notice(10, Reading, {"plant"}, {}, 0)}));
}

TEST_F(MessageDispatcherSubscriptions, SubscriptionNoticesCarryRankZeroCountOneAndNoDestination) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {"a", "b", "c"}, Alarm));
    ASSERT_TRUE(dispatcher.subscribe(other, {"", "x"}, Identifier(0xFFFF, 0xFFFF)));
    ASSERT_TRUE(dispatcher.unsubscribe(queue, {"a", "b", "c"}, Alarm));
    ASSERT_TRUE(dispatcher.unsubscribeFromAll(other));

    const std::vector<Notice> notices = drainNotices(*forwarder);
    EXPECT_EQ(notices, (std::vector<Notice>{notice(9, Reading, {}, {}, 0),
                                            notice(9, Alarm, {"a", "b", "c"}, {}, 0),
                                            notice(9, Identifier(0xFFFF, 0xFFFF), {"", "x"}, {}, 0),
                                            notice(10, Alarm, {"a", "b", "c"}, {}, 0),
                                            notice(10, Identifier(0xFFFF, 0xFFFF), {"", "x"}, {}, 0)}));
    for (const Notice& n : notices) {
        EXPECT_EQ(n.rank, 0u);
        EXPECT_EQ(n.count, 1u);
        EXPECT_TRUE(n.keyDestination.empty());
    }
}

TEST_F(MessageDispatcherSubscriptions, ResubscribingPostsNoNotification) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(other, {"plant"}, Reading));
    ASSERT_EQ(drainNotices(*forwarder).size(), 2u);

    EXPECT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    EXPECT_TRUE(dispatcher.subscribe(other, {"plant"}, Reading));
    // The forwarder's own subscriptions, repeated, announce nothing either.
    EXPECT_TRUE(dispatcher.subscribe(forwarder, {}, noticeId(9)));

    EXPECT_TRUE(drainNotices(*forwarder).empty());
    // A queue subscribed again after leaving is announced again.
    ASSERT_TRUE(dispatcher.unsubscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    EXPECT_EQ(drainNotices(*forwarder), (std::vector<Notice>{notice(10, Reading, {"plant"}, {}, 0),
                                                             notice(9, Reading, {"plant"}, {}, 0)}));
}

// ---- getSubscriptionsTable -------------------------------------------------

TEST(MessageDispatcherSubscriptionsTable, CountsDistinctQueuesPerKey) {
    MessageDispatcher dispatcher;
    auto a = std::make_shared<MessageQueue>();
    auto b = std::make_shared<MessageQueue>();
    auto c = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(a, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(b, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(a, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(c, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(a, {"plant", "line2"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(b, {"plant"}, Alarm));

    Table out;
    EXPECT_EQ(dispatcher.getSubscriptionsTable(out), 3u);

    EXPECT_EQ(out, (Table{{subscriptionKey(Reading, {"plant"}), 3u},
                          {subscriptionKey(Reading, {"plant", "line2"}), 1u},
                          {subscriptionKey(Alarm, {"plant"}), 1u}}));
}

TEST(MessageDispatcherSubscriptionsTable, KeepsCountOfKeyAlreadyInOutput) {
    MessageDispatcher dispatcher;
    auto a = std::make_shared<MessageQueue>();
    auto b = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(a, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(b, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(a, {"office"}, Reading));

    Table out{{subscriptionKey(Reading, {"plant"}), 99u}};
    EXPECT_EQ(dispatcher.getSubscriptionsTable(out), 2u);

    EXPECT_EQ(out.at(subscriptionKey(Reading, {"plant"})), 99u);
    EXPECT_EQ(out.at(subscriptionKey(Reading, {"office"})), 1u);
}

TEST(MessageDispatcherSubscriptionsTable, ResultCountsEntriesAlreadyInOutput) {
    MessageDispatcher dispatcher;
    auto a = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(a, {"plant"}, Reading));

    Table out{{subscriptionKey(Alarm, {"elsewhere"}), 7u}, {subscriptionKey(Alarm, {}), 0u}};
    const std::size_t result = dispatcher.getSubscriptionsTable(out);

    EXPECT_EQ(result, 3u);
    EXPECT_EQ(result, out.size());
    EXPECT_EQ(out.at(subscriptionKey(Alarm, {"elsewhere"})), 7u);
    EXPECT_EQ(out.at(subscriptionKey(Reading, {"plant"})), 1u);
    // Asking again adds nothing new.
    EXPECT_EQ(dispatcher.getSubscriptionsTable(out), 3u);
}

TEST(MessageDispatcherSubscriptionsTable, EmptyDispatcherAddsNothing) {
    MessageDispatcher dispatcher;
    Table out;
    EXPECT_EQ(dispatcher.getSubscriptionsTable(out), 0u);
    EXPECT_TRUE(out.empty());
}

TEST(MessageDispatcherSubscriptionsTable, SnapshotHoldsNoQueueReference) {
    MessageDispatcher dispatcher;
    auto a = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(a, {"plant"}, Reading));
    Table out;
    dispatcher.getSubscriptionsTable(out);
    ASSERT_TRUE(dispatcher.unsubscribe(a, {"plant"}, Reading));
    EXPECT_EQ(a.use_count(), 1);
    EXPECT_EQ(out.at(subscriptionKey(Reading, {"plant"})), 1u);
}

TEST_F(MessageDispatcherSubscriptions, StoredKeysCarryAHasherWithSenderObject) {
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant", "line2"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(other, {}, Alarm));
    const Table table = snapshot(dispatcher);
    ASSERT_FALSE(table.empty());
    for (const auto& entry : table) {
        // The hasher class itself, not a function wrapping it.
        EXPECT_NE(entry.first.hashFunction().target<MessageKey::HasherWithSender>(), nullptr)
            << "stored function of type " << entry.first.hashFunction().target_type().name();
        EXPECT_EQ(entry.first.hashFunction()(entry.first), MessageKey::HasherWithSender()(entry.first));
    }
}

TEST_F(MessageDispatcherSubscriptions, CallbackThrowingOnTheNotificationLeavesTheNewSubscriptionInPlace) {
    auto watcher = std::make_shared<MessageCallback>(
        [](const std::shared_ptr<const Message>&) { throw std::runtime_error("the watcher fails"); });
    // The watcher's own subscription is not announced to itself.
    ASSERT_TRUE(dispatcher.subscribe(watcher, {}, noticeId(9)));

    EXPECT_THROW(dispatcher.subscribe(queue, {"plant", "line2"}, Reading), std::runtime_error);

    // The change was made before it was announced, and stays; the lock is free.
    auto table = std::make_shared<Table>();
    const MessageDispatcher* shared = &dispatcher;
    ASSERT_TRUE(finishesWithin(std::chrono::seconds(5), [shared, table] { shared->getSubscriptionsTable(*table); }))
        << "the dispatcher's lock is still held";
    ASSERT_EQ(table->count(subscriptionKey(Reading, {"plant", "line2"})), 1u);
    EXPECT_EQ(table->at(subscriptionKey(Reading, {"plant", "line2"})), 1u);
    // The queue is subscribed: a message reaches it.
    const auto message = makeMessage(Reading, {"plant", "line2", "press"});
    EXPECT_TRUE(dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(drainMessages(*queue), std::vector<std::shared_ptr<const Message>>{message});
}
