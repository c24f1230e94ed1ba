// MessageQueue: an unbounded first-in, first-out queue read with a time-out.
//
// The read side is shared by MessageQueue_FixedDepth, which reads exactly as a
// MessageQueue does; the typed tests below run on both.

#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>
#if defined(KEST_TEST_HOOKS)
#include <kest/msgs/internal/TestHooks.h>
#endif

#include <support/QueuesTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageQueue;
using Kest::Msgs::MessageQueue_FixedDepth;
using Kest::Msgs::MessageQueueInterface;
using KestTest::makeMessage;
using KestTest::Reader;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

using MessagePtr = std::shared_ptr<const Message>;

static_assert(!std::is_copy_constructible_v<MessageQueue>);
static_assert(!std::is_copy_assignable_v<MessageQueue>);
static_assert(std::is_base_of_v<MessageQueueInterface, MessageQueue>);
static_assert(std::is_convertible_v<MessageQueue*, MessageQueueInterface*>);
static_assert(std::is_convertible_v<MessageQueue*, Kest::ComponentInterface*>);
// Owners hold queues through a shared pointer made from the concrete type:
// nothing may delete a queue through its interface.
static_assert(!std::is_destructible_v<MessageQueueInterface>);
static_assert(!std::has_virtual_destructor_v<MessageQueue>);

milliseconds since(steady_clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

// A queue whose lock a test can hold, to decide exactly when a reader that
// woke up may look at the list again.
template <class Queue>
class LockableQueue : public Queue {
public:
    using Queue::Queue;
    using Queue::mutex;
};

template <class Queue>
std::shared_ptr<LockableQueue<Queue>> makeQueue() {
    return std::make_shared<LockableQueue<Queue>>(std::vector<std::string>{});
}

template <class Queue>
class BlockingQueue : public ::testing::Test {};

struct QueueName {
    template <class Queue>
    static std::string GetName(int /*index*/) {
        return std::is_same_v<Queue, MessageQueue> ? "MessageQueue" : "MessageQueue_FixedDepth";
    }
};

using BlockingQueueTypes = ::testing::Types<MessageQueue, MessageQueue_FixedDepth>;
TYPED_TEST_SUITE(BlockingQueue, BlockingQueueTypes, QueueName);

// A loose guard for "at once": far above any scheduling delay, far below the
// time-outs that a wrong wait would take.
constexpr milliseconds atOnce(1000);

TYPED_TEST(BlockingQueue, ZeroTimeoutReturnsQueuedMessageAtOnce) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr message = makeMessage(Identifier(1, 1));
    ASSERT_TRUE(queue->putMessage(message));
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds(0)), message);
    EXPECT_LT(since(start), atOnce);
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(BlockingQueue, NegativeTimeoutReturnsQueuedMessageAtOnce) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr message = makeMessage(Identifier(1, 1));
    ASSERT_TRUE(queue->putMessage(message));
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds(-250)), message);
    EXPECT_LT(since(start), atOnce);
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(BlockingQueue, ZeroTimeoutOnEmptyQueueReturnsEmptyAtOnce) {
    auto queue = makeQueue<TypeParam>();
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds(0)), nullptr);
    EXPECT_LT(since(start), atOnce);
}

TYPED_TEST(BlockingQueue, NegativeTimeoutOnEmptyQueueReturnsEmptyAtOnce) {
    auto queue = makeQueue<TypeParam>();
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds(-250)), nullptr);
    EXPECT_LT(since(start), atOnce);
}

// The extremes of the time-out type must not overflow the deadline.
TYPED_TEST(BlockingQueue, SmallestTimeoutOnEmptyQueueReturnsEmptyAtOnce) {
    auto queue = makeQueue<TypeParam>();
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds::min()), nullptr);
    EXPECT_LT(since(start), atOnce);
}

TYPED_TEST(BlockingQueue, LargestFiniteTimeoutWaitsUntilAMessageArrives) {
    auto queue = makeQueue<TypeParam>();
    Reader reader(queue, milliseconds::max() - milliseconds(1));
    ASSERT_TRUE(reader.waitUntilBlocked()) << "getMessage(max - 1) returned without a message";
    const MessagePtr message = makeMessage(Identifier(1, 4));
    ASSERT_TRUE(queue->putMessage(message));
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5)));
    EXPECT_EQ(reader.result(), message);
}

TYPED_TEST(BlockingQueue, TimeoutOnEmptyQueueReturnsEmptyAfterTheFullTimeout) {
    auto queue = makeQueue<TypeParam>();
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds(100)), nullptr);
    const milliseconds waited = since(start);
    EXPECT_GE(waited, milliseconds(100));
    EXPECT_LT(waited, milliseconds(2000));
}

