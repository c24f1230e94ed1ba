// MessageQueue_FixedDepth: a MessageQueue that refuses the newest message
// once it holds its maximum depth. Its read side is tested with MessageQueue's.

#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>
#if defined(KEST_TEST_HOOKS)
#include <kest/msgs/internal/TestHooks.h>
#endif

#include <support/QueuesTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kest::Msgs::FixedDepthMessageQueueInterface;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageQueue;
using Kest::Msgs::MessageQueue_FixedDepth;
using Kest::Msgs::MessageQueueInterface;
using KestTest::makeMessage;
using KestTest::Reader;
using std::chrono::milliseconds;

using MessagePtr = std::shared_ptr<const Message>;
using Args = std::vector<std::string>;

static_assert(!std::is_copy_constructible_v<MessageQueue_FixedDepth>);
static_assert(!std::is_copy_assignable_v<MessageQueue_FixedDepth>);
static_assert(std::is_base_of_v<FixedDepthMessageQueueInterface, MessageQueue_FixedDepth>);
static_assert(std::is_base_of_v<MessageQueue, MessageQueue_FixedDepth>);
// Public bases, and a single MessageQueueInterface: with two of them the
// conversion would be ambiguous and so not exist.
static_assert(std::is_convertible_v<MessageQueue_FixedDepth*, FixedDepthMessageQueueInterface*>);
static_assert(std::is_convertible_v<MessageQueue_FixedDepth*, MessageQueue*>);
static_assert(std::is_convertible_v<MessageQueue_FixedDepth*, MessageQueueInterface*>);
static_assert(std::is_convertible_v<MessageQueue_FixedDepth*, Kest::ComponentInterface*>);
static_assert(!std::is_destructible_v<FixedDepthMessageQueueInterface>);
static_assert(!std::has_virtual_destructor_v<MessageQueue_FixedDepth>);
static_assert(MessageQueue_FixedDepth::DefaultDepth == 100);

// Puts `count` fresh messages and returns how many were accepted.
unsigned int fill(MessageQueue_FixedDepth& queue, unsigned int count) {
    unsigned int accepted = 0;
    for (unsigned int i = 0; i < count; ++i) {
        if (queue.putMessage(makeMessage(Identifier(7, static_cast<std::uint16_t>(i))))) ++accepted;
    }
    return accepted;
}

TEST(MessageQueue_FixedDepth, DefaultDepthIs100WhateverTheArguments) {
    for (const Args& args : {Args{}, Args{"5"}, Args{"0"}, Args{"1000"}, Args{"depth", "3"}}) {
        MessageQueue_FixedDepth queue(args);
        EXPECT_EQ(queue.getMaxDepth(), 100u);
        EXPECT_TRUE(queue.instanceId().empty());
        EXPECT_EQ(queue.getAvailableMessagesCount(), 0u);
    }
}

TEST(MessageQueue_FixedDepth, FactoryFormAccepts100MessagesAndRefusesThe101st) {
    MessageQueue_FixedDepth queue(Args{"7"});
    for (int i = 0; i < 99; ++i) ASSERT_TRUE(queue.putMessage(makeMessage(Identifier(7, 1))));
    EXPECT_TRUE(queue.putMessage(makeMessage(Identifier(7, 100))));
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 101))));
    EXPECT_EQ(queue.getAvailableMessagesCount(), 100u);
    ASSERT_NE(queue.getMessage(milliseconds(0)), nullptr);
    EXPECT_TRUE(queue.putMessage(makeMessage(Identifier(7, 102))));
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 103))));
    EXPECT_EQ(queue.getAvailableMessagesCount(), 100u);
}

TEST(MessageQueue_FixedDepth, ConstructorStoresTheDepthUnchanged) {
    EXPECT_EQ(MessageQueue_FixedDepth(0u).getMaxDepth(), 0u);
    EXPECT_EQ(MessageQueue_FixedDepth(7u).getMaxDepth(), 7u);
    EXPECT_EQ(MessageQueue_FixedDepth(UINT_MAX).getMaxDepth(), UINT_MAX);
}

TEST(MessageQueue_FixedDepth, DepthZeroFromTheConstructorRefusesEveryMessage) {
    MessageQueue_FixedDepth queue(0u);
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 1))));
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 2))));
    EXPECT_FALSE(queue.putMessage(nullptr));
    EXPECT_EQ(queue.getAvailableMessagesCount(), 0u);
    EXPECT_EQ(queue.getMessage(milliseconds(0)), nullptr);
}

TEST(MessageQueue_FixedDepth, SetMaxDepthZeroIsIgnoredOnAZeroDepthQueue) {
    MessageQueue_FixedDepth queue(0u);
    queue.setMaxDepth(0);
    EXPECT_EQ(queue.getMaxDepth(), 0u);
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 1))));
}

