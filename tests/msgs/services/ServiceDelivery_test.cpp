// The destination side of MessageDispatcher::postMessage: which service
// queue of each covering entry receives a request, how refusals fall back to
// the next rank, and what the post returns.

#include "ServiceFixture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace ServiceTest;

class ServiceDelivery : public DispatcherWithForwarder {
protected:
    // A fixed-depth queue that already holds its one message: it refuses the next.
    static std::shared_ptr<MessageQueue_FixedDepth> makeFullQueue() {
        auto queue = std::make_shared<MessageQueue_FixedDepth>(1u);
        EXPECT_TRUE(queue->putMessage(KestTest::makeMessage(kStop)));
        EXPECT_FALSE(queue->putMessage(KestTest::makeMessage(kStop)));
        return queue;
    }

    std::shared_ptr<const Message> request(const Address& destination) {
        return KestTest::makeMessage(kPrint, {"client"}, destination);
    }
};

const Address kPress = {"plant", "line2", "press"};
const Address kLine2 = {"plant", "line2"};
const Address kLine1 = {"plant", "line1"};
const Address kPlant = {"plant"};

const std::string kWarning = "PLOX!!!! Warning ---- dropping msg";

// ---- Rank order ---------------------------------------------------------

TEST_F(ServiceDelivery, LowestRankQueueReceivesRequest) {
    auto nine = makeQueue();
    auto three = makeQueue();
    auto six = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(nine, kPress, kPrint, 9));
    ASSERT_TRUE(dispatcher->registerService(three, kPress, kPrint, 3));
    ASSERT_TRUE(dispatcher->registerService(six, kPress, kPrint, 6));

    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*three, message));
    EXPECT_EQ(nine->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(six->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, EqualRanksAreTriedInRegistrationOrder) {
    auto a = makeQueue();
    auto b = makeQueue();
    auto c = makeQueue();
    // Registered b, then a, then c, all with rank 4.
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 4));
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    ASSERT_TRUE(dispatcher->registerService(c, kPress, kPrint, 4));

    auto first = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(first, nullptr));
    EXPECT_TRUE(holdsOnly(*b, first));
    EXPECT_EQ(a->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(c->getAvailableMessagesCount(), 0u);

    ASSERT_TRUE(dispatcher->unregisterService(b, kPress, kPrint));
    auto second = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(second, nullptr));
    EXPECT_TRUE(holdsOnly(*a, second));
    EXPECT_EQ(c->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, RefusingQueueOfEqualRankFallsBackToNextRegistered) {
    auto full = makeFullQueue();
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(full, kPress, kPrint, 4));
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 4));

    KestTest::CaptureStdout capture;
    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*a, message));
    EXPECT_EQ(b->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(full->getAvailableMessagesCount(), 1u);
    ASSERT_EQ(capture.lines().size(), 2u);
    EXPECT_EQ(capture.lines()[0], kWarning);
}

TEST_F(ServiceDelivery, FullRankTwoQueueFallsBackToRankFiveAndPrintsWarningAndTrace) {
    auto five = makeQueue();
    auto two = makeFullQueue();
    ASSERT_TRUE(dispatcher->registerService(five, kLine2, kPrint, 5));
    ASSERT_TRUE(dispatcher->registerService(two, kLine2, kPrint, 2));

    auto message = KestTest::makeMessage(kPrint, {"nodeA"}, kLine2);
    KestTest::CaptureStdout capture;
    const bool posted = dispatcher->postMessage(message, nullptr);
    const std::vector<std::string> lines = capture.lines();

    EXPECT_TRUE(posted);
    EXPECT_TRUE(holdsOnly(*five, message));
    EXPECT_EQ(two->getAvailableMessagesCount(), 1u);  // only what filled it
    const std::vector<std::string> expected = {
        "PLOX!!!! Warning ---- dropping msg",
        "PLOX message is - : sender = [nodeA], dest = [plant][line2], cat = 3, id = 17",
    };
    ASSERT_EQ(lines.size(), expected.size()) << capture.text();
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(lines[i], expected[i]) << "line " << i;
    }
}

