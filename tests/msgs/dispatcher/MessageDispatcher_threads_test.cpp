// Several threads posting through one dispatcher while another changes its
// subscriptions: nothing is lost, nothing is doubled, and each poster's
// messages keep their order.

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <support/DispatcherTestSupport.h>
#include <support/TestSupport.h>

#include <support/StressTestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

const Identifier Reading(0x0100, 1);

constexpr int Posters = 4;

// Poster and sequence number, carried in the sender address {"P", poster, sequence}.
struct Origin {
    int poster;
    int sequence;
};

Origin originOf(const Message& message) {
    const Address& sender = message.sender();
    return Origin{std::stoi(sender.at(1)), std::stoi(sender.at(2))};
}

// For each poster, the sequence numbers in the order `queue` received them.
std::vector<std::vector<int>> sequencesByPoster(const std::vector<std::shared_ptr<const Message>>& messages) {
    std::vector<std::vector<int>> sequences(Posters);
    for (const auto& message : messages) {
        const Origin origin = originOf(*message);
        sequences.at(static_cast<std::size_t>(origin.poster)).push_back(origin.sequence);
    }
    return sequences;
}

std::vector<int> range(int from, int to) {
    std::vector<int> numbers;
    for (int i = from; i < to; ++i) numbers.push_back(i);
    return numbers;
}

}  // namespace

TEST(MessageDispatcherThreads, PostersLoseNothingWhileSubscriptionsChange) {
    const int perPoster = KestTest::scaledCount(1500, 50);
    MessageDispatcher dispatcher;

    // Subscribed the whole time, to everything the posters send.
    auto whole = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher.subscribe(whole, {}, Reading));
    // Each poster's own queue hears the other posters, never itself.
    std::vector<std::shared_ptr<MessageQueue>> own;
    for (int p = 0; p < Posters; ++p) {
        own.push_back(std::make_shared<MessageQueue>());
        ASSERT_TRUE(dispatcher.subscribe(own.back(), {"P"}, Reading));
    }
    // Keys that match nothing bring the table to 12 entries, so the changing
    // subscriptions below move it back and forth across the scan limit.
    auto idle = std::make_shared<MessageQueue>();
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(dispatcher.subscribe(idle, {"idle", std::to_string(i)}, Reading));

    // The posters start once the first extra queue is subscribed, so that at
    // least one of them overlaps the posting.
    std::promise<void> firstSubscribed;
    std::shared_future<void> start = firstSubscribed.get_future().share();
    std::atomic<int> postersRunning{Posters};
    std::atomic<int> refusedPosts{0};

    // Each extra queue is subscribed for one stretch of the posting, then left.
    struct Extra {
        std::shared_ptr<MessageQueue> queue;
        std::vector<std::shared_ptr<const Message>> received;
    };
    std::vector<Extra> extras;
    constexpr std::size_t MaxExtras = 3000;
    std::thread changer([&] {
        for (std::size_t round = 0; round < MaxExtras && postersRunning.load() > 0; ++round) {
            Extra extra{std::make_shared<MessageQueue>(), {}};
            const Address address = round % 2 == 0 ? Address{"P"} : Address{};
            dispatcher.subscribe(extra.queue, address, Reading);
            dispatcher.subscribe(extra.queue, {"elsewhere", std::to_string(round)}, Reading);
            if (round == 0) firstSubscribed.set_value();
            // The first queue stays subscribed until something arrives (or the
            // posters are done); the others come and go as fast as they can.
            while (round == 0 && postersRunning.load() > 0) {
                if (auto first = extra.queue->getMessage(std::chrono::milliseconds(1))) {
                    extra.received.push_back(first);
                    break;
                }
            }
            if (round % 3 == 0) {
                dispatcher.unsubscribeFromAll(extra.queue);
            } else {
                dispatcher.unsubscribe(extra.queue, address, Reading);
                dispatcher.unsubscribe(extra.queue, {"elsewhere", std::to_string(round)}, Reading);
            }
            extras.push_back(std::move(extra));
        }
    });

    std::vector<std::thread> posters;
    for (int p = 0; p < Posters; ++p) {
        posters.emplace_back([&, p] {
            start.wait();
            for (int seq = 0; seq < perPoster; ++seq) {
                auto message = makeMessage(Reading, {"P", std::to_string(p), std::to_string(seq)});
                if (!dispatcher.postMessage(message, own[static_cast<std::size_t>(p)])) ++refusedPosts;
            }
            --postersRunning;
        });
    }

    for (auto& poster : posters) poster.join();
    changer.join();

    EXPECT_EQ(refusedPosts.load(), 0);
    const auto all = drainMessages(*whole);
    ASSERT_EQ(all.size(), static_cast<std::size_t>(Posters * perPoster));
    const auto wholeSequences = sequencesByPoster(all);
    for (int p = 0; p < Posters; ++p) {
        EXPECT_EQ(wholeSequences[static_cast<std::size_t>(p)], range(0, perPoster)) << "poster " << p;
    }
    std::set<std::string> identities;
    for (const auto& message : all) identities.insert(message->identity());
    EXPECT_EQ(identities.size(), all.size());

    for (int p = 0; p < Posters; ++p) {
        const auto sequences = sequencesByPoster(drainMessages(*own[static_cast<std::size_t>(p)]));
        for (int q = 0; q < Posters; ++q) {
            const auto& got = sequences[static_cast<std::size_t>(q)];
            if (q == p) {
                EXPECT_TRUE(got.empty()) << "poster " << p << " received its own messages";
            } else {
                EXPECT_EQ(got, range(0, perPoster)) << "queue of poster " << p << ", from poster " << q;
            }
        }
    }

    // A queue subscribed over one stretch of the totally ordered posts got,
    // from each poster, one unbroken run of that poster's messages.
    std::size_t extraMessages = 0;
    for (std::size_t e = 0; e < extras.size(); ++e) {
        auto received = extras[e].received;
        const auto rest = drainMessages(*extras[e].queue);
        received.insert(received.end(), rest.begin(), rest.end());
        extraMessages += received.size();
        const auto sequences = sequencesByPoster(received);
        for (int p = 0; p < Posters; ++p) {
            const auto& got = sequences[static_cast<std::size_t>(p)];
            if (got.empty()) continue;
            EXPECT_EQ(got, range(got.front(), got.front() + static_cast<int>(got.size())))
                << "extra queue " << e << ", poster " << p;
        }
    }
    RecordProperty("extraQueues", static_cast<int>(extras.size()));
    RecordProperty("extraMessages", static_cast<int>(extraMessages));
    EXPECT_GT(extras.size(), 0u);
    EXPECT_GT(extraMessages, 0u);

    // Every changing subscription is gone again.
    MessageDispatcherInterface::SubscriptionsTable table;
    EXPECT_EQ(dispatcher.getSubscriptionsTable(table), 12u);
}
