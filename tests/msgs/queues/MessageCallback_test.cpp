// MessageCallback: stores nothing, hands every message put into it to a
// function on the putting thread.

#include <kest/msgs/queues/MessageCallback.h>

#include <support/QueuesTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Kest::Msgs::CallbackMessageQueueInterface;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageQueueInterface;
using KestTest::makeMessage;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

using MessagePtr = std::shared_ptr<const Message>;
using Callback = CallbackMessageQueueInterface::Callback;
using Args = std::vector<std::string>;

static_assert(!std::is_copy_constructible_v<MessageCallback>);
static_assert(!std::is_copy_assignable_v<MessageCallback>);
static_assert(std::is_base_of_v<CallbackMessageQueueInterface, MessageCallback>);
static_assert(std::is_convertible_v<MessageCallback*, CallbackMessageQueueInterface*>);
static_assert(std::is_convertible_v<MessageCallback*, MessageQueueInterface*>);
static_assert(std::is_convertible_v<MessageCallback*, Kest::ComponentInterface*>);
static_assert(!std::is_destructible_v<CallbackMessageQueueInterface>);
static_assert(!std::has_virtual_destructor_v<MessageCallback>);
static_assert(std::is_same_v<Callback, std::function<void(const std::shared_ptr<const Message>&)>>);

// Records what the callbacks below receive.
std::vector<MessagePtr>& received() {
    static std::vector<MessagePtr> messages;
    return messages;
}

void recordingFunction(const MessagePtr& message) { received().push_back(message); }

TEST(MessageCallback, FactoryFormThrowsBadFunctionCallUntilACallbackIsSet) {
    MessageCallback callback(Args{"ignored", "too"});
    EXPECT_FALSE(callback.getCallback());
    EXPECT_THROW(callback.putMessage(makeMessage(Identifier(8, 1))), std::bad_function_call);
    EXPECT_THROW(callback.putMessage(makeMessage(Identifier(8, 2))), std::bad_function_call);

    int calls = 0;
    callback.setCallback([&calls](const MessagePtr&) { ++calls; });
    EXPECT_TRUE(callback.putMessage(makeMessage(Identifier(8, 3))));
    EXPECT_EQ(calls, 1);
}

TEST(MessageCallback, EmptyCallbackFromTheConstructorThrowsBadFunctionCall) {
    MessageCallback callback{Callback{}};
    EXPECT_THROW(callback.putMessage(makeMessage(Identifier(8, 1))), std::bad_function_call);
}

TEST(MessageCallback, SettingAnEmptyCallbackMakesPutThrowAgain) {
    int calls = 0;
    MessageCallback callback(Callback([&calls](const MessagePtr&) { ++calls; }));
    EXPECT_TRUE(callback.putMessage(makeMessage(Identifier(8, 1))));
    callback.setCallback(Callback{});
    EXPECT_FALSE(callback.getCallback());
    EXPECT_THROW(callback.putMessage(makeMessage(Identifier(8, 2))), std::bad_function_call);
    EXPECT_EQ(calls, 1);
}

TEST(MessageCallback, PutCallsTheCallbackWithTheMessageAndReturnsTrue) {
    std::vector<MessagePtr> got;
    MessageCallback callback(Callback([&got](const MessagePtr& m) { got.push_back(m); }));
    const MessagePtr a = makeMessage(Identifier(8, 1));
    const MessagePtr b = makeMessage(Identifier(8, 2));
    EXPECT_TRUE(callback.putMessage(a));
    EXPECT_TRUE(callback.putMessage(b));
    EXPECT_EQ(got, (std::vector<MessagePtr>{a, b}));
}

TEST(MessageCallback, CallbackRunsOnThePuttingThread) {
    std::thread::id where;
    MessageCallback callback(Callback([&where](const MessagePtr&) { where = std::this_thread::get_id(); }));
    std::thread putter([&] { callback.putMessage(makeMessage(Identifier(8, 1))); });
    const std::thread::id putterId = putter.get_id();
    putter.join();
    EXPECT_EQ(where, putterId);
}

TEST(MessageCallback, NullMessageIsPassedToTheCallbackAsItIs) {
    int calls = 0;
    bool wasNull = false;
    MessageCallback callback(Callback([&](const MessagePtr& m) {
        ++calls;
        wasNull = (m == nullptr);
    }));
    EXPECT_TRUE(callback.putMessage(nullptr));
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(wasNull);
}