TEST_F(ServiceDelivery, RankTwoQueueThatAcceptsLeavesRankFiveUntried) {
    auto five = makeQueue();
    auto two = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(five, kLine2, kPrint, 5));
    ASSERT_TRUE(dispatcher->registerService(two, kLine2, kPrint, 2));

    KestTest::CaptureStdout capture;
    auto message = KestTest::makeMessage(kPrint, {"nodeA"}, kLine2);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*two, message));
    EXPECT_EQ(five->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ServiceDelivery, EntryWhoseQueuesAllRefuseMakesPostFalseWithOneWarningPerRefusal) {
    auto first = makeFullQueue();
    auto second = makeFullQueue();
    ASSERT_TRUE(dispatcher->registerService(first, kPress, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(second, kPress, kPrint, 2));

    KestTest::CaptureStdout capture;
    EXPECT_FALSE(dispatcher->postMessage(KestTest::makeMessage(kPrint, {}, kPress), nullptr));
    const std::string trace = "PLOX message is - : sender = , dest = [plant][line2][press], cat = 3, id = 17";
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{kWarning, trace, kWarning, trace}));
}

TEST_F(ServiceDelivery, EmptyServicePointerCountsAsRefusal) {
    auto real = makeQueue();
    auto client = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(nullptr, kPress, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(real, kPress, kPrint, 2));

    KestTest::CaptureStdout capture;
    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, client));
    EXPECT_TRUE(holdsOnly(*real, message));
    ASSERT_EQ(capture.lines().size(), 2u);
    EXPECT_EQ(capture.lines()[0], kWarning);
}

TEST_F(ServiceDelivery, EmptyServicePointerFirstCountsAsServedWhenPostedWithoutSender) {
    // The served set starts with the sender, an empty pointer here, so the
    // empty entry of the service is already served.
    auto real = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(nullptr, kPress, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(real, kPress, kPrint, 2));

    KestTest::CaptureStdout capture;
    EXPECT_TRUE(dispatcher->postMessage(request(kPress), nullptr));
    EXPECT_EQ(real->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(capture.text(), "");
}

// ---- One queue per covering entry ---------------------------------------

TEST_F(ServiceDelivery, EachCoveringEntryDeliversToOneQueue) {
    auto plantFirst = makeQueue();
    auto plantSecond = makeQueue();
    auto line2First = makeQueue();
    auto line2Second = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(plantFirst, kPlant, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(plantSecond, kPlant, kPrint, 2));
    ASSERT_TRUE(dispatcher->registerService(line2Second, kLine2, kPrint, 8));
    ASSERT_TRUE(dispatcher->registerService(line2First, kLine2, kPrint, 7));

    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*plantFirst, message));
    EXPECT_TRUE(holdsOnly(*line2First, message));
    EXPECT_EQ(plantSecond->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(line2Second->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, QueueFirstUnderTwoCoveringEntriesReceivesOnce) {
    auto shared = makeQueue();
    auto backup = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(shared, kPlant, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(shared, kLine2, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(backup, kLine2, kPrint, 2));

    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*shared, message));
    // The second entry counts `shared` as served and tries no further queue.
    EXPECT_EQ(backup->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, RefusingQueueUnderTwoCoveringEntriesIsTriedAndReportedTwice) {
    auto full = makeFullQueue();
    auto plantBackup = makeQueue();
    auto line2Backup = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(full, kPlant, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(plantBackup, kPlant, kPrint, 2));
    ASSERT_TRUE(dispatcher->registerService(full, kLine2, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(line2Backup, kLine2, kPrint, 2));

    KestTest::CaptureStdout capture;
    auto message = KestTest::makeMessage(kPrint, {"nodeA"}, kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*plantBackup, message));
    EXPECT_TRUE(holdsOnly(*line2Backup, message));
    const std::string trace =
        "PLOX message is - : sender = [nodeA], dest = [plant][line2][press], cat = 3, id = 17";
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{kWarning, trace, kWarning, trace}));
}

