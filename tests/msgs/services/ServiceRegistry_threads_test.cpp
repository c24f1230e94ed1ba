// The service registry under concurrent registration and posting.

#include "ServiceFixture.h"

#include <kest/msgs/queues/MessageCallback.h>
#include <support/QueuesTestSupport.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace ServiceTest;
using Kest::Msgs::MessageCallback;

// The slot of the queue whose registration the calling thread is changing,
// or -1. Notices are delivered synchronously inside the change, on the
// changing thread, so a receiving callback can tell whom a notice is about.
thread_local int changingSlot = -1;

// What one service queue saw; written only by its callback, which runs
// under the dispatcher's lock, and read after the threads are joined.
struct Seen {
    std::vector<std::string> requests;  // identities of the requests it took
    int notices = 0;
    int noticesAboutItself = 0;
    int noticesOutsideAChange = 0;
    int noticesOfOtherKeys = 0;
};

// Opens once, for every thread waiting on it.
class StartGate {
public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        opened_.wait(lock, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

TEST(ServiceRegistryThreads, RequestsReachOneQueueOrFailWhileServicesComeAndGo) {
    constexpr int kRegistrars = 2;
    constexpr int kPosters = 2;
    constexpr int kSlotsPerRegistrar = 2;
    constexpr int kSlots = kRegistrars * kSlotsPerRegistrar;
    const Address service = {"svc"};
    const int postsPerPoster = KestTest::scaledCount(3000, 200);
    const int leastChanges = KestTest::scaledCount(1500, 100);

    auto dispatcher = std::make_shared<MessageDispatcher>();
    std::vector<Seen> seen(kSlots);
    std::vector<std::shared_ptr<MessageCallback>> queues;
    for (int slot = 0; slot < kSlots; ++slot) {
        Seen* mine = &seen[static_cast<std::size_t>(slot)];
        queues.push_back(std::make_shared<MessageCallback>(
            [mine, slot, service](const std::shared_ptr<const Message>& message) {
                if (message->id().category() != Fwd::Category) {
                    mine->requests.push_back(message->identity());
                    return;
                }
                ++mine->notices;
                if (changingSlot == slot) ++mine->noticesAboutItself;
                if (changingSlot < 0) ++mine->noticesOutsideAChange;
                if (KestTest::readNotice(*message).keyDestination != service) ++mine->noticesOfOtherKeys;
            }));
        // Every service queue also listens to the notices, like a forwarder.
        ASSERT_TRUE(dispatcher->subscribe(queues.back(), {}, kRankNoticeId));
        ASSERT_TRUE(dispatcher->subscribe(queues.back(), {}, kChangeNoticeId));
    }

    StartGate gate;
    std::mutex postingMutex;
    int postersRunning = kPosters;  // guarded by postingMutex

    std::vector<std::thread> threads;
    for (int r = 0; r < kRegistrars; ++r) {
        threads.emplace_back([&, r] {
            std::mt19937 random(static_cast<std::uint32_t>(1000 + r));
            std::uniform_int_distribution<int> percent(0, 99);
            std::uniform_int_distribution<int> own(0, kSlotsPerRegistrar - 1);
            std::uniform_int_distribution<unsigned long> rankOf(1, 3);
            gate.wait();
            // Keep changing the table at least `leastChanges` times and until
            // the posters are done, so that every post meets changes.
            for (int n = 0;; ++n) {
                if (n >= leastChanges) {
                    std::lock_guard<std::mutex> lock(postingMutex);
                    if (postersRunning == 0) break;
                }
                const int slot = r * kSlotsPerRegistrar + own(random);
                const auto& queue = queues[static_cast<std::size_t>(slot)];
                const int action = percent(random);
                changingSlot = slot;
                if (action < 50) {
                    // Now and then rank 0, which locks the key for the others.
                    const unsigned long rank = percent(random) < 5 ? 0 : rankOf(random);
                    dispatcher->registerService(queue, service, kPrint, rank);
                } else if (action < 85) {
                    dispatcher->unregisterService(queue, service, kPrint);
                } else {
                    dispatcher->unregisterAll(queue);
                }
                changingSlot = -1;
            }
        });
    }

    // (identity, result) of every post, per poster.
    std::vector<std::vector<std::pair<std::string, bool>>> results(kPosters);
    for (int p = 0; p < kPosters; ++p) {
        threads.emplace_back([&, p] {
            auto& mine = results[static_cast<std::size_t>(p)];
            mine.reserve(static_cast<std::size_t>(postsPerPoster));
            gate.wait();
            for (int n = 0; n < postsPerPoster; ++n) {
                auto request = KestTest::makeMessage(kPrint, {"client"}, {"svc", "p" + std::to_string(p)});
                mine.emplace_back(request->identity(), dispatcher->postMessage(request, nullptr));
            }
            std::lock_guard<std::mutex> lock(postingMutex);
            --postersRunning;
        });
    }

    gate.open();
    for (auto& thread : threads) thread.join();

    std::map<std::string, int> received;
    int notices = 0;
    for (const Seen& s : seen) {
        for (const std::string& identity : s.requests) ++received[identity];
        notices += s.notices;
        EXPECT_EQ(s.noticesAboutItself, 0);
        EXPECT_EQ(s.noticesOutsideAChange, 0);
        EXPECT_EQ(s.noticesOfOtherKeys, 0);
    }

    int delivered = 0, refused = 0, wrong = 0;
    for (const auto& mine : results) {
        for (const auto& [identity, ok] : mine) {
            const auto found = received.find(identity);
            const int count = found == received.end() ? 0 : found->second;
            (ok ? delivered : refused) += 1;
            if (ok ? count == 1 : count == 0) continue;
            if (++wrong <= 5) {
                ADD_FAILURE() << "request " << identity << " returned " << ok << ", received " << count
                              << " times";
            }
        }
    }
    EXPECT_EQ(wrong, 0);
    // Every received request was one that was posted.
    std::size_t receivedTotal = 0;
    for (const auto& entry : received) receivedTotal += static_cast<std::size_t>(entry.second);
    EXPECT_EQ(receivedTotal, static_cast<std::size_t>(delivered));
    EXPECT_EQ(delivered + refused, kPosters * postsPerPoster);
    EXPECT_GT(delivered, 0);
    EXPECT_GT(notices, 0);
}

}  // namespace
