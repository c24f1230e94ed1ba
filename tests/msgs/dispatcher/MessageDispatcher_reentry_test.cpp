// Calls back into a dispatcher from inside one of its deliveries: each public
// operation throws std::system_error (resource_deadlock_would_occur) at once,
// changes nothing, and the delivery that was running finishes as usual.
//
// Every case runs its outer post on a helper thread with a time limit: were a
// call to lock the dispatcher's mutex a second time, the thread would hang
// for ever, and the test ends the process with a message instead of hanging
// the suite.

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <support/DispatcherTestSupport.h>
#include <support/QueuesTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

const Identifier Reading(0x0100, 1);
const Identifier Request(0x0100, 2);
const Identifier Trigger(0x0100, 3);

constexpr std::chrono::seconds Limit{20};

// What a call from inside a callback threw.
struct Caught {
    bool threw = false;
    std::error_code code;
    std::string what;
};

// Runs `call`, catching a std::system_error.
Caught attempt(const std::function<void()>& call) {
    Caught caught;
    try {
        call();
    } catch (const std::system_error& error) {
        caught.threw = true;
        caught.code = error.code();
        caught.what = error.what();
    }
    return caught;
}

bool isDeadlockError(const Caught& caught) {
    return caught.threw && caught.code == std::errc::resource_deadlock_would_occur;
}

// Everything of a dispatcher that an operation could change, as seen from
// outside: both tables, and what each queue holds.
struct State {
    std::map<std::string, unsigned int> subscriptions;
    std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> services;
    std::vector<unsigned int> held;

    bool operator==(const State& o) const {
        return subscriptions == o.subscriptions && services == o.services && held == o.held;
    }
};

std::string keyText(const MessageKey& key) {
    std::string text = std::to_string(key.id()) + " from ";
    for (const auto& part : key.sender()) text += "/" + part;
    text += " to ";
    for (const auto& part : key.destination()) text += "/" + part;
    return text;
}

std::ostream& operator<<(std::ostream& out, const State& state) {
    out << "subscriptions {";
    for (const auto& entry : state.subscriptions) out << entry.first << ": " << entry.second << "; ";
    out << "} services {";
    for (const auto& entry : state.services) {
        out << entry.first << ": " << entry.second.first << " queues, lowest " << entry.second.second << "; ";
    }
    out << "} held";
    for (unsigned int count : state.held) out << ' ' << count;
    return out;
}

// A dispatcher with a forwarder, a subscriber, a service, a queue that is
// both, and a callback subscribed to Trigger whose body a test chooses. A
// Trigger message addressed to {"after"} reaches the callback first (the
// subscriber half) and then the service `after` (the service half), so a post
// that went on after the callback shows in `after`.
class Reentry {
public:
    Reentry() : dispatcher(std::make_shared<MessageDispatcher>()) {
        forwarder = attachForwarder(*dispatcher);
        EXPECT_TRUE(dispatcher->subscribe(subscriber, {"plant"}, Reading));
        EXPECT_TRUE(dispatcher->registerService(service, {"svc"}, Request, 2));
        EXPECT_TRUE(dispatcher->subscribe(both, {}, Reading));
        EXPECT_TRUE(dispatcher->registerService(both, {"svc", "b"}, Request, 1));
        EXPECT_TRUE(dispatcher->registerService(after, {"after"}, Trigger, 1));
        callback = std::make_shared<MessageCallback>([this](const std::shared_ptr<const Message>& message) {
            ++calls;
            if (inside) inside(message);
        });
        EXPECT_TRUE(dispatcher->subscribe(callback, {}, Trigger));
        drainNotices(*forwarder);
    }

    State state() const {
        State seen;
        MessageDispatcherInterface::SubscriptionsTable subscriptionsTable;
        dispatcher->getSubscriptionsTable(subscriptionsTable);
        for (const auto& entry : subscriptionsTable) seen.subscriptions[keyText(entry.first)] = entry.second;
        MessageDispatcherInterface::ServicesTable servicesTable;
        dispatcher->getServicesTable(servicesTable);
        for (const auto& entry : servicesTable) {
            seen.services[keyText(entry.first)] = {entry.second.queueCount, entry.second.lowestRank};
        }
        for (const auto* queue : {forwarder.get(), subscriber.get(), service.get(), both.get(), after.get()}) {
            seen.held.push_back(queue->getAvailableMessagesCount());
        }
        return seen;
    }

    // Posts a trigger on a helper thread, within the time limit; true when it
    // returned true.
    bool postTrigger() {
        bool result = false;
        auto target = dispatcher;
        endsWithinOrAbort(Limit, [&] { result = target->postMessage(makeMessage(Trigger, {"t"}, {"after"}), nullptr); });
        return result;
    }

    std::shared_ptr<MessageDispatcher> dispatcher;
    std::shared_ptr<MessageQueue> forwarder;
    std::shared_ptr<MessageQueue> subscriber = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageQueue> service = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageQueue> both = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageQueue> after = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageCallback> callback;
    std::function<void(const std::shared_ptr<const Message>&)> inside;
    int calls = 0;
};