TYPED_TEST(BlockingQueue, GetMessageWithoutTimeoutWaitsUntilAMessageArrives) {
    auto queue = makeQueue<TypeParam>();
    Reader reader(queue, std::nullopt);
    ASSERT_TRUE(reader.waitUntilBlocked()) << "getMessage() returned without a message";
    const MessagePtr message = makeMessage(Identifier(1, 2));
    ASSERT_TRUE(queue->putMessage(message));
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5)));
    EXPECT_EQ(reader.result(), message);
}

TYPED_TEST(BlockingQueue, MaximumTimeoutWaitsUntilAMessageArrives) {
    auto queue = makeQueue<TypeParam>();
    Reader reader(queue, milliseconds::max());
    ASSERT_TRUE(reader.waitUntilBlocked()) << "getMessage(max) returned without a message";
    const MessagePtr message = makeMessage(Identifier(1, 3));
    ASSERT_TRUE(queue->putMessage(message));
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5)));
    EXPECT_EQ(reader.result(), message);
}

TYPED_TEST(BlockingQueue, MessagePutDuringATimedWaitIsReturnedBeforeTheTimeout) {
    auto queue = makeQueue<TypeParam>();
    Reader reader(queue, milliseconds(20000));
    ASSERT_TRUE(reader.waitUntilBlocked());
    const MessagePtr message = makeMessage(Identifier(1, 4));
    ASSERT_TRUE(queue->putMessage(message));
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5)));
    EXPECT_EQ(reader.result(), message);
    EXPECT_LT(reader.elapsed(), milliseconds(20000));
}

// The reader's wait runs out while the test holds the queue's lock; the
// message put just before the lock is released must still be returned.
TYPED_TEST(BlockingQueue, MessageArrivingAsTheTimeoutExpiresIsStillReturned) {
    auto queue = makeQueue<TypeParam>();
    constexpr milliseconds timeout(50);
    Reader reader(queue, timeout);
    ASSERT_TRUE(reader.waitUntilBlocked());
    // The reader computed its deadlines before it fell asleep, so both lie
    // before these.
    const auto steadyPast = steady_clock::now() + timeout + milliseconds(5);
    const auto wallPast = std::chrono::system_clock::now() + timeout + milliseconds(5);
    const MessagePtr message = makeMessage(Identifier(1, 5));
    {
        std::lock_guard<std::mutex> lock(queue->mutex());
        while (steady_clock::now() < steadyPast || std::chrono::system_clock::now() < wallPast) {
            std::this_thread::yield();
        }
        queue->internalPutMessage(message);
    }
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5)));
    EXPECT_EQ(reader.result(), message);
    EXPECT_GE(reader.elapsed(), timeout);
}

TYPED_TEST(BlockingQueue, MessagesComeOutInTheOrderTheyWerePut) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr a = makeMessage(Identifier(2, 1));
    const MessagePtr b = makeMessage(Identifier(2, 2));
    const MessagePtr c = makeMessage(Identifier(2, 3));
    ASSERT_TRUE(queue->putMessage(a));
    ASSERT_TRUE(queue->putMessage(b));
    ASSERT_TRUE(queue->putMessage(c));
    EXPECT_EQ(queue->getMessage(milliseconds(0)), a);
    EXPECT_EQ(queue->getMessage(milliseconds(0)), b);
    EXPECT_EQ(queue->getMessage(milliseconds(0)), c);
    EXPECT_EQ(queue->getMessage(milliseconds(0)), nullptr);
}

TYPED_TEST(BlockingQueue, CountFollowsPutsAndGets) {
    auto queue = makeQueue<TypeParam>();
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
    ASSERT_TRUE(queue->putMessage(makeMessage(Identifier(2, 1))));
    ASSERT_TRUE(queue->putMessage(makeMessage(Identifier(2, 2))));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 2u);
    ASSERT_NE(queue->getMessage(milliseconds(0)), nullptr);
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
    ASSERT_NE(queue->getMessage(milliseconds(0)), nullptr);
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(BlockingQueue, QueueSharesTheMessageAndHandsItsReferenceToTheReader) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr message = makeMessage(Identifier(2, 4));
    ASSERT_TRUE(queue->putMessage(message));
    EXPECT_EQ(message.use_count(), 2);
    MessagePtr taken = queue->getMessage(milliseconds(0));
    EXPECT_EQ(taken.get(), message.get());
    EXPECT_EQ(message.use_count(), 2);  // ours and the reader's; the queue keeps none
}

