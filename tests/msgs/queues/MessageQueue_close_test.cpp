// Closing a MessageQueue or a MessageQueue_FixedDepth: waiting readers are
// released at once, what is left can still be read and then reads return
// empty without waiting, and later puts are refused and counted.

#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/QueuesTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageQueue;
using Kest::Msgs::MessageQueue_FixedDepth;
using KestTest::makeMessage;
using KestTest::Reader;
using std::chrono::milliseconds;

using MessagePtr = std::shared_ptr<const Message>;

// A loose upper guard for "at once": far above any scheduling delay, far
// below the waits that a missed close would take (without limit, or an hour).
constexpr milliseconds atOnce(2000);

template <class Queue>
std::shared_ptr<Queue> makeQueue() {
    return std::make_shared<Queue>(std::vector<std::string>{});
}

template <class Queue>
class ClosingQueue : public ::testing::Test {};

struct QueueName {
    template <class Queue>
    static std::string GetName(int /*index*/) {
        return std::is_same_v<Queue, MessageQueue> ? "MessageQueue" : "MessageQueue_FixedDepth";
    }
};

using QueueTypes = ::testing::Types<MessageQueue, MessageQueue_FixedDepth>;
TYPED_TEST_SUITE(ClosingQueue, QueueTypes, QueueName);

// The time-outs a blocked reader may be waiting with: none (getMessage()),
// the maximum, and a long finite one.
const std::vector<std::optional<milliseconds>>& waits() {
    static const std::vector<std::optional<milliseconds>> all{std::nullopt, milliseconds::max(),
                                                               milliseconds(std::chrono::hours(1))};
    return all;
}

}  // namespace

TYPED_TEST(ClosingQueue, OpenQueueIsNotClosedAndCloseIsIdempotent) {
    auto queue = makeQueue<TypeParam>();
    EXPECT_FALSE(queue->isClosed());
    queue->close();
    EXPECT_TRUE(queue->isClosed());
    queue->close();
    EXPECT_TRUE(queue->isClosed());
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(ClosingQueue, BlockedReaderIsReleasedWithEmptyAtOnceWhateverItsTimeout) {
    for (const auto& wait : waits()) {
        SCOPED_TRACE(wait ? std::to_string(wait->count()) + " ms" : std::string("no time-out"));
        auto queue = makeQueue<TypeParam>();
        Reader reader(queue, wait);
        ASSERT_TRUE(reader.waitUntilBlocked());
        queue->close();
        ASSERT_TRUE(reader.waitForResult(atOnce)) << "the reader was not released";
        EXPECT_EQ(reader.result(), nullptr);
    }
}

TYPED_TEST(ClosingQueue, EveryBlockedReaderIsReleased) {
    auto queue = makeQueue<TypeParam>();
    std::vector<std::unique_ptr<Reader>> readers;
    for (const auto& wait : {std::optional<milliseconds>(), std::optional<milliseconds>(milliseconds::max()),
                             std::optional<milliseconds>(std::chrono::hours(1)), std::optional<milliseconds>()}) {
        readers.push_back(std::make_unique<Reader>(queue, wait));
    }
    for (auto& reader : readers) ASSERT_TRUE(reader->waitUntilBlocked());
    queue->close();
    for (auto& reader : readers) {
        ASSERT_TRUE(reader->waitForResult(atOnce)) << "a reader was not released";
        EXPECT_EQ(reader->result(), nullptr);
    }
}

TYPED_TEST(ClosingQueue, LeftoversAreReadInOrderSkippingNullEntriesThenEmptyWithoutWaiting) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr first = makeMessage(Identifier(9, 1));
    const MessagePtr second = makeMessage(Identifier(9, 2));
    ASSERT_TRUE(queue->putMessage(first));
    ASSERT_TRUE(queue->putMessage(nullptr));
    ASSERT_TRUE(queue->putMessage(nullptr));
    ASSERT_TRUE(queue->putMessage(second));
    ASSERT_TRUE(queue->putMessage(nullptr));
    queue->close();

    EXPECT_EQ(queue->getMessage(), first);
    EXPECT_EQ(queue->getMessage(milliseconds(0)), second);
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);  // the last null entry
    // Nothing left: every kind of read returns empty at once, each on a
    // thread of its own so that a read that waits fails instead of hanging.
    for (const auto& wait : waits()) {
        SCOPED_TRACE(wait ? std::to_string(wait->count()) + " ms" : std::string("no time-out"));
        Reader reader(queue, wait);
        ASSERT_TRUE(reader.waitForResult(atOnce)) << "a read of a closed, empty queue waited";
        EXPECT_EQ(reader.result(), nullptr);
    }
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(ClosingQueue, TakeAllAvailableMessagesTakesTheLeftovers) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr first = makeMessage(Identifier(9, 1));
    const MessagePtr second = makeMessage(Identifier(9, 2));
    ASSERT_TRUE(queue->putMessage(first));
    ASSERT_TRUE(queue->putMessage(nullptr));
    ASSERT_TRUE(queue->putMessage(second));
    queue->close();
    std::list<MessagePtr> taken;
    queue->takeAllAvailableMessages(taken);
    EXPECT_EQ(taken, (std::list<MessagePtr>{first, second}));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
}

TYPED_TEST(ClosingQueue, PutsAfterCloseAreRefusedAndCounted) {
    auto queue = makeQueue<TypeParam>();
    const MessagePtr before = makeMessage(Identifier(9, 1));
    ASSERT_TRUE(queue->putMessage(before));
    queue->close();
    const MessagePtr after = makeMessage(Identifier(9, 2));
    EXPECT_FALSE(queue->putMessage(after));
    EXPECT_FALSE(queue->putMessage(nullptr));
    EXPECT_EQ(queue->refusedPuts(), 2u);
    EXPECT_EQ(after.use_count(), 1) << "the refused message is held by the queue";
    EXPECT_EQ(queue->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(queue->getMessage(milliseconds(0)), before);
    EXPECT_FALSE(queue->putMessage(after));
    EXPECT_EQ(queue->refusedPuts(), 3u);
}

TEST(ClosingFixedDepthQueue, ClosedQueueRefusesEvenWhenItHasRoom) {
    MessageQueue_FixedDepth queue(5u);
    ASSERT_TRUE(queue.putMessage(makeMessage(Identifier(9, 1))));
    queue.close();
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(9, 2))));
    queue.setMaxDepth(100);
    EXPECT_FALSE(queue.putMessage(makeMessage(Identifier(9, 3))));
    EXPECT_EQ(queue.refusedPuts(), 2u);
    EXPECT_EQ(queue.getAvailableMessagesCount(), 1u);
}
