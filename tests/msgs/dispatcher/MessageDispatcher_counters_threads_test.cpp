// The dispatcher's counters under concurrent posting: exact totals once the
// posters are done, and a reader that takes snapshots without the lock while
// they post (race-free under ThreadSanitizer, every counter only growing).

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/DispatcherTestSupport.h>
#include <support/StressTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

const Identifier Reading(0x0100, 1);
const Identifier Request(0x0100, 2);

constexpr int Posters = 4;
constexpr unsigned int Depth = 50;

}  // namespace

TEST(MessageDispatcherCountersThreads, TotalsAreExactAfterConcurrentPostingAndSnapshotsOnlyGrow) {
    forEachScheduleSeed([](std::uint64_t) {
        const int perPoster = scaledCount(4000, 200, 10);
        SynchronizedCapture output;  // the drop warnings, from every thread
        MessageDispatcher dispatcher;
        auto everything = std::make_shared<MessageQueue>();
        auto bounded = std::make_shared<MessageQueue_FixedDepth>(Depth);  // never read: refuses all but Depth
        auto service = std::make_shared<MessageQueue>();
        ASSERT_TRUE(dispatcher.subscribe(everything, {}, Reading));
        ASSERT_TRUE(dispatcher.subscribe(bounded, {}, Reading));
        ASSERT_TRUE(dispatcher.registerService(service, {"svc"}, Request, 1));
        const MessageDispatcher::Counters setup = dispatcher.counters();
        ASSERT_EQ(setup.posts, 3u);

        // Each poster, per round of four: a reading (reaches both
        // subscribers), a served request, a request nobody serves, and a
        // repeat of its reading; every tenth round an empty message too.
        std::atomic<bool> done{false};
        std::vector<std::thread> posters;
        std::atomic<std::uint64_t> falseResults{0};
        for (int p = 0; p < Posters; ++p) {
            posters.emplace_back([&, p] {
                for (int i = 0; i < perPoster; ++i) {
                    const std::string tag = std::to_string(p) + "." + std::to_string(i);
                    auto reading = makeMessage(Reading, {"p", tag});
                    std::uint64_t refused = 0;
                    refused += dispatcher.postMessage(reading, nullptr) ? 0 : 1;
                    refused += dispatcher.postMessage(makeMessage(Request, {"p", tag}, {"svc"}), nullptr) ? 0 : 1;
                    refused += dispatcher.postMessage(makeMessage(Request, {"p", tag}, {"nowhere"}), nullptr) ? 0 : 1;
                    refused += dispatcher.postMessage(reading, nullptr) ? 0 : 1;
                    if (i % 10 == 0) refused += dispatcher.postMessage(nullptr, nullptr) ? 0 : 1;
                    falseResults.fetch_add(refused);
                }
            });
        }

        // Snapshots while they post: no lock, each counter never smaller than before.
        std::uint64_t snapshots = 0;
        bool monotonic = true;
        std::thread reader([&] {
            MessageDispatcher::Counters last = dispatcher.counters();
            while (!done.load()) {
                const MessageDispatcher::Counters now = dispatcher.counters();
                monotonic = monotonic && now.posts >= last.posts && now.repeats >= last.repeats &&
                            now.emptyMessages >= last.emptyMessages &&
                            now.serviceRefusals >= last.serviceRefusals && now.drops >= last.drops;
                last = now;
                ++snapshots;
            }
        });

        for (auto& poster : posters) poster.join();
        done.store(true);
        reader.join();

        const auto rounds = static_cast<std::uint64_t>(Posters) * static_cast<std::uint64_t>(perPoster);
        const std::uint64_t empties = static_cast<std::uint64_t>(Posters) * ((perPoster + 9) / 10);
        const MessageDispatcher::Counters end = dispatcher.counters();
        EXPECT_EQ(end.posts, setup.posts + 3 * rounds);
        EXPECT_EQ(end.repeats, rounds);
        EXPECT_EQ(end.emptyMessages, empties);
        EXPECT_EQ(end.serviceRefusals, rounds);
        EXPECT_EQ(end.drops, rounds - Depth);
        EXPECT_EQ(falseResults.load(), 2 * rounds + empties);

        // The same totals as the queues and the output tell them.
        EXPECT_EQ(everything->getAvailableMessagesCount(), rounds);
        EXPECT_EQ(bounded->getAvailableMessagesCount(), Depth);
        EXPECT_EQ(bounded->refusedPuts(), rounds - Depth);
        EXPECT_EQ(service->getAvailableMessagesCount(), rounds);
        std::uint64_t warnings = 0;
        for (const std::string& line : output.lines()) warnings += line == "PLOX!!!! Warning ---- dropping msg" ? 1 : 0;
        EXPECT_EQ(warnings, end.drops);

        EXPECT_TRUE(monotonic);
        EXPECT_GT(snapshots, 0u);
    });
}
