// Construction, destruction and ownership of a MessageDispatcher, and posting
// from inside a delivery.

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/DispatcherTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

static_assert(!std::is_copy_constructible_v<MessageDispatcher>);
static_assert(!std::is_copy_assignable_v<MessageDispatcher>);
static_assert(std::is_base_of_v<MessageDispatcherInterface, MessageDispatcher>);
static_assert(std::is_constructible_v<MessageDispatcher, const std::vector<std::string>&>);
// The argument list is not a conversion: a dispatcher is never made from a vector by accident.
static_assert(!std::is_convertible_v<std::vector<std::string>, MessageDispatcher>);

namespace {

const Identifier Reading(0x0100, 1);
const Identifier Request(0x0100, 2);

// Everything a client can observe of one fixed sequence of operations.
struct Observed {
    std::vector<bool> results;
    std::vector<Notice> notices;
    std::vector<std::size_t> received;  // per queue, in creation order
    std::map<std::string, unsigned int> subscriptions;
    std::size_t services = 0;

    bool operator==(const Observed& o) const {
        return results == o.results && notices == o.notices && received == o.received &&
               subscriptions == o.subscriptions && services == o.services;
    }
};

std::string keyText(const MessageKey& key) {
    std::string text = std::to_string(key.id()) + ":";
    for (const auto& part : key.sender()) text += "/" + part;
    return text;
}

Observed exercise(MessageDispatcher& dispatcher) {
    Observed seen;
    auto forwarder = attachForwarder(dispatcher);
    auto a = std::make_shared<MessageQueue>();
    auto b = std::make_shared<MessageQueue>();
    auto service = std::make_shared<MessageQueue>();

    seen.results.push_back(dispatcher.subscribe(a, {"plant"}, Reading));
    seen.results.push_back(dispatcher.subscribe(b, {"plant", "line2"}, Reading));
    seen.results.push_back(dispatcher.subscribe(b, {"plant", "line2"}, Reading));
    seen.results.push_back(dispatcher.subscribe(nullptr, {}, Reading));
    seen.results.push_back(dispatcher.registerService(service, {"plant"}, Request, 3));
    auto reading = makeMessage(Reading, {"plant", "line2", "press"});
    seen.results.push_back(dispatcher.postMessage(reading, a));
    seen.results.push_back(dispatcher.postMessage(reading, nullptr));
    seen.results.push_back(dispatcher.postMessage(makeMessage(Request, {"x"}, {"plant", "a"}), nullptr));
    seen.results.push_back(dispatcher.postMessage(makeMessage(Request, {"x"}, {"office"}), nullptr));
    seen.results.push_back(dispatcher.unsubscribe(a, {"plant"}, Reading));

    seen.notices = drainNotices(*forwarder);
    for (auto* queue : {a.get(), b.get(), service.get()}) {
        seen.received.push_back(drainMessages(*queue).size());
    }
    MessageDispatcherInterface::SubscriptionsTable table;
    dispatcher.getSubscriptionsTable(table);
    for (const auto& entry : table) seen.subscriptions[keyText(entry.first)] = entry.second;
    MessageDispatcherInterface::ServicesTable services;
    seen.services = dispatcher.getServicesTable(services);
    return seen;
}

}  // namespace

TEST(MessageDispatcher, ArgumentListIsIgnoredByConstructor) {
    MessageDispatcher plain;
    MessageDispatcher withArgs({"a", "b"});

    const Observed expected = exercise(plain);
    const Observed actual = exercise(withArgs);

    // The sequence gives the results a client relies on, so equality compares real behaviour.
    EXPECT_EQ(expected.results,
              (std::vector<bool>{true, true, true, false, true, true, false, true, false, true}));
    EXPECT_EQ(expected.notices,
              (std::vector<Notice>{notice(9, Reading, {"plant"}, {}, 0),
                                   notice(9, Reading, {"plant", "line2"}, {}, 0),
                                   notice(5, Request, {}, {"plant"}, 3),
                                   notice(10, Reading, {"plant"}, {}, 0)}));
    EXPECT_EQ(expected.received, (std::vector<std::size_t>{0, 1, 1}));
    EXPECT_EQ(expected.services, 1u);

    EXPECT_TRUE(actual == expected);
    EXPECT_EQ(actual.results, expected.results);
    EXPECT_EQ(actual.notices, expected.notices);
    EXPECT_EQ(actual.received, expected.received);
    EXPECT_EQ(actual.subscriptions, expected.subscriptions);
}

