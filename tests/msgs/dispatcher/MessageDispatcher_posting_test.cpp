// Posting: which queues a message reaches, what postMessage returns, the
// dropped-message warning, and the history of handled messages.

#include <kest/metadata/Element.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/DispatcherTestSupport.h>
#include <support/QueuesTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

const Identifier Reading(0x0100, 1);
const Identifier Request(0x0100, 2);

const std::string Warning = "PLOX!!!! Warning ---- dropping msg";

// A fixed-depth queue of depth 1 that already holds one message, so it refuses the next.
std::shared_ptr<MessageQueue_FixedDepth> fullQueue() {
    auto queue = std::make_shared<MessageQueue_FixedDepth>(1u);
    EXPECT_TRUE(queue->putMessage(makeMessage(Identifier(0x7777, 1))));
    return queue;
}

}  // namespace

TEST(MessageDispatcherPosting, EmptyMessageIsRefused) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(queue, {}, Reading));
    EXPECT_FALSE(dispatcher.postMessage(nullptr, nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherPosting, MessageWithoutIdentityThrowsAndDeliversNothing) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(queue, {}, Reading));
    auto anonymous = std::make_shared<Message>(Reading, Address{"plant"});
    anonymous->identity.uninit();

    try {
        dispatcher.postMessage(anonymous, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const Kest::MetaData::MetaDataException& error) {
        EXPECT_NE(std::string(error.what()).find("Kest::MetaData::Reflector::operator()()"), std::string::npos)
            << error.what();
    }

    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
    // The dispatcher's lock was released on the way out.
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherPosting, SecondPostOfSameMessageIsRefusedAndReachesNobody) {
    MessageDispatcher dispatcher;
    auto subscriber = std::make_shared<MessageQueue>();
    auto service = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(subscriber, {"plant"}, Request));
    ASSERT_TRUE(dispatcher.registerService(service, {"press"}, Request, 1));
    auto message = makeMessage(Request, {"plant"}, {"press"});

    ASSERT_TRUE(dispatcher.postMessage(message, nullptr));
    ASSERT_EQ(subscriber->getAvailableMessagesCount(), 1u);
    ASSERT_EQ(service->getAvailableMessagesCount(), 1u);

    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));
    EXPECT_FALSE(dispatcher.postMessage(message, subscriber));
    EXPECT_EQ(subscriber->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(service->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherPosting, MessageThatReachedNobodyCountsAsHandled) {
    MessageDispatcher dispatcher;
    auto message = makeMessage(Request, {"plant"}, {"press"});
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));  // no service covers it

    auto service = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(service, {"press"}, Request, 1));
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(service->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherPosting, MessageWithoutDestinationSucceedsWithoutSubscribers) {
    MessageDispatcher dispatcher;
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading), nullptr));
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line2"}), nullptr));

    // A service for the identifier plays no part without a destination.
    auto service = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(service, {}, Reading, 1));
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant"}), nullptr));
    EXPECT_EQ(service->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherPosting, DestinationWithoutCoveringServiceFailsButSubscribersReceive) {
    MessageDispatcher dispatcher;
    auto subscriber = std::make_shared<MessageQueue>();
    auto elsewhere = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(subscriber, {"plant"}, Request));
    ASSERT_TRUE(dispatcher.registerService(elsewhere, {"office"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(elsewhere, {"press", "left"}, Request, 1));

    auto message = makeMessage(Request, {"plant", "line2"}, {"press"});
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));

    auto received = drainMessages(*subscriber);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received.front(), message);  // shared, not copied
    EXPECT_EQ(elsewhere->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherPosting, EmptyDestinationIsCoveredOnlyByServiceWithEmptyAddress) {
    MessageDispatcher dispatcher;
    auto message = makeMessage(Request, {"plant"}, {});
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));

    auto anywhere = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(anywhere, {}, Request, 1));
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"plant"}, {}), nullptr));
    EXPECT_EQ(anywhere->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherPosting, SenderDoesNotReceiveItsOwnMessage) {
    MessageDispatcher dispatcher;
    auto sender = std::make_shared<MessageQueue>();
    auto other = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(sender, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(sender, {}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(other, {"plant"}, Reading));

    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "press"}), sender));

    EXPECT_EQ(sender->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(other->getAvailableMessagesCount(), 1u);
    // Posted by someone else, the same subscriptions deliver it to the sender queue.
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "press"}), other));
    EXPECT_EQ(sender->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(other->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherPosting, SenderAsFirstServiceCountsAsServed) {
    MessageDispatcher dispatcher;
    auto sender = std::make_shared<MessageQueue>();
    auto fallback = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(sender, {"press"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(fallback, {"press"}, Request, 4));

    CaptureStdout capture;
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"plant"}, {"press", "left"}), sender));

    EXPECT_EQ(sender->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(fallback->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(capture.text(), "");
    // From another poster, the rank-1 service takes it.
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"plant"}, {"press"}), nullptr));
    EXPECT_EQ(sender->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(fallback->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherPosting, SubscriberThatIsAlsoFirstServiceGetsMessageOnce) {
    MessageDispatcher dispatcher;
    auto both = std::make_shared<MessageQueue>();
    auto fallback = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(both, {"plant"}, Request));
    ASSERT_TRUE(dispatcher.registerService(both, {"press"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(fallback, {"press"}, Request, 2));

    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"plant"}, {"press"}), nullptr));

    EXPECT_EQ(both->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(fallback->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherPosting, LowerRankServiceReceivesMessage) {
    MessageDispatcher dispatcher;
    auto rank5 = std::make_shared<MessageQueue>();
    auto rank2 = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(rank5, {"press"}, Request, 5));
    ASSERT_TRUE(dispatcher.registerService(rank2, {"press"}, Request, 2));

    CaptureStdout capture;
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"plant"}, {"press"}), nullptr));

    EXPECT_EQ(rank2->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(rank5->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(capture.text(), "");
}

TEST(MessageDispatcherPosting, RefusingLowerRankServiceIsReportedAndNextRankReceives) {
    MessageDispatcher dispatcher;
    auto rank5 = std::make_shared<MessageQueue>();
    auto rank2 = fullQueue();
    ASSERT_TRUE(dispatcher.registerService(rank5, {"press"}, Request, 5));
    ASSERT_TRUE(dispatcher.registerService(rank2, {"press"}, Request, 2));

    CaptureStdout capture;
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"plant", "line2"}, {"press", "left"}), nullptr));

    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  Warning, "PLOX message is - : sender = [plant][line2], dest = [press][left], cat = 256, id = 2"}));
    EXPECT_EQ(rank2->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(rank5->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherPosting, ServiceEntryRefusedByAllItsQueuesFailsThePost) {
    MessageDispatcher dispatcher;
    auto full = fullQueue();
    auto deeper = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(full, {"press"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(deeper, {"press", "left"}, Request, 1));

    CaptureStdout capture;
    EXPECT_FALSE(dispatcher.postMessage(makeMessage(Request, {"x"}, {"press", "left", "valve"}), nullptr));

    // The other covering entry was still served.
    EXPECT_EQ(deeper->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  Warning, "PLOX message is - : sender = [x], dest = [press][left][valve], cat = 256, id = 2"}));
}