// One operation called from inside the callback, with arguments that would
// change the dispatcher (or fill `out`) if the call went through.
struct Operation {
    std::string name;
    std::function<void(Reentry&)> call;
};

std::ostream& operator<<(std::ostream& out, const Operation& operation) { return out << operation.name; }

const std::shared_ptr<const Message>& insidePost() {
    // Reaches `subscriber`; made once so that a test can post it again later.
    static const std::shared_ptr<const Message> message = makeMessage(Reading, {"plant", "inside"});
    return message;
}

std::vector<Operation> operations() {
    return {
        {"postMessage", [](Reentry& r) { r.dispatcher->postMessage(insidePost(), nullptr); }},
        {"postMessageWithAScope",
         [](Reentry& r) { r.dispatcher->postMessage(insidePost(), nullptr, PostScope::Subscribers); }},
        {"subscribe",
         [](Reentry& r) { r.dispatcher->subscribe(std::make_shared<MessageQueue>(), {"new"}, Reading); }},
        {"unsubscribe", [](Reentry& r) { r.dispatcher->unsubscribe(r.subscriber, {"plant"}, Reading); }},
        {"unsubscribeFromAll", [](Reentry& r) { r.dispatcher->unsubscribeFromAll(r.both); }},
        {"registerService",
         [](Reentry& r) { r.dispatcher->registerService(std::make_shared<MessageQueue>(), {"svc"}, Request, 0); }},
        {"unregisterService", [](Reentry& r) { r.dispatcher->unregisterService(r.service, {"svc"}, Request); }},
        {"unregisterAll", [](Reentry& r) { r.dispatcher->unregisterAll(r.both); }},
        {"getSubscriptionsTable",
         [](Reentry& r) {
             MessageDispatcherInterface::SubscriptionsTable out;
             r.dispatcher->getSubscriptionsTable(out);
             ADD_FAILURE() << "getSubscriptionsTable returned " << out.size() << " entries";
         }},
        {"getServicesTable",
         [](Reentry& r) {
             MessageDispatcherInterface::ServicesTable out;
             r.dispatcher->getServicesTable(out);
             ADD_FAILURE() << "getServicesTable returned " << out.size() << " entries";
         }},
        // Inherited from the interface: unsubscribeFromAll, then unregisterAll.
        {"disconnectQueue", [](Reentry& r) { r.dispatcher->disconnectQueue(r.both); }},
    };
}

// The operation whose name the error carries: disconnectQueue fails in its first step.
std::string reportedName(const std::string& operation) {
    if (operation == "disconnectQueue") return "unsubscribeFromAll";
    if (operation == "postMessageWithAScope") return "postMessage";
    return operation;
}

class CallFromInsideADelivery : public ::testing::TestWithParam<Operation> {};

}  // namespace

TEST_P(CallFromInsideADelivery, ThrowsDeadlockErrorChangesNothingAndTheOuterPostFinishes) {
    const Operation& operation = GetParam();
    Reentry r;
    const State before = r.state();
    Caught caught;
    r.inside = [&](const std::shared_ptr<const Message>&) { caught = attempt([&] { operation.call(r); }); };

    EXPECT_TRUE(r.postTrigger()) << "the outer post did not finish with its usual result";

    EXPECT_TRUE(isDeadlockError(caught)) << operation.name << " threw " << caught.threw << " " << caught.code
                                         << " " << caught.what;
    EXPECT_EQ(caught.what, "MessageDispatcher::" + reportedName(operation.name) +
                               ": called from inside a delivery of this dispatcher: " +
                               std::make_error_code(std::errc::resource_deadlock_would_occur).message());
    EXPECT_EQ(r.calls, 1);
    // The post went on after the callback: the service half reached `after`.
    State expected = before;
    expected.held.back() += 1;
    EXPECT_EQ(r.state(), expected);
    EXPECT_TRUE(drainNotices(*r.forwarder).empty());
}

TEST_P(CallFromInsideADelivery, DispatcherWorksNormallyAfterwards) {
    const Operation& operation = GetParam();
    Reentry r;
    r.inside = [&](const std::shared_ptr<const Message>&) { attempt([&] { operation.call(r); }); };
    ASSERT_TRUE(r.postTrigger());
    r.inside = nullptr;

    // Another thread posts; the message refused inside was not recorded as handled.
    auto dispatcher = r.dispatcher;
    bool posted = false;
    endsWithinOrAbort(Limit, [&] { posted = dispatcher->postMessage(insidePost(), nullptr); });
    EXPECT_TRUE(posted);
    auto received = r.subscriber->getMessage(std::chrono::milliseconds(0));
    EXPECT_EQ(received, insidePost());
    // And this thread changes the tables, with their notifications.
    endsWithinOrAbort(Limit, [&] {
        EXPECT_TRUE(dispatcher->subscribe(std::make_shared<MessageQueue>(), {"later"}, Reading));
        EXPECT_TRUE(dispatcher->unregisterAll(r.both));
    });
    EXPECT_EQ(drainNotices(*r.forwarder).size(), 2u);
    EXPECT_TRUE(r.postTrigger());
    EXPECT_EQ(r.calls, 2);
}