TEST(MessageDispatcher, DestructionPostsNoNotification) {
    auto forwarder = std::make_shared<MessageQueue>();
    auto subscriber = std::make_shared<MessageQueue>();
    auto service = std::make_shared<MessageQueue>();
    {
        auto dispatcher = std::make_shared<MessageDispatcher>();
        for (std::uint16_t type : {9, 10, 5, 6}) dispatcher->subscribe(forwarder, {}, noticeId(type));
        ASSERT_TRUE(dispatcher->subscribe(subscriber, {"plant"}, Reading));
        ASSERT_TRUE(dispatcher->subscribe(subscriber, {"office"}, Reading));
        ASSERT_TRUE(dispatcher->registerService(service, {"plant"}, Request, 1));
        ASSERT_TRUE(dispatcher->registerService(subscriber, {"plant"}, Request, 2));
        // The forwarder heard the changes, which shows it is listening.
        ASSERT_EQ(drainNotices(*forwarder).size(), 3u);
    }
    EXPECT_EQ(forwarder->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(subscriber->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(service->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcher, DestructionReleasesEveryQueueReference) {
    auto kept = std::make_shared<MessageQueue>();
    std::weak_ptr<MessageQueue> onlySubscribed;
    std::weak_ptr<MessageQueue> onlyService;
    std::weak_ptr<MessageQueue_FixedDepth> inBothTables;
    auto dispatcher = std::make_shared<MessageDispatcher>();
    {
        auto a = std::make_shared<MessageQueue>();
        auto b = std::make_shared<MessageQueue>();
        auto c = std::make_shared<MessageQueue_FixedDepth>(4u);
        onlySubscribed = a;
        onlyService = b;
        inBothTables = c;
        ASSERT_TRUE(dispatcher->subscribe(a, {"plant"}, Reading));
        ASSERT_TRUE(dispatcher->registerService(b, {"plant"}, Request, 1));
        ASSERT_TRUE(dispatcher->subscribe(c, {}, Reading));
        ASSERT_TRUE(dispatcher->registerService(c, {"office"}, Request, 1));
        ASSERT_TRUE(dispatcher->subscribe(kept, {"plant"}, Reading));
        ASSERT_TRUE(dispatcher->subscribe(kept, {"office"}, Reading));
        ASSERT_TRUE(dispatcher->registerService(kept, {"plant"}, Request, 2));
    }
    // While the dispatcher lives, its tables keep the queues alive.
    EXPECT_FALSE(onlySubscribed.expired());
    EXPECT_FALSE(onlyService.expired());
    EXPECT_FALSE(inBothTables.expired());
    EXPECT_EQ(kept.use_count(), 4);

    dispatcher.reset();

    EXPECT_TRUE(onlySubscribed.expired());
    EXPECT_TRUE(onlyService.expired());
    EXPECT_TRUE(inBothTables.expired());
    EXPECT_EQ(kept.use_count(), 1);
}

namespace {

// A queue that writes its name into a shared log when it is destroyed.
class LoggedQueue final : public MessageQueue {
public:
    LoggedQueue(std::string name, std::vector<std::string>& log) : name_(std::move(name)), log_(log) {}
    ~LoggedQueue() { log_.push_back(name_); }

private:
    std::string name_;
    std::vector<std::string>& log_;
};

}  // namespace

TEST(MessageDispatcher, DestructionReleasesServicesBeforeSubscriptions) {
    std::vector<std::string> log;
    {
        MessageDispatcher dispatcher;
        ASSERT_TRUE(dispatcher.subscribe(std::make_shared<LoggedQueue>("subscriber", log), {"plant"}, Reading));
        ASSERT_TRUE(dispatcher.registerService(std::make_shared<LoggedQueue>("service", log), {"plant"}, Request, 1));
        ASSERT_TRUE(log.empty());
    }
    EXPECT_EQ(log, (std::vector<std::string>{"service", "subscriber"}));
}

TEST(MessageDispatcher, CallbackCanPostToAnotherDispatcher) {
    MessageDispatcher first;
    MessageDispatcher second;
    auto target = std::make_shared<MessageQueue>();
    ASSERT_TRUE(second.subscribe(target, {"relay"}, Request));

    std::vector<bool> relayed;
    auto relay = std::make_shared<MessageCallback>([&](const std::shared_ptr<const Message>& message) {
        // Runs inside the first dispatcher's post, holding its lock; the second one is free.
        relayed.push_back(second.postMessage(makeMessage(Request, {"relay", "from"}), nullptr));
        EXPECT_EQ(message->id(), Reading);
    });
    ASSERT_TRUE(first.subscribe(relay, {}, Reading));

    ASSERT_TRUE(first.postMessage(makeMessage(Reading, {"plant"}), nullptr));

    EXPECT_EQ(relayed, std::vector<bool>{true});
    auto arrived = target->getMessage(std::chrono::milliseconds(0));
    ASSERT_NE(arrived, nullptr);
    EXPECT_EQ(arrived->id(), Request);
    EXPECT_EQ(arrived->sender(), (Address{"relay", "from"}));
    EXPECT_EQ(target->getAvailableMessagesCount(), 0u);
}