TEST(MessageCallback, CallbackExceptionPassesThroughAndTheObjectStaysUsable) {
    auto calls = std::make_shared<int>(0);
    auto callback = std::make_shared<MessageCallback>(Callback([calls](const MessagePtr&) {
        if (++*calls == 1) throw std::runtime_error("first delivery fails");
    }));
    EXPECT_THROW(callback->putMessage(makeMessage(Identifier(8, 1))), std::runtime_error);
    // Run on a thread of its own: a lock left held would deadlock here.
    auto result = std::make_shared<bool>(false);
    ASSERT_TRUE(KestTest::finishesWithin(std::chrono::seconds(5), [callback, result] {
        *result = callback->putMessage(makeMessage(Identifier(8, 2)));
    })) << "the lock stayed held after the callback threw";
    EXPECT_TRUE(*result);
    EXPECT_EQ(*calls, 2);
}

// ---- Calls from inside the object's own callback --------------------------
// Each runs on a helper thread with a time limit: a put that locked the
// object's mutex a second time would hang, and the test then ends the
// process with a message.

namespace {

constexpr std::chrono::seconds ReentryLimit{20};

bool isDeadlockError(const std::system_error& error) {
    return error.code() == std::errc::resource_deadlock_would_occur;
}

}  // namespace

TEST(MessageCallback, PutFromInsideItsOwnCallbackThrowsDeadlockErrorAndTheOuterPutReturnsTrue) {
    auto callback = std::make_shared<MessageCallback>(Args{});
    std::vector<MessagePtr> seen;
    std::string what;
    bool refused = false;
    const MessagePtr inner = makeMessage(Identifier(8, 2));
    callback->setCallback([&](const MessagePtr& message) {
        seen.push_back(message);
        if (seen.size() > 1) return;
        try {
            callback->putMessage(inner);
        } catch (const std::system_error& error) {
            refused = isDeadlockError(error);
            what = error.what();
        }
    });
    const MessagePtr outer = makeMessage(Identifier(8, 1));
    bool result = false;
    KestTest::endsWithinOrAbort(ReentryLimit, [&] { result = callback->putMessage(outer); });

    EXPECT_TRUE(result);
    EXPECT_TRUE(refused);
    EXPECT_EQ(what.rfind("MessageCallback::putMessage: called from inside this queue's own callback", 0), 0u) << what;
    // The inner message never reached the callback.
    EXPECT_EQ(seen, std::vector<MessagePtr>{outer});

    // Afterwards puts work, from another thread and from this one.
    KestTest::endsWithinOrAbort(ReentryLimit, [&] { result = callback->putMessage(inner); });
    EXPECT_TRUE(result);
    EXPECT_TRUE(callback->putMessage(outer));
    EXPECT_EQ(seen, (std::vector<MessagePtr>{outer, inner, outer}));
}

TEST(MessageCallback, SetCallbackFromInsideItsOwnCallbackThrowsDeadlockErrorAndKeepsTheRunningOne) {
    auto callback = std::make_shared<MessageCallback>(Args{});
    auto runs = std::make_shared<int>(0);
    auto replacementRuns = std::make_shared<int>(0);
    bool refused = false;
    callback->setCallback([&, runs](const MessagePtr&) {
        ++*runs;
        try {
            callback->setCallback([replacementRuns](const MessagePtr&) { ++*replacementRuns; });
        } catch (const std::system_error& error) {
            refused = isDeadlockError(error) &&
                      std::string(error.what()).rfind("MessageCallback::setCallback: called from inside", 0) == 0;
        }
        // Still alive and still this function: the state it captured is intact.
        ++*runs;
    });
    bool result = false;
    KestTest::endsWithinOrAbort(ReentryLimit, [&] { result = callback->putMessage(makeMessage(Identifier(8, 1))); });
    EXPECT_TRUE(result);
    EXPECT_TRUE(refused);
    EXPECT_EQ(*runs, 2);
    // The running callback is still the one set; the replacement was never installed.
    KestTest::endsWithinOrAbort(ReentryLimit, [&] { result = callback->putMessage(makeMessage(Identifier(8, 2))); });
    EXPECT_EQ(*runs, 4);
    EXPECT_EQ(*replacementRuns, 0);
}