TEST(MessageQueue_FixedDepth, SetMaxDepthZeroIsIgnored) {
    MessageQueue_FixedDepth queue(5u);
    queue.setMaxDepth(0);
    EXPECT_EQ(queue.getMaxDepth(), 5u);
    EXPECT_EQ(fill(queue, 6), 5u);
}

TEST(MessageQueue_FixedDepth, SetMaxDepthOneLetsOneMessageIntoAZeroDepthQueue) {
    MessageQueue_FixedDepth queue(0u);
    queue.setMaxDepth(1);
    EXPECT_EQ(queue.getMaxDepth(), 1u);
    EXPECT_TRUE(queue.putMessage(makeMessage(Identifier(7, 1))));
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 2))));
    EXPECT_EQ(queue.getAvailableMessagesCount(), 1u);
}

TEST(MessageQueue_FixedDepth, RaisingTheDepthLetsMoreMessagesIn) {
    MessageQueue_FixedDepth queue(2u);
    EXPECT_EQ(fill(queue, 3), 2u);
    queue.setMaxDepth(4);
    EXPECT_EQ(fill(queue, 3), 2u);
    EXPECT_EQ(queue.getAvailableMessagesCount(), 4u);
}

TEST(MessageQueue_FixedDepth, LoweringTheDepthEvictsNothing) {
    MessageQueue_FixedDepth queue(3u);
    const MessagePtr a = makeMessage(Identifier(7, 1));
    const MessagePtr b = makeMessage(Identifier(7, 2));
    const MessagePtr c = makeMessage(Identifier(7, 3));
    ASSERT_TRUE(queue.putMessage(a));
    ASSERT_TRUE(queue.putMessage(b));
    ASSERT_TRUE(queue.putMessage(c));
    queue.setMaxDepth(2);
    EXPECT_EQ(queue.getMaxDepth(), 2u);
    EXPECT_EQ(queue.getAvailableMessagesCount(), 3u);
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 4))));

    EXPECT_EQ(queue.getMessage(milliseconds(0)), a);
    EXPECT_EQ(queue.getAvailableMessagesCount(), 2u);
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 5))));

    EXPECT_EQ(queue.getMessage(milliseconds(0)), b);
    EXPECT_EQ(queue.getAvailableMessagesCount(), 1u);
    const MessagePtr d = makeMessage(Identifier(7, 6));
    EXPECT_TRUE(queue.putMessage(d));
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 7))));

    EXPECT_EQ(queue.getMessage(milliseconds(0)), c);
    EXPECT_EQ(queue.getMessage(milliseconds(0)), d);
}

TEST(MessageQueue_FixedDepth, RefusedPutKeepsTheQueuedMessagesInPlace) {
    MessageQueue_FixedDepth queue(2u);
    const MessagePtr a = makeMessage(Identifier(7, 1));
    const MessagePtr b = makeMessage(Identifier(7, 2));
    ASSERT_TRUE(queue.putMessage(a));
    ASSERT_TRUE(queue.putMessage(b));
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 3))));
    std::list<MessagePtr> taken;
    queue.takeAllAvailableMessages(taken);
    EXPECT_EQ(taken, (std::list<MessagePtr>{a, b}));
}

TEST(MessageQueue_FixedDepth, RefusedPutLeavesTheCallersMessageUntouched) {
    MessageQueue_FixedDepth queue(1u);
    ASSERT_TRUE(queue.putMessage(makeMessage(Identifier(7, 1))));
    const MessagePtr refused = makeMessage(Identifier(7, 2));
    const Message* const object = refused.get();
    const std::string identity = refused->identity();
    ASSERT_EQ(refused.use_count(), 1);
    EXPECT_FALSE(queue.putMessage(refused));
    EXPECT_EQ(refused.use_count(), 1);
    EXPECT_EQ(refused.get(), object);
    EXPECT_EQ(refused->identity(), identity);
    EXPECT_EQ(refused->id(), Identifier(7, 2));
}

TEST(MessageQueue_FixedDepth, RefusedPutWakesNoReader) {
    auto queue = std::make_shared<MessageQueue_FixedDepth>(0u);
    Reader reader(queue, milliseconds(200));
    ASSERT_TRUE(reader.waitUntilBlocked());
    EXPECT_FALSE(queue->putMessage(makeMessage(Identifier(7, 1))));
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5)));
    EXPECT_EQ(reader.result(), nullptr);
    EXPECT_GE(reader.elapsed(), milliseconds(200));
}