// ---- Served set shared with subscribers and the sender ------------------

TEST_F(ServiceDelivery, SubscriberThatIsFirstServiceReceivesOnceAndCountsAsServed) {
    auto both = makeQueue();
    auto backup = makeQueue();
    ASSERT_TRUE(dispatcher->subscribe(both, {"client"}, kPrint));
    ASSERT_TRUE(dispatcher->registerService(both, kPress, kPrint, 2));
    ASSERT_TRUE(dispatcher->registerService(backup, kPress, kPrint, 5));

    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*both, message));
    EXPECT_EQ(backup->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, SubscriberThatIsLaterServiceDoesNotReplaceLowerRank) {
    auto first = makeQueue();
    auto subscriber = makeQueue();
    ASSERT_TRUE(dispatcher->subscribe(subscriber, {}, kPrint));
    ASSERT_TRUE(dispatcher->registerService(first, kPress, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(subscriber, kPress, kPrint, 5));

    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*first, message));
    EXPECT_TRUE(holdsOnly(*subscriber, message));  // once, as a subscriber
}

TEST_F(ServiceDelivery, SenderThatIsFirstServiceCountsAsServed) {
    auto sender = makeQueue();
    auto backup = makeQueue();
    auto listener = makeQueue();
    // The sender also subscribed to what it posts.
    ASSERT_TRUE(dispatcher->subscribe(sender, {}, kPrint));
    ASSERT_TRUE(dispatcher->subscribe(listener, {}, kPrint));
    ASSERT_TRUE(dispatcher->registerService(sender, kPress, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(backup, kPress, kPrint, 2));

    KestTest::CaptureStdout capture;
    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, sender));
    EXPECT_EQ(sender->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(backup->getAvailableMessagesCount(), 0u);
    EXPECT_TRUE(holdsOnly(*listener, message));
    EXPECT_EQ(capture.text(), "");
}

TEST_F(ServiceDelivery, SenderThatIsLaterServiceLeavesLowerRankServed) {
    auto first = makeQueue();
    auto sender = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(first, kPress, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(sender, kPress, kPrint, 2));

    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, sender));
    EXPECT_TRUE(holdsOnly(*first, message));
    EXPECT_EQ(sender->getAvailableMessagesCount(), 0u);
}

// ---- Results ------------------------------------------------------------

TEST_F(ServiceDelivery, NoCoveringEntryMakesPostFalseButSubscribersAreServed) {
    auto subscriber = makeQueue();
    auto elsewhere = makeQueue();
    ASSERT_TRUE(dispatcher->subscribe(subscriber, {"client"}, kPrint));
    ASSERT_TRUE(dispatcher->registerService(elsewhere, kLine1, kPrint, 1));

    auto message = request(kPress);
    EXPECT_FALSE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*subscriber, message));
    EXPECT_EQ(elsewhere->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, NoServiceAtAllMakesAddressedPostFalse) {
    auto subscriber = makeQueue();
    ASSERT_TRUE(dispatcher->subscribe(subscriber, {}, kPrint));
    auto message = request(kPress);
    EXPECT_FALSE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*subscriber, message));
}

TEST_F(ServiceDelivery, EntryWithoutAcceptingQueueMakesPostFalseWhileOtherEntriesAreServed) {
    // Two covering entries, built alike in two dispatchers (so they come in
    // the same order), with the refusing queue under the one and then the
    // other: the result is false whichever entry is looked at last.
    for (const bool plantRefuses : {true, false}) {
        SCOPED_TRACE(plantRefuses ? "the entry at {plant} refuses" : "the entry at {plant, line2} refuses");
        auto local = std::make_shared<MessageDispatcher>();
        auto full = makeFullQueue();
        auto accepting = makeQueue();
        auto subscriber = makeQueue();
        ASSERT_TRUE(local->subscribe(subscriber, {}, kPrint));
        ASSERT_TRUE(local->registerService(plantRefuses ? full : accepting, kPlant, kPrint, 1));
        ASSERT_TRUE(local->registerService(plantRefuses ? accepting : full, kLine2, kPrint, 1));

        KestTest::CaptureStdout capture;
        auto message = request(kPress);
        EXPECT_FALSE(local->postMessage(message, nullptr));
        EXPECT_TRUE(holdsOnly(*accepting, message));
        EXPECT_TRUE(holdsOnly(*subscriber, message));
        ASSERT_EQ(capture.lines().size(), 2u);
        EXPECT_EQ(capture.lines()[0], kWarning);
    }
}