INSTANTIATE_TEST_SUITE_P(EveryOperation, CallFromInsideADelivery, ::testing::ValuesIn(operations()),
                         [](const ::testing::TestParamInfo<Operation>& info) { return info.param.name; });

TEST(MessageDispatcherReentry, EmptyQueueToSubscribeInsideADeliveryIsRefusedWithoutTheCheck) {
    Reentry r;
    const State before = r.state();
    bool result = true;
    Caught caught;
    r.inside = [&](const std::shared_ptr<const Message>&) {
        caught = attempt([&] { result = r.dispatcher->subscribe(nullptr, {}, Reading); });
    };
    EXPECT_TRUE(r.postTrigger());
    EXPECT_FALSE(caught.threw);
    EXPECT_FALSE(result);
    State expected = before;
    expected.held.back() += 1;
    EXPECT_EQ(r.state(), expected);
}

TEST(MessageDispatcherReentry, UncaughtErrorLeavesThePostAndReleasesTheLock) {
    Reentry r;
    r.inside = [&](const std::shared_ptr<const Message>&) { r.dispatcher->postMessage(insidePost(), nullptr); };
    auto dispatcher = r.dispatcher;
    Caught caught;
    endsWithinOrAbort(Limit, [&] {
        caught = attempt([&] { dispatcher->postMessage(makeMessage(Trigger, {"t"}, {"after"}), nullptr); });
    });
    EXPECT_TRUE(isDeadlockError(caught));
    // The error left the post in the subscriber half: the service never got it.
    EXPECT_EQ(r.after->getAvailableMessagesCount(), 0u);
    bool posted = false;
    endsWithinOrAbort(Limit, [&] { posted = dispatcher->postMessage(insidePost(), nullptr); });
    EXPECT_TRUE(posted);
}

TEST(MessageDispatcherReentry, CallbackCanPostToAnotherDispatcherWhileTheFirstIsLocked) {
    Reentry r;
    MessageDispatcher other;
    auto target = std::make_shared<MessageQueue>();
    ASSERT_TRUE(other.subscribe(target, {}, Reading));
    bool relayed = false;
    r.inside = [&](const std::shared_ptr<const Message>&) {
        relayed = other.postMessage(makeMessage(Reading, {"relay"}), nullptr);
    };
    EXPECT_TRUE(r.postTrigger());
    EXPECT_TRUE(relayed);
    EXPECT_EQ(target->getAvailableMessagesCount(), 1u);
}

TEST(MessageDispatcherReentry, CycleAcrossTwoDispatchersThrowsInTheSecondCallback) {
    auto first = std::make_shared<MessageDispatcher>();
    auto second = std::make_shared<MessageDispatcher>();
    auto firstSubscriber = std::make_shared<MessageQueue>();
    ASSERT_TRUE(first->subscribe(firstSubscriber, {"back"}, Reading));

    // first delivers to toSecond, which posts into second; second delivers to
    // toFirst, which posts back into first, still locked by this thread.
    bool secondResult = false;
    Caught caught;
    auto toFirst = std::make_shared<MessageCallback>([&](const std::shared_ptr<const Message>&) {
        caught = attempt([&] { first->postMessage(makeMessage(Reading, {"back"}), nullptr); });
    });
    ASSERT_TRUE(second->subscribe(toFirst, {}, Request));
    auto toSecond = std::make_shared<MessageCallback>([&](const std::shared_ptr<const Message>&) {
        secondResult = second->postMessage(makeMessage(Request, {"on"}), nullptr);
    });
    ASSERT_TRUE(first->subscribe(toSecond, {}, Trigger));

    bool firstResult = false;
    endsWithinOrAbort(Limit, [&] { firstResult = first->postMessage(makeMessage(Trigger, {"t"}), nullptr); });

    EXPECT_TRUE(firstResult);
    EXPECT_TRUE(secondResult);
    EXPECT_TRUE(isDeadlockError(caught)) << caught.what;
    EXPECT_EQ(firstSubscriber->getAvailableMessagesCount(), 0u);
}

TEST(MessageDispatcherReentry, OtherThreadsWaitForTheLockAsBefore) {
    // A callback that is running holds the dispatcher; another thread's post
    // is not refused but waits, and is served once the callback returns.
    Reentry r;
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    r.inside = [&](const std::shared_ptr<const Message>&) {
        entered.set_value();
        released.wait();
    };
    auto dispatcher = r.dispatcher;
    std::thread poster([&] { r.postTrigger(); });
    ASSERT_EQ(entered.get_future().wait_for(Limit), std::future_status::ready);

    bool posted = false;
    std::thread other([&] { posted = dispatcher->postMessage(insidePost(), nullptr); });
    release.set_value();
    poster.join();
    other.join();
    EXPECT_TRUE(posted);
    EXPECT_EQ(r.subscriber->getAvailableMessagesCount(), 1u);
}