TEST(MessageQueue_FixedDepth, RefusedPutNotifiesNoWaitingReader) {
#if !defined(KEST_TEST_HOOKS)
    GTEST_SKIP() << "counting wake-ups needs the dispatcher library's test hooks (KEST_TEST_HOOKS)";
#else
    namespace hooks = Kest::Msgs::detail::hooks;
    // The count sees a notify: an accepted put wakes a reader waiting with a
    // time-out, and one waiting without limit, once each.
    for (const std::optional<milliseconds> timeout : {std::optional<milliseconds>(20000), std::optional<milliseconds>()}) {
        auto queue = std::make_shared<MessageQueue_FixedDepth>(1u);
        Reader reader(queue, timeout);
        ASSERT_TRUE(reader.waitUntilBlocked());
        const std::uint64_t before = hooks::readerWakeUps();
        const MessagePtr message = makeMessage(Identifier(7, 1));
        ASSERT_TRUE(queue->putMessage(message));
        ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5)));
        EXPECT_EQ(reader.result(), message);
        EXPECT_EQ(hooks::readerWakeUps(), before + 1) << (timeout ? "timed reader" : "reader without limit");
    }

    // A refused put: the reader ends by its own time-out, never woken.
    auto queue = std::make_shared<MessageQueue_FixedDepth>(0u);
    Reader reader(queue, milliseconds(300));
    ASSERT_TRUE(reader.waitUntilBlocked());
    const std::uint64_t before = hooks::readerWakeUps();
    EXPECT_FALSE(queue->putMessage(makeMessage(Identifier(7, 2))));
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5)));
    EXPECT_EQ(reader.result(), nullptr);
    EXPECT_EQ(hooks::readerWakeUps(), before);
#endif
}

TEST(MessageQueue_FixedDepth, NullEntriesCountTowardsTheDepth) {
    MessageQueue_FixedDepth queue(2u);
    EXPECT_TRUE(queue.putMessage(nullptr));
    EXPECT_TRUE(queue.putMessage(nullptr));
    EXPECT_FALSE(queue.putMessage(nullptr));
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 1))));
    EXPECT_EQ(queue.getAvailableMessagesCount(), 2u);
}

TEST(MessageQueue_FixedDepth, ReachesOneMessageQueueInterfaceThroughBothBases) {
    auto queue = std::make_shared<MessageQueue_FixedDepth>(3u);
    std::shared_ptr<MessageQueueInterface> asInterface = queue;
    ASSERT_NE(asInterface, nullptr);

    // Down from the virtual base only a dynamic cast can go.
    EXPECT_EQ(std::dynamic_pointer_cast<MessageQueue_FixedDepth>(asInterface), queue);
    auto asFixedDepth = std::dynamic_pointer_cast<FixedDepthMessageQueueInterface>(asInterface);
    auto asQueue = std::dynamic_pointer_cast<MessageQueue>(asInterface);
    ASSERT_NE(asFixedDepth, nullptr);
    ASSERT_NE(asQueue, nullptr);

    // Both bases lead back to the same interface subobject.
    EXPECT_EQ(static_cast<MessageQueueInterface*>(asFixedDepth.get()), asInterface.get());
    EXPECT_EQ(static_cast<MessageQueueInterface*>(asQueue.get()), asInterface.get());
    EXPECT_EQ(std::dynamic_pointer_cast<FixedDepthMessageQueueInterface>(asQueue), asFixedDepth);

    // Every path reaches the same overriders: the depth applies through each.
    EXPECT_TRUE(asInterface->putMessage(makeMessage(Identifier(7, 1))));
    EXPECT_TRUE(asQueue->putMessage(makeMessage(Identifier(7, 2))));
    EXPECT_TRUE(asFixedDepth->putMessage(makeMessage(Identifier(7, 3))));
    EXPECT_FALSE(asQueue->putMessage(makeMessage(Identifier(7, 4))));
    EXPECT_FALSE(asInterface->putMessage(makeMessage(Identifier(7, 5))));
    EXPECT_EQ(asQueue->getAvailableMessagesCount(), 3u);
    EXPECT_EQ(asFixedDepth->getMaxDepth(), 3u);
}

}  // namespace

TEST(MessageQueue_FixedDepth, EveryRefusedPutIsCountedAndNoAcceptedOne) {
    MessageQueue_FixedDepth queue(2u);
    EXPECT_EQ(queue.refusedPuts(), 0u);
    ASSERT_TRUE(queue.putMessage(makeMessage(Identifier(7, 1))));
    ASSERT_TRUE(queue.putMessage(nullptr));
    EXPECT_EQ(queue.refusedPuts(), 0u);
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 2))));
    EXPECT_FALSE(queue.putMessage(nullptr));
    EXPECT_EQ(queue.refusedPuts(), 2u);
    ASSERT_NE(queue.getMessage(milliseconds(0)), nullptr);
    EXPECT_TRUE(queue.putMessage(makeMessage(Identifier(7, 3))));
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 4))));
    EXPECT_EQ(queue.refusedPuts(), 3u);
    // Through its interfaces too: the same count.
    const FixedDepthMessageQueueInterface& asInterface = queue;
    EXPECT_EQ(dynamic_cast<const MessageQueue&>(asInterface).refusedPuts(), 3u);
}

TEST(MessageQueue_FixedDepth, DepthZeroCountsEveryPutAsRefused) {
    MessageQueue_FixedDepth queue(0u);
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(7, 1))));
    EXPECT_EQ(queue.refusedPuts(), 5u);
}