TEST(MessageDispatcherPosting, FullSubscriberPrintsWarningAndTrace) {
    MessageDispatcher dispatcher;
    auto shallow = std::make_shared<MessageQueue_FixedDepth>(1u);
    auto deep = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(shallow, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(deep, {"plant"}, Reading));

    CaptureStdout capture;
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line2"}), nullptr));
    EXPECT_EQ(capture.text(), "");
    // Refused by the full queue, still a success: it has no destination.
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line3"}), nullptr));

    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  Warning, "PLOX message is - : sender = [plant][line3], dest = <None>, cat = 256, id = 1"}));
    EXPECT_EQ(shallow->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(deep->getAvailableMessagesCount(), 2u);
}

TEST(MessageDispatcherPosting, ClosedSubscriberIsReportedAsADropLikeAFullQueue) {
    MessageDispatcher dispatcher;
    auto closed = std::make_shared<MessageQueue>();
    auto open = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(closed, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(open, {"plant"}, Reading));
    closed->close();

    CaptureStdout capture;
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line3"}), nullptr));

    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  Warning, "PLOX message is - : sender = [plant][line3], dest = <None>, cat = 256, id = 1"}));
    EXPECT_EQ(open->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(closed->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(closed->refusedPuts(), 1u);
    EXPECT_EQ(dispatcher.counters().drops, 1u);
}

TEST(MessageDispatcherPosting, ClosedServiceFallsBackToTheNextRankAndAloneFailsThePost) {
    MessageDispatcher dispatcher;
    auto closed = std::make_shared<MessageQueue_FixedDepth>(10u);
    auto next = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(closed, {"press"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(next, {"press"}, Request, 2));
    ASSERT_TRUE(dispatcher.registerService(closed, {"alone"}, Request, 1));
    closed->close();

    CaptureStdout capture;
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"press"}), nullptr));
    EXPECT_EQ(next->getAvailableMessagesCount(), 1u);
    EXPECT_FALSE(dispatcher.postMessage(makeMessage(Request, {"c"}, {"alone"}), nullptr));

    const auto lines = capture.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), Warning), 2);
    EXPECT_EQ(closed->refusedPuts(), 2u);
    EXPECT_EQ(dispatcher.counters().drops, 2u);
    EXPECT_EQ(dispatcher.counters().serviceRefusals, 1u);
}