TEST_F(ServiceDelivery, RepeatedRequestReachesNoServiceAndReturnsFalse) {
    auto service = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(service, kPress, kPrint, 1));
    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_FALSE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*service, message));
}

// ---- Hierarchical destinations ------------------------------------------

TEST_F(ServiceDelivery, ServiceAtPrefixCoversDeeperDestination) {
    auto plant = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(plant, kPlant, kPrint, 1));
    auto message = request(kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*plant, message));
}

TEST_F(ServiceDelivery, ServiceAtSiblingPathDoesNotCoverDestination) {
    auto line1 = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(line1, kLine1, kPrint, 1));
    EXPECT_FALSE(dispatcher->postMessage(request(kPress), nullptr));
    EXPECT_EQ(line1->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, ServiceAtDeeperPathDoesNotCoverShorterDestination) {
    auto press = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(press, kPress, kPrint, 1));
    EXPECT_FALSE(dispatcher->postMessage(request(kLine2), nullptr));
    EXPECT_FALSE(dispatcher->postMessage(request(kPlant), nullptr));
    EXPECT_EQ(press->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, ServiceOfAnotherIdentifierDoesNotCoverRequest) {
    auto stop = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(stop, kPlant, kStop, 1));
    EXPECT_FALSE(dispatcher->postMessage(request(kPress), nullptr));
    EXPECT_EQ(stop->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, ServiceAtEmptyDestinationCoversEveryDestination) {
    auto everywhere = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(everywhere, {}, kPrint, 1));
    for (const Address& destination : {kPress, kLine1, kPlant, Address{"other"}}) {
        auto message = request(destination);
        EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
        EXPECT_TRUE(holdsOnly(*everywhere, message)) << ::testing::PrintToString(destination);
    }
}

TEST_F(ServiceDelivery, SetButEmptyDestinationReachesOnlyServiceAtEmptyDestination) {
    auto plant = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(plant, kPlant, kPrint, 1));
    EXPECT_FALSE(dispatcher->postMessage(request({}), nullptr));
    EXPECT_EQ(plant->getAvailableMessagesCount(), 0u);

    auto root = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(root, {}, kPrint, 1));
    auto message = request({});
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*root, message));
    EXPECT_EQ(plant->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, MessageWithoutDestinationNeverReachesServices) {
    auto root = makeQueue();
    auto client = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(root, {}, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(client, {"client"}, kPrint, 1));
    // Sender set, destination unset; and neither set.
    EXPECT_TRUE(dispatcher->postMessage(KestTest::makeMessage(kPrint, {"client"}), nullptr));
    EXPECT_TRUE(dispatcher->postMessage(KestTest::makeMessage(kPrint), nullptr));
    EXPECT_EQ(root->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(client->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceDelivery, NoticesReachServiceRegisteredForThemAtEmptyDestination) {
    // Notices carry a set, empty destination: a service for them at the
    // empty destination receives those that other queues cause.
    auto mirror = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(mirror, {}, kRankNoticeId, 1));
    auto a = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    ASSERT_EQ(mirror->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(KestTest::drainNotices(*mirror), (std::vector<Notice>{rankNotice(kPrint, kPress, 4)}));
    // The forwarder, a subscriber, got both notices about the mirror too.
    EXPECT_EQ(notices(),
              (std::vector<Notice>{rankNotice(kRankNoticeId, {}, 1), rankNotice(kPrint, kPress, 4)}));
}

}  // namespace
