// Closing a queue while writers put and readers get: every message a put
// accepted is read exactly once, none that a put refused is read, every put
// after the close is refused, and every reader ends.

#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/QueuesTestSupport.h>
#include <support/StressTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
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
using KestTest::makeMessage;

using MessagePtr = std::shared_ptr<const Message>;

constexpr int Writers = 3;
constexpr int Readers = 3;

template <class Queue>
class ClosingQueueThreads : public ::testing::Test {};

struct QueueName {
    template <class Queue>
    static std::string GetName(int /*index*/) {
        return std::is_same_v<Queue, MessageQueue> ? "MessageQueue" : "MessageQueue_FixedDepth";
    }
};

using QueueTypes = ::testing::Types<MessageQueue, MessageQueue_FixedDepth>;
TYPED_TEST_SUITE(ClosingQueueThreads, QueueTypes, QueueName);

// Writer w's n-th message carries type n in category w + 1.
std::uint32_t keyOf(const Message& message) {
    return static_cast<std::uint32_t>(static_cast<unsigned long>(message.id()));
}

}  // namespace

TYPED_TEST(ClosingQueueThreads, EveryAcceptedMessageIsReadOnceWhenCloseRacesWithPutsAndGets) {
    KestTest::forEachScheduleSeed([](std::uint64_t) {
        // Enough that the close lands while all of them are busy; a fixed-depth
        // queue of the default depth also refuses some puts for being full.
        const int perWriter = KestTest::scaledCount(20000, 500, 10);
        auto queue = std::make_shared<TypeParam>(std::vector<std::string>{});

        struct Tally {
            std::vector<std::uint32_t> accepted;
            std::uint64_t refusedAfterClose = 0;
            std::uint64_t full = 0;
            std::uint64_t acceptedAfterClose = 0;
        };
        std::vector<Tally> writers(Writers);
        std::vector<std::vector<std::uint32_t>> read(Readers);
        std::atomic<std::uint64_t> acceptedSoFar{0};
        std::atomic<bool> closed{false};

        KestTest::endsWithinOrAbort(KestTest::StressWaitLimit, [&] {
            std::vector<std::thread> threads;
            for (int w = 0; w < Writers; ++w) {
                threads.emplace_back([&, w] {
                    Tally& tally = writers[static_cast<std::size_t>(w)];
                    for (int n = 0; n < perWriter;) {
                        const bool closedBefore = closed.load();
                        auto message = makeMessage(Identifier(static_cast<std::uint16_t>(w + 1), static_cast<std::uint16_t>(n)));
                        if (queue->putMessage(message)) {
                            tally.accepted.push_back(keyOf(*message));
                            if (closedBefore) ++tally.acceptedAfterClose;
                            acceptedSoFar.fetch_add(1);
                            ++n;
                        } else if (queue->isClosed()) {
                            ++tally.refusedAfterClose;
                            ++n;  // and on: every later put must be refused too
                        } else {
                            ++tally.full;  // a full fixed-depth queue: try the same number again
                            std::this_thread::yield();
                        }
                    }
                });
            }
            for (int r = 0; r < Readers; ++r) {
                threads.emplace_back([&, r] {
                    // Empty only once the queue is closed and drained.
                    while (MessagePtr message = queue->getMessage()) {
                        read[static_cast<std::size_t>(r)].push_back(keyOf(*message));
                    }
                });
            }
            // Close once about half of all the messages went in.
            const auto half = static_cast<std::uint64_t>(Writers) * static_cast<std::uint64_t>(perWriter) / 2;
            while (acceptedSoFar.load() < half) std::this_thread::yield();
            queue->close();
            closed.store(true);
            for (auto& thread : threads) thread.join();
        });

        std::vector<std::uint32_t> accepted;
        std::uint64_t refused = 0;
        std::uint64_t full = 0;
        for (const Tally& tally : writers) {
            accepted.insert(accepted.end(), tally.accepted.begin(), tally.accepted.end());
            refused += tally.refusedAfterClose;
            full += tally.full;
            EXPECT_EQ(tally.acceptedAfterClose, 0u) << "a put after the close was accepted";
        }
        std::vector<std::uint32_t> all;
        for (const auto& one : read) all.insert(all.end(), one.begin(), one.end());
        std::sort(accepted.begin(), accepted.end());
        std::sort(all.begin(), all.end());
        EXPECT_EQ(all, accepted) << "read and accepted differ";
        EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end()) << "a message was read twice";
        EXPECT_EQ(accepted.size() + refused, static_cast<std::size_t>(Writers) * static_cast<std::size_t>(perWriter));
        EXPECT_GT(refused, 0u) << "the close came after every put";
        EXPECT_EQ(queue->refusedPuts(), refused + full);
        EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
    });
}
