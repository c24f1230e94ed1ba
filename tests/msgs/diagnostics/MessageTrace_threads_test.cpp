// Trace lines written from many threads at once stay whole.

#include <kest/model/Message.h>
#include <kest/msgs/diagnostics/MessageTrace.h>

#include <support/TestSupport.h>

#include <support/StressTestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

TEST(MessageTraceThreads, ConcurrentCallsWriteWholeLines) {
    constexpr int Threads = 8;
    const int perThread = scaledCount(300, 20);

    std::map<std::string, int> expected;  // line -> the number of times it is written
    std::vector<std::string> prefixes;
    std::vector<std::unique_ptr<Message>> messages;
    for (int t = 0; t < Threads; ++t) {
        const std::string name = std::to_string(t);
        prefixes.push_back("thread " + name + " says ");
        // Long addresses make a torn line likely if the writes were not serialised.
        messages.push_back(std::make_unique<Message>(
            Identifier(static_cast<std::uint16_t>(t), static_cast<std::uint16_t>(100 + t)),
            Address{"plant" + name, "line" + name, "press" + name, std::string(40, static_cast<char>('a' + t))},
            Address{"dest" + name}));
        const std::string line = prefixes.back() + ": sender = [plant" + name + "][line" + name + "][press" +
                                 name + "][" + std::string(40, static_cast<char>('a' + t)) + "], dest = [dest" +
                                 name + "], cat = " + name + ", id = " + std::to_string(100 + t);
        expected[line] = perThread;
    }

    CaptureStdout capture;
    {
        std::vector<std::thread> threads;
        for (int t = 0; t < Threads; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < perThread; ++i) {
                    handleMessageDirect(prefixes[static_cast<std::size_t>(t)], *messages[static_cast<std::size_t>(t)]);
                }
            });
        }
        for (auto& thread : threads) thread.join();
    }

    std::map<std::string, int> seen;
    for (const std::string& line : capture.lines()) {
        ASSERT_EQ(expected.count(line), 1u) << "torn or unknown line: " << line;
        ++seen[line];
    }
    EXPECT_EQ(seen, expected);
}