TEST(MessageDispatcherPosting, RefusingQueueIsTriedAgainUnderEachCoveringKey) {
    MessageDispatcher dispatcher;
    auto full = fullQueue();
    ASSERT_TRUE(dispatcher.subscribe(full, {}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(full, {"plant"}, Reading));

    CaptureStdout capture;
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant"}), nullptr));

    const std::string trace = "PLOX message is - : sender = [plant], dest = <None>, cat = 256, id = 1";
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{Warning, trace, Warning, trace}));
}

TEST(MessageDispatcherPosting, QueueSubscribedUnderTwoCoveringKeysReceivesOnce) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(queue, {}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant", "line2"}, Reading));
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant", "line3"}, Reading));  // does not cover

    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line2", "press"}), nullptr));

    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherPosting, QueueUnderTwoCoveringServiceEntriesReceivesOnce) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    auto other = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.registerService(queue, {"press"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(queue, {"press", "left"}, Request, 1));
    ASSERT_TRUE(dispatcher.registerService(other, {"press", "left"}, Request, 2));

    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {}, {"press", "left"}), nullptr));

    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(other->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherPosting, SubscriptionMatchesByIdentifierAndSenderPrefix) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(queue, {"plant", "line2"}, Reading));

    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant"}), nullptr));
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, {"plant", "line1", "press"}), nullptr));
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading), nullptr));
    EXPECT_TRUE(dispatcher.postMessage(makeMessage(Request, {"plant", "line2"}), nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);

    auto exact = makeMessage(Reading, {"plant", "line2"});
    auto below = makeMessage(Reading, {"plant", "line2", "press"}, {"anywhere"});
    EXPECT_TRUE(dispatcher.postMessage(exact, nullptr));
    EXPECT_FALSE(dispatcher.postMessage(below, nullptr));  // no service for its destination
    EXPECT_EQ(drainMessages(*queue), (std::vector<std::shared_ptr<const Message>>{exact, below}));
}

// ---- History of handled messages ------------------------------------------

TEST(MessageDispatcherHistory, MessageIsAcceptedAgainAfterTenThousandOthers) {
    MessageDispatcher dispatcher;
    auto queue = std::make_shared<MessageQueue>();
    // Subscribing posts a notice, which takes the history's first place.
    ASSERT_TRUE(dispatcher.subscribe(queue, {}, Reading));

    constexpr std::size_t Length = 10000;
    std::vector<std::shared_ptr<const Message>> messages;
    messages.reserve(Length + 1);
    for (std::size_t i = 0; i <= Length; ++i) messages.push_back(makeMessage(Reading, {"m"}));

    for (std::size_t i = 0; i < Length; ++i) ASSERT_TRUE(dispatcher.postMessage(messages[i], nullptr)) << i;
    // The first message is one of the last 10000: still refused.
    EXPECT_FALSE(dispatcher.postMessage(messages[0], nullptr));
    ASSERT_TRUE(dispatcher.postMessage(messages[Length], nullptr));
    ASSERT_EQ(queue->getAvailableMessagesCount(), Length + 1);

    // Message 10001 pushed the first one out; taking it back in pushes out the
    // second, while the third is still remembered.
    EXPECT_TRUE(dispatcher.postMessage(messages[0], nullptr));
    EXPECT_FALSE(dispatcher.postMessage(messages[2], nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), Length + 2);
    EXPECT_TRUE(dispatcher.postMessage(messages[1], nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), Length + 3);
}