TEST(MessageCallback, SetCallbackOutsideTheCallbackStillReplacesIt) {
    MessageCallback callback(Args{});
    int first = 0;
    int second = 0;
    callback.setCallback([&](const MessagePtr&) { ++first; });
    EXPECT_TRUE(callback.putMessage(makeMessage(Identifier(8, 1))));
    callback.setCallback([&](const MessagePtr&) { ++second; });
    EXPECT_TRUE(callback.putMessage(makeMessage(Identifier(8, 2))));
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
}

TEST(MessageCallback, PutIntoAnotherCallbackQueueFromInsideACallbackWorks) {
    int delivered = 0;
    auto inner = std::make_shared<MessageCallback>(Callback([&](const MessagePtr&) { ++delivered; }));
    auto outer = std::make_shared<MessageCallback>(Callback([&](const MessagePtr& message) {
        EXPECT_TRUE(inner->putMessage(message));
    }));
    KestTest::endsWithinOrAbort(ReentryLimit, [&] { EXPECT_TRUE(outer->putMessage(makeMessage(Identifier(8, 1)))); });
    EXPECT_EQ(delivered, 1);
}

TEST(MessageCallback, BadFunctionCallLeavesTheObjectUsable) {
    auto callback = std::make_shared<MessageCallback>(Args{});
    EXPECT_THROW(callback->putMessage(makeMessage(Identifier(8, 1))), std::bad_function_call);
    auto calls = std::make_shared<int>(0);
    callback->setCallback([calls](const MessagePtr&) { ++*calls; });
    auto result = std::make_shared<bool>(false);
    ASSERT_TRUE(KestTest::finishesWithin(std::chrono::seconds(5), [callback, result] {
        *result = callback->putMessage(makeMessage(Identifier(8, 2)));
    })) << "the lock stayed held after std::bad_function_call";
    EXPECT_TRUE(*result);
    EXPECT_EQ(*calls, 1);
}

TEST(MessageCallback, CountIsZeroWhileACallbackRuns) {
    auto callback = std::make_shared<MessageCallback>(Args{});
    std::vector<unsigned int> countsInside;
    std::vector<bool> emptyInside;
    MessageCallback* const self = callback.get();
    callback->setCallback([&, self](const MessagePtr&) {
        countsInside.push_back(self->getAvailableMessagesCount());
        emptyInside.push_back(self->getMessage(milliseconds(0)) == nullptr);
    });
    ASSERT_TRUE(callback->putMessage(makeMessage(Identifier(8, 1))));
    ASSERT_TRUE(callback->putMessage(makeMessage(Identifier(8, 2))));
    EXPECT_EQ(countsInside, (std::vector<unsigned int>{0u, 0u}));
    EXPECT_EQ(emptyInside, (std::vector<bool>{true, true}));
    EXPECT_EQ(callback->getAvailableMessagesCount(), 0u);
}

TEST(MessageCallback, KeepsNoReferenceToADeliveredMessage) {
    MessageCallback callback(Callback([](const MessagePtr&) {}));
    std::weak_ptr<const Message> watched;
    {
        const MessagePtr message = makeMessage(Identifier(8, 1));
        watched = message;
        ASSERT_TRUE(callback.putMessage(message));
        EXPECT_EQ(message.use_count(), 1);
    }
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(callback.getAvailableMessagesCount(), 0u);
}

TEST(MessageCallback, GetMessageWithAnyTimeoutReturnsEmptyAtOnce) {
    auto callback = std::make_shared<MessageCallback>(Callback([](const MessagePtr&) {}));
    ASSERT_TRUE(callback->putMessage(makeMessage(Identifier(8, 1))));
    for (const milliseconds timeout : {milliseconds(0), milliseconds(-5), milliseconds(100),
                                       milliseconds(60000), milliseconds::max()}) {
        auto result = std::make_shared<MessagePtr>(makeMessage(Identifier(8, 9)));
        const auto start = steady_clock::now();
        ASSERT_TRUE(KestTest::finishesWithin(std::chrono::seconds(5), [callback, result, timeout] {
            *result = callback->getMessage(timeout);
        })) << "getMessage(" << timeout.count() << " ms) waited";
        EXPECT_EQ(*result, nullptr) << timeout.count() << " ms";
        // Well under the smallest positive time-out above: it did not wait.
        EXPECT_LT(steady_clock::now() - start, milliseconds(100)) << timeout.count() << " ms";
    }
}