TYPED_TEST(BlockingQueue, DestroyingTheQueueReleasesPendingMessages) {
    auto queue = makeQueue<TypeParam>();
    std::weak_ptr<const Message> watched;
    {
        const MessagePtr message = makeMessage(Identifier(2, 5));
        watched = message;
        ASSERT_TRUE(queue->putMessage(message));
    }
    EXPECT_FALSE(watched.expired());
    queue.reset();
    EXPECT_TRUE(watched.expired());
}

TYPED_TEST(BlockingQueue, PutNullReturnsTrueAndRaisesTheCount) {
    auto queue = makeQueue<TypeParam>();
    EXPECT_TRUE(queue->putMessage(nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
}

TYPED_TEST(BlockingQueue, NullEntryIsDroppedAndTimedReadWaitsTheFullTimeout) {
    auto queue = makeQueue<TypeParam>();
    ASSERT_TRUE(queue->putMessage(nullptr));
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds(100)), nullptr);
    const milliseconds waited = since(start);
    EXPECT_GE(waited, milliseconds(100));
    EXPECT_LT(waited, milliseconds(2000));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(BlockingQueue, NullEntryAheadOfAMessageIsSkipped) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr message = makeMessage(Identifier(2, 6));
    ASSERT_TRUE(queue->putMessage(nullptr));
    ASSERT_TRUE(queue->putMessage(message));
    EXPECT_EQ(queue->getMessage(milliseconds(0)), message);
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(BlockingQueue, WaitingReaderIsWokenByNullPutAndReturnsEmptyAtOnce) {
    auto queue = makeQueue<TypeParam>();
    Reader reader(queue, milliseconds(20000));
    ASSERT_TRUE(reader.waitUntilBlocked());
    ASSERT_TRUE(queue->putMessage(nullptr));
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5))) << "the null entry did not wake the reader";
    EXPECT_EQ(reader.result(), nullptr);
    EXPECT_LT(reader.elapsed(), milliseconds(20000));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(BlockingQueue, ReaderWaitingWithoutLimitIsWokenByNullPutAndReturnsEmpty) {
    auto queue = makeQueue<TypeParam>();
    Reader reader(queue, std::nullopt);
    ASSERT_TRUE(reader.waitUntilBlocked());
    ASSERT_TRUE(queue->putMessage(nullptr));
    ASSERT_TRUE(reader.waitForResult(std::chrono::seconds(5))) << "the null entry did not wake the reader";
    EXPECT_EQ(reader.result(), nullptr);
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

#if defined(KEST_TEST_HOOKS)
namespace {

std::atomic<int> wallReads{0};

// The first read is the one getMessage turns into its wall-clock deadline;
// from the next one on, the wall clock is an hour ahead.
std::chrono::system_clock::time_point wallClockJumpingAfterTheDeadline() {
    const auto now = std::chrono::system_clock::now();
    return wallReads.fetch_add(1) == 0 ? now : now + std::chrono::hours(1);
}

// Restores the real clocks, also when a check fails.
struct RealClocksAtExit {
    ~RealClocksAtExit() {
        Kest::Msgs::detail::hooks::setWallNow(nullptr);
        Kest::Msgs::detail::hooks::setSteadyNow(nullptr);
    }
};

}  // namespace
#endif

TYPED_TEST(BlockingQueue, WallClockJumpingAnHourAheadDoesNotEndATimedWaitEarly) {
#if !defined(KEST_TEST_HOOKS)
    GTEST_SKIP() << "replacing the wall clock needs the dispatcher library's test hooks (KEST_TEST_HOOKS)";
#else
    // Both deadlines must pass: the wall clock's alone would end the wait at once.
    auto queue = makeQueue<TypeParam>();
    RealClocksAtExit restore;
    wallReads = 0;
    Kest::Msgs::detail::hooks::setWallNow(&wallClockJumpingAfterTheDeadline);
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds(250)), nullptr);
    const milliseconds waited = since(start);
    Kest::Msgs::detail::hooks::setWallNow(nullptr);
    EXPECT_GE(wallReads.load(), 2) << "getMessage did not read the replaced wall clock";
    EXPECT_GE(waited, milliseconds(250));
    // Nor may the jump make the real wait longer (it would sleep an hour).
    EXPECT_LT(waited, atOnce + milliseconds(250));
#endif
}