namespace {

// A message that, when it is destroyed, finds out from another thread whether
// its dispatcher's lock is free at that moment.
class LockProbe : public Message {
public:
    LockProbe(std::shared_ptr<MessageDispatcher> dispatcher, std::shared_ptr<std::atomic<int>> outcome)
        : Message(Reading, Address{"probe"}), dispatcher_(std::move(dispatcher)), outcome_(std::move(outcome)) {}
    ~LockProbe() override {
        auto dispatcher = dispatcher_;
        // Under the lock the other thread cannot finish until this one has returned.
        const bool free = finishesWithin(std::chrono::seconds(5), [dispatcher] {
            MessageDispatcherInterface::SubscriptionsTable table;
            dispatcher->getSubscriptionsTable(table);
        });
        outcome_->store(free ? Free : Held);
    }

    static constexpr int Alive = 0;
    static constexpr int Free = 1;
    static constexpr int Held = 2;

private:
    std::shared_ptr<MessageDispatcher> dispatcher_;
    std::shared_ptr<std::atomic<int>> outcome_;
};

}  // namespace

TEST(MessageDispatcherPosting, MessageNoQueueTookIsReleasedAfterTheLock) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto outcome = std::make_shared<std::atomic<int>>(LockProbe::Alive);
    // The dispatcher's parameter holds the only reference, and no queue takes one.
    EXPECT_TRUE(dispatcher->postMessage(std::make_shared<LockProbe>(dispatcher, outcome), nullptr));
    EXPECT_EQ(outcome->load(), LockProbe::Free);
}

TEST(MessageDispatcherPosting, RefusedRepeatIsReleasedAfterTheLock) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto first = makeMessage(Reading, {"probe"});
    ASSERT_TRUE(dispatcher->postMessage(first, nullptr));
    auto outcome = std::make_shared<std::atomic<int>>(LockProbe::Alive);
    auto repeat = std::make_shared<LockProbe>(dispatcher, outcome);
    repeat->identity.assign(first->identity());
    EXPECT_FALSE(dispatcher->postMessage(std::move(repeat), nullptr));
    EXPECT_EQ(outcome->load(), LockProbe::Free);
}

namespace {

// What the subscribers of one test saw, shared with callbacks that may run on
// another thread.
struct Deliveries {
    std::mutex mutex;
    std::vector<std::pair<int, std::shared_ptr<const Message>>> seen;  // subscriber, message
    int calls = 0;

    std::size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size();
    }
};

}  // namespace

TEST(MessageDispatcherPosting, CallbackThrowingInTheMiddleOfAPostKeepsEarlierDeliveriesAndReleasesTheLock) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto deliveries = std::make_shared<Deliveries>();
    for (int subscriber = 0; subscriber < 3; ++subscriber) {
        // Whichever subscriber is called second throws.
        auto queue = std::make_shared<MessageCallback>([deliveries, subscriber](const std::shared_ptr<const Message>& m) {
            std::lock_guard<std::mutex> lock(deliveries->mutex);
            deliveries->seen.emplace_back(subscriber, m);
            if (++deliveries->calls == 2) throw std::runtime_error("the second subscriber fails");
        });
        ASSERT_TRUE(dispatcher->subscribe(queue, {}, Reading));
    }

    const auto message = makeMessage(Reading, {"a"});
    EXPECT_THROW(dispatcher->postMessage(message, nullptr), std::runtime_error);
    // The first subscriber got the message and keeps it; the third was not reached.
    ASSERT_EQ(deliveries->count(), 2u);
    EXPECT_EQ(deliveries->seen[0].second, message);
    EXPECT_EQ(deliveries->seen[1].second, message);
    EXPECT_NE(deliveries->seen[0].first, deliveries->seen[1].first);

    // The lock was released: a post from another thread is served by all three.
    auto posted = std::make_shared<std::atomic<bool>>(false);
    const bool ended = finishesWithin(std::chrono::seconds(5), [dispatcher, posted] {
        posted->store(dispatcher->postMessage(makeMessage(Reading, {"b"}), nullptr));
    });
    ASSERT_TRUE(ended) << "the dispatcher's lock is still held";
    EXPECT_TRUE(posted->load());
    EXPECT_EQ(deliveries->count(), 5u);
    // And one from this thread.
    EXPECT_TRUE(dispatcher->postMessage(makeMessage(Reading, {"c"}), nullptr));
    EXPECT_EQ(deliveries->count(), 8u);

    // The identity was recorded before delivery: posting it again is refused and reaches nobody.
    EXPECT_FALSE(dispatcher->postMessage(message, nullptr));
    EXPECT_EQ(deliveries->count(), 8u);
}
