// The handled-message history under posts from several threads: a message
// posted by four threads at once is delivered once, and the history forgets
// exactly the oldest identity when the 10,001st distinct one arrives.

#include <kest/model/Message.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <support/StressTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

const Identifier Reading(0x0300, 1);

constexpr int Posters = 4;
// The number of distinct identities the dispatcher remembers.
constexpr int HistoryLength = 10000;

std::shared_ptr<const Message> makeNumbered(int number) {
    return makeMessage(Reading, {"N", std::to_string(number)});
}

int numberOf(const Message& message) { return std::stoi(message.sender().at(1)); }

std::vector<std::shared_ptr<const Message>> drainAll(MessageQueueInterface& queue) {
    std::vector<std::shared_ptr<const Message>> taken;
    while (std::shared_ptr<const Message> message = queue.getMessage(std::chrono::milliseconds(0))) {
        taken.push_back(std::move(message));
    }
    return taken;
}

// Runs `post(thread)` on `Posters` threads released together; returns how
// many of them returned true.
int race(const std::function<bool(int)>& post) {
    Rendezvous start(Posters);
    std::atomic<int> accepted{0};
    std::atomic<bool> late{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < Posters; ++t) {
        threads.emplace_back([&, t] {
            if (!start.arrive()) late = true;
            if (post(t)) ++accepted;
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_FALSE(late) << "the racing threads did not meet";
    return accepted;
}

}  // namespace

TEST(HistoryStress, EachOfTwentyThousandMessagesPostedByFourThreadsIsDeliveredOnce) {
    // Blocks of messages, all four threads posting one block before any moves
    // on: every post of a message then falls within the last 10,000 distinct
    // identities, which the history remembers.
    constexpr int Block = 1000;
    const int count = scaledCount(20000, 2 * Block, 5) / Block * Block;

    forEachScheduleSeed([&](std::uint64_t seed) {
        MessageDispatcher dispatcher;
        auto sink = std::make_shared<MessageQueue>();
        ASSERT_TRUE(dispatcher.subscribe(sink, {}, Reading));
        std::vector<std::shared_ptr<const Message>> messages;
        for (int i = 0; i < count; ++i) messages.push_back(makeNumbered(i));

        // accepted[t][i]: thread t's post of message i returned true.
        std::vector<std::vector<char>> accepted(Posters, std::vector<char>(static_cast<std::size_t>(count), 0));
        Rendezvous blockDone(Posters);
        std::atomic<bool> late{false};
        std::vector<std::thread> posters;
        for (int t = 0; t < Posters; ++t) {
            posters.emplace_back([&, t] {
                // Thread 0 goes up, thread 1 down, the others in shuffled orders.
                std::mt19937_64 random(seed * 16 + static_cast<std::uint64_t>(t));
                std::vector<int> order(Block);
                for (int first = 0; first < count; first += Block) {
                    std::iota(order.begin(), order.end(), first);
                    if (t == 1) std::reverse(order.begin(), order.end());
                    if (t >= 2) std::shuffle(order.begin(), order.end(), random);
                    for (int i : order) accepted[t][i] = dispatcher.postMessage(messages[i], nullptr) ? 1 : 0;
                    if (!blockDone.arrive()) {
                        late = true;
                        return;
                    }
                }
            });
        }
        for (auto& thread : posters) thread.join();
        ASSERT_FALSE(late) << "a poster waited too long for the others";

        std::vector<int> delivered(static_cast<std::size_t>(count), 0);
        for (const auto& message : drainAll(*sink)) ++delivered[numberOf(*message)];
        int wrongAccepts = 0;
        int wrongDeliveries = 0;
        long refusedPosts = 0;
        for (int i = 0; i < count; ++i) {
            int accepts = 0;
            for (int t = 0; t < Posters; ++t) accepts += accepted[t][i];
            refusedPosts += Posters - accepts;
            if (accepts != 1 && wrongAccepts++ < 5) ADD_FAILURE() << "message " << i << " accepted " << accepts << " times";
            if (delivered[i] != 1 && wrongDeliveries++ < 5) {
                ADD_FAILURE() << "message " << i << " delivered " << delivered[i] << " times";
            }
        }
        EXPECT_EQ(wrongAccepts, 0);
        EXPECT_EQ(wrongDeliveries, 0);
        EXPECT_EQ(refusedPosts, static_cast<long>(count) * (Posters - 1));
    });
}

TEST(HistoryStress, TheTenThousandAndFirstIdentityEvictsTheOldestWhenThreadsRace) {
    forEachScheduleSeed([&](std::uint64_t /*seed*/) {
        MessageDispatcher dispatcher;
        auto sink = std::make_shared<MessageQueue>();
        ASSERT_TRUE(dispatcher.subscribe(sink, {}, Reading));
        std::vector<std::shared_ptr<const Message>> messages;
        for (int i = 0; i < HistoryLength; ++i) messages.push_back(makeNumbered(i));

        // 10,000 distinct messages from four threads, interleaved.
        std::atomic<int> refused{0};
        race([&](int t) {
            for (int i = t; i < HistoryLength; i += Posters) {
                if (!dispatcher.postMessage(messages[i], nullptr)) ++refused;
            }
            return false;
        });
        ASSERT_EQ(refused, 0);
        // The sink got them in the order the history recorded them.
        const auto arrived = drainAll(*sink);
        ASSERT_EQ(arrived.size(), static_cast<std::size_t>(HistoryLength));
        const int oldest = numberOf(*arrived[0]);
        const int second = numberOf(*arrived[1]);
        const int third = numberOf(*arrived[2]);

        // All of them are remembered: every repeat is refused, the oldest by every thread.
        std::atomic<int> repeatsAccepted{0};
        race([&](int t) {
            for (int i = t; i < HistoryLength; i += Posters) {
                if (dispatcher.postMessage(messages[i], nullptr)) ++repeatsAccepted;
            }
            return dispatcher.postMessage(messages[oldest], nullptr);
        });
        EXPECT_EQ(repeatsAccepted, 0) << "a message among the last 10,000 was accepted again";
        EXPECT_EQ(sink->getAvailableMessagesCount(), 0U);

        // The 10,001st distinct identity evicts the oldest: of four threads
        // reposting it at once, exactly one succeeds, and that evicts the second.
        ASSERT_TRUE(dispatcher.postMessage(makeNumbered(HistoryLength), nullptr));
        EXPECT_EQ(race([&](int) { return dispatcher.postMessage(messages[oldest], nullptr); }), 1)
            << "the oldest identity must be accepted exactly once after the 10,001st";
        EXPECT_EQ(race([&](int) { return dispatcher.postMessage(messages[third], nullptr); }), 0)
            << "the third oldest must still be remembered";
        EXPECT_EQ(race([&](int) { return dispatcher.postMessage(messages[second], nullptr); }), 1)
            << "the second oldest must have been evicted by the oldest's return";

        std::vector<int> delivered;
        for (const auto& message : drainAll(*sink)) delivered.push_back(numberOf(*message));
        EXPECT_EQ(delivered, (std::vector<int>{HistoryLength, oldest, second}));
    });
}
