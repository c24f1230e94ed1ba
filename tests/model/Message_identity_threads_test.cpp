// Identity strings made on several threads at once are all distinct.

#include <kest/model/Message.h>

#include <support/StressTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;

TEST(Message, IdentitiesMadeOnFourThreadsAreAllDistinct) {
    constexpr int kThreads = 4;
    const auto perThread = static_cast<std::size_t>(KestTest::scaledCount(250000, 1000));
    std::vector<std::vector<std::string>> identities(kThreads);
    for (auto& list : identities) list.reserve(perThread);

    // All threads start together, so that they draw identities at the same time.
    KestTest::Rendezvous start(kThreads);
    std::atomic<int> lateStarts{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            if (!start.arrive()) ++lateStarts;
            std::vector<std::string>& mine = identities[static_cast<std::size_t>(t)];
            for (std::size_t i = 0; i < perThread; ++i) {
                // Every constructor draws an identity; alternate between them.
                switch (i % 3) {
                    case 0: mine.push_back(Message(Identifier(1)).identity()); break;
                    case 1: mine.push_back(Message(Identifier(1), {"s"}).identity()); break;
                    default: mine.push_back(Message(Identifier(1), {"s"}, {"d"}).identity()); break;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(lateStarts.load(), 0);

    std::unordered_set<std::string_view> all;
    all.reserve(perThread * kThreads);
    for (const auto& list : identities) {
        ASSERT_EQ(list.size(), perThread);
        for (const std::string& identity : list) {
            ASSERT_FALSE(identity.empty());
            ASSERT_TRUE(all.insert(identity).second) << "identity made twice: " << identity;
        }
    }
    EXPECT_EQ(all.size(), perThread * kThreads);
}

}  // namespace