TEST(MessageCallback, GetMessageWithoutTimeoutReturnsEmptyAtOnce) {
    auto callback = std::make_shared<MessageCallback>(Callback([](const MessagePtr&) {}));
    ASSERT_TRUE(callback->putMessage(makeMessage(Identifier(8, 1))));
    auto result = std::make_shared<MessagePtr>(makeMessage(Identifier(8, 9)));
    ASSERT_TRUE(KestTest::finishesWithin(std::chrono::seconds(5), [callback, result] {
        std::shared_ptr<MessageQueueInterface> asInterface = callback;
        *result = asInterface->getMessage();
    })) << "getMessage() waited";
    EXPECT_EQ(*result, nullptr);
}

TEST(MessageCallback, TakeAllAvailableMessagesLeavesTheListUntouched) {
    MessageCallback callback(Callback([](const MessagePtr&) {}));
    ASSERT_TRUE(callback.putMessage(makeMessage(Identifier(8, 1))));
    const MessagePtr a = makeMessage(Identifier(8, 2));
    const MessagePtr b = makeMessage(Identifier(8, 3));
    std::list<MessagePtr> list{a, nullptr, b};
    callback.takeAllAvailableMessages(list);
    EXPECT_EQ(list, (std::list<MessagePtr>{a, nullptr, b}));
    std::list<MessagePtr> empty;
    callback.takeAllAvailableMessages(empty);
    EXPECT_TRUE(empty.empty());
}

TEST(MessageCallback, GetCallbackReturnsAFunctionCallingTheSameTarget) {
    received().clear();
    MessageCallback callback(Args{});
    callback.setCallback(&recordingFunction);
    Callback got = callback.getCallback();
    ASSERT_TRUE(got);
    using Function = void (*)(const MessagePtr&);
    ASSERT_NE(got.target<Function>(), nullptr);
    EXPECT_EQ(*got.target<Function>(), &recordingFunction);

    const MessagePtr message = makeMessage(Identifier(8, 1));
    got(message);
    EXPECT_EQ(received(), (std::vector<MessagePtr>{message}));
    received().clear();
}

TEST(MessageCallback, GetCallbackOfALambdaSharesItsState) {
    auto calls = std::make_shared<int>(0);
    MessageCallback callback(Args{});
    callback.setCallback([calls](const MessagePtr&) { ++*calls; });
    Callback got = callback.getCallback();
    ASSERT_TRUE(got);
    got(makeMessage(Identifier(8, 1)));
    ASSERT_TRUE(callback.putMessage(makeMessage(Identifier(8, 2))));
    EXPECT_EQ(*calls, 2);
}

TEST(MessageCallback, GetCallbackIsEmptyWhenNoCallbackIsSet) {
    EXPECT_FALSE(MessageCallback(Args{}).getCallback());
    EXPECT_FALSE(MessageCallback(Callback{}).getCallback());
}

TEST(MessageCallback, SetCallbackReleasesThePreviousCallback) {
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> watched = token;
    MessageCallback callback(Callback([token](const MessagePtr&) {}));
    token.reset();
    EXPECT_FALSE(watched.expired());
    int calls = 0;
    callback.setCallback([&calls](const MessagePtr&) { ++calls; });
    EXPECT_TRUE(watched.expired());
    ASSERT_TRUE(callback.putMessage(makeMessage(Identifier(8, 1))));
    EXPECT_EQ(calls, 1);
}

TEST(MessageCallback, InstanceIdStartsEmpty) {
    MessageCallback callback(Args{"id"});
    EXPECT_TRUE(callback.instanceId().empty());
}

TEST(MessageCallback, ReachesOneMessageQueueInterface) {
    int calls = 0;
    auto callback = std::make_shared<MessageCallback>(Callback([&calls](const MessagePtr&) { ++calls; }));
    std::shared_ptr<MessageQueueInterface> asInterface = callback;
    EXPECT_EQ(std::dynamic_pointer_cast<MessageCallback>(asInterface), callback);
    auto asCallbackInterface = std::dynamic_pointer_cast<CallbackMessageQueueInterface>(asInterface);
    ASSERT_NE(asCallbackInterface, nullptr);
    EXPECT_EQ(static_cast<MessageQueueInterface*>(asCallbackInterface.get()), asInterface.get());
    EXPECT_TRUE(asInterface->putMessage(makeMessage(Identifier(8, 1))));
    EXPECT_EQ(calls, 1);
}

}  // namespace