TYPED_TEST(BlockingQueue, TakeAllAvailableMessagesAppendsOldestFirst) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr a = makeMessage(Identifier(3, 1));
    const MessagePtr b = makeMessage(Identifier(3, 2));
    const MessagePtr c = makeMessage(Identifier(3, 3));
    ASSERT_TRUE(queue->putMessage(a));
    ASSERT_TRUE(queue->putMessage(b));
    ASSERT_TRUE(queue->putMessage(c));
    std::list<MessagePtr> taken;
    queue->takeAllAvailableMessages(taken);
    EXPECT_EQ(taken, (std::list<MessagePtr>{a, b, c}));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(BlockingQueue, TakeAllAvailableMessagesKeepsTheListsPreviousContent) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr old1 = makeMessage(Identifier(3, 10));
    const MessagePtr old2 = makeMessage(Identifier(3, 11));
    const MessagePtr a = makeMessage(Identifier(3, 1));
    const MessagePtr b = makeMessage(Identifier(3, 2));
    ASSERT_TRUE(queue->putMessage(a));
    ASSERT_TRUE(queue->putMessage(b));
    std::list<MessagePtr> taken{old1, old2};
    queue->takeAllAvailableMessages(taken);
    EXPECT_EQ(taken, (std::list<MessagePtr>{old1, old2, a, b}));
}

TYPED_TEST(BlockingQueue, TakeAllAvailableMessagesSkipsNullEntriesAndTakesWhatFollows) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr a = makeMessage(Identifier(3, 1));
    const MessagePtr b = makeMessage(Identifier(3, 2));
    const MessagePtr c = makeMessage(Identifier(3, 3));
    for (const MessagePtr& entry : {a, MessagePtr(), MessagePtr(), b}) ASSERT_TRUE(queue->putMessage(entry));
    std::list<MessagePtr> taken;
    queue->takeAllAvailableMessages(taken);
    EXPECT_EQ(taken, (std::list<MessagePtr>{a, b}));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);

    // Null entries first, between and last.
    for (const MessagePtr& entry : {MessagePtr(), MessagePtr(), c, MessagePtr(), a, MessagePtr(), MessagePtr()}) {
        ASSERT_TRUE(queue->putMessage(entry));
    }
    taken.clear();
    queue->takeAllAvailableMessages(taken);
    EXPECT_EQ(taken, (std::list<MessagePtr>{c, a}));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(BlockingQueue, TimedReadOnTwoNullEntriesAheadOfAMessageReturnsEmptyAtOnce) {
    // The first null entry is dropped; the count is then not zero, so the
    // front entry, the second null, is taken and returned as it is.
    auto queue = makeQueue<TypeParam>();
    const MessagePtr a = makeMessage(Identifier(3, 1));
    for (const MessagePtr& entry : {MessagePtr(), MessagePtr(), a}) ASSERT_TRUE(queue->putMessage(entry));
    const auto start = steady_clock::now();
    EXPECT_EQ(queue->getMessage(milliseconds(20000)), nullptr);
    EXPECT_LT(since(start), atOnce);
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(queue->getMessage(milliseconds(0)), a);
}

TYPED_TEST(BlockingQueue, TakeAllAvailableMessagesNeverBlocksOnAnEmptyQueue) {
    auto queue = makeQueue<TypeParam>();
    auto taken = std::make_shared<std::list<MessagePtr>>();
    taken->push_back(makeMessage(Identifier(3, 10)));
    const auto start = steady_clock::now();
    const bool ended = KestTest::finishesWithin(std::chrono::seconds(5), [queue, taken] {
        queue->takeAllAvailableMessages(*taken);
    });
    if (!ended) {
        queue->putMessage(makeMessage(Identifier(3, 99)));  // let the stuck call go
        FAIL() << "takeAllAvailableMessages blocked on an empty queue";
    }
    EXPECT_LT(since(start), atOnce);
    EXPECT_EQ(taken->size(), 1u);
}

TEST(MessageQueue, OpenQueueRefusesNoPut) {
    MessageQueue queue;
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(queue.putMessage(i % 2 == 0 ? makeMessage(Identifier(7, 1)) : nullptr));
    EXPECT_EQ(queue.refusedPuts(), 0u);
}

TEST(MessageQueue, ConstructorArgumentsHaveNoEffect) {
    using Args = std::vector<std::string>;
    for (const Args& args : {Args{}, Args{"0"}, Args{"1", "x", ""}}) {
        MessageQueue queue(args);
        EXPECT_TRUE(queue.instanceId().empty());
        EXPECT_EQ(queue.getAvailableMessagesCount(), 0u);
        EXPECT_EQ(queue.getMessage(milliseconds(0)), nullptr);
        for (int i = 0; i < 200; ++i) ASSERT_TRUE(queue.putMessage(makeMessage(Identifier(4, 1))));
        EXPECT_EQ(queue.getAvailableMessagesCount(), 200u);
    }
}

TEST(MessageQueue, ReachesOneMessageQueueInterface) {
    auto queue = std::make_shared<MessageQueue>();
    std::shared_ptr<MessageQueueInterface> asInterface = queue;
    EXPECT_EQ(std::dynamic_pointer_cast<MessageQueue>(asInterface), queue);
}

}  // namespace
