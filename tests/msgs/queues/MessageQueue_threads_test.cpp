// The queues under several writer and reader threads at once. Message counts
// scale with KEST_STRESS_SCALE (default 1).

#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/QueuesTestSupport.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageQueue;
using Kest::Msgs::MessageQueue_FixedDepth;
using Kest::Msgs::MessageQueueInterface;
using KestTest::scaledCount;
using std::chrono::milliseconds;

using MessagePtr = std::shared_ptr<const Message>;

// A message that says who wrote it and in which place; writer -1 tells a
// reader to stop.
class SequencedMessage : public Message {
public:
    SequencedMessage(int writer, int sequence)
        : Message(Identifier(9, static_cast<std::uint16_t>(writer + 1))),
          writer(writer),
          sequence(sequence) {}

    const int writer;
    const int sequence;
};

constexpr int stopWriter = -1;

// A reader's generous limit for one message: only a lost message makes it run out.
constexpr milliseconds readLimit(20000);

struct Delivery {
    int writer;
    int sequence;
};

// What the readers of one test saw, checked after they have all ended.
struct ReaderLog {
    std::vector<Delivery> deliveries;
    bool neverStarted = false;
    bool timedOut = false;
    bool foreign = false;     // a message that is not a SequencedMessage
    bool outOfOrder = false;  // a writer's messages seen out of their order
};

// Reads until a stop message, noting every delivery and whether a writer's
// messages came in their order.
void readUntilStopped(MessageQueueInterface& queue, int writers, ReaderLog& log,
                      const std::function<void()>& afterEachRead) {
    std::vector<int> last(writers, -1);
    for (;;) {
        const MessagePtr message = queue.getMessage(readLimit);
        if (!message) {
            log.timedOut = true;
            return;
        }
        const auto* sequenced = dynamic_cast<const SequencedMessage*>(message.get());
        if (sequenced == nullptr || sequenced->writer >= writers) {
            log.foreign = true;
            continue;
        }
        if (sequenced->writer == stopWriter) return;
        if (sequenced->sequence <= last[sequenced->writer]) log.outOfOrder = true;
        last[sequenced->writer] = sequenced->sequence;
        log.deliveries.push_back({sequenced->writer, sequenced->sequence});
        afterEachRead();
    }
}

// How often each (writer, sequence) was delivered, over all readers.
std::vector<std::vector<int>> tally(const std::vector<ReaderLog>& logs, int writers, int perWriter) {
    std::vector<std::vector<int>> seen(writers, std::vector<int>(perWriter, 0));
    for (const ReaderLog& log : logs) {
        for (const Delivery& d : log.deliveries) {
            if (d.sequence >= 0 && d.sequence < perWriter) ++seen[d.writer][d.sequence];
        }
    }
    return seen;
}

TEST(MessageQueueThreads, FourWritersTwoReadersEveryMessageArrivesOnceInWriterOrder) {
    constexpr int writers = 4;
    constexpr int readers = 2;
    const int perWriter = scaledCount(100000, 1000);
    MessageQueue queue;

    std::vector<ReaderLog> logs(readers);
    std::vector<std::thread> readerThreads;
    for (int r = 0; r < readers; ++r) {
        readerThreads.emplace_back([&, r] {
            logs[r].deliveries.reserve(static_cast<std::size_t>(writers) * perWriter);
            readUntilStopped(queue, writers, logs[r], [] {});
        });
    }

    std::atomic<int> refused{0};
    std::vector<std::thread> writerThreads;
    for (int w = 0; w < writers; ++w) {
        writerThreads.emplace_back([&, w] {
            for (int seq = 0; seq < perWriter; ++seq) {
                if (!queue.putMessage(std::make_shared<SequencedMessage>(w, seq))) ++refused;
            }
        });
    }
    for (std::thread& t : writerThreads) t.join();
    // Behind every message in the queue: each reader stops once all are taken.
    for (int r = 0; r < readers; ++r) {
        EXPECT_TRUE(queue.putMessage(std::make_shared<SequencedMessage>(stopWriter, r)));
    }
    for (std::thread& t : readerThreads) t.join();

    EXPECT_EQ(refused.load(), 0);
    for (int r = 0; r < readers; ++r) {
        EXPECT_FALSE(logs[r].timedOut) << "reader " << r;
        EXPECT_FALSE(logs[r].foreign) << "reader " << r;
        EXPECT_FALSE(logs[r].outOfOrder) << "reader " << r;
    }
    std::size_t total = 0;
    for (const ReaderLog& log : logs) total += log.deliveries.size();
    EXPECT_EQ(total, static_cast<std::size_t>(writers) * perWriter);
    const auto seen = tally(logs, writers, perWriter);
    for (int w = 0; w < writers; ++w) {
        for (int seq = 0; seq < perWriter; ++seq) {
            ASSERT_EQ(seen[w][seq], 1) << "writer " << w << ", message " << seq;
        }
    }
    EXPECT_EQ(queue.getAvailableMessagesCount(), 0u);
}

TEST(MessageQueue_FixedDepthThreads, NeverHoldsMoreThanItsDepthAndEveryAcceptedMessageIsReadOnce) {
    constexpr int writers = 4;
    constexpr int readers = 2;
    constexpr unsigned int depth = 64;
    const int perWriter = scaledCount(100000, 1000);
    MessageQueue_FixedDepth queue(depth);

    // The readers start once the queue has refused a message, so that it is
    // sure to have been full at least once.
    std::mutex fullMutex;
    std::condition_variable fullSignal;
    bool full = false;
    std::atomic<int> overDepth{0};

    std::vector<ReaderLog> logs(readers);
    std::vector<std::thread> readerThreads;
    for (int r = 0; r < readers; ++r) {
        readerThreads.emplace_back([&, r] {
            {
                std::unique_lock<std::mutex> lock(fullMutex);
                if (!fullSignal.wait_for(lock, readLimit, [&] { return full; })) {
                    logs[r].neverStarted = true;
                    return;
                }
            }
            readUntilStopped(queue, writers, logs[r], [&] {
                if (queue.getAvailableMessagesCount() > depth) ++overDepth;
            });
        });
    }

    std::vector<std::vector<int>> accepted(writers);
    std::vector<int> refused(writers, 0);
    std::vector<std::thread> writerThreads;
    for (int w = 0; w < writers; ++w) {
        writerThreads.emplace_back([&, w] {
            for (int seq = 0; seq < perWriter; ++seq) {
                if (queue.putMessage(std::make_shared<SequencedMessage>(w, seq))) {
                    accepted[w].push_back(seq);
                    continue;
                }
                ++refused[w];
                if (queue.getAvailableMessagesCount() > depth) ++overDepth;
                std::lock_guard<std::mutex> lock(fullMutex);
                if (!full) {
                    full = true;
                    fullSignal.notify_all();
                }
            }
        });
    }
    for (std::thread& t : writerThreads) t.join();
    // The stop messages must get in too: the readers are draining, so a
    // refusal only means trying again.
    const auto giveUp = std::chrono::steady_clock::now() + readLimit;
    for (int r = 0; r < readers; ++r) {
        while (!queue.putMessage(std::make_shared<SequencedMessage>(stopWriter, r)) &&
               std::chrono::steady_clock::now() < giveUp) {
            std::this_thread::yield();
        }
    }
    for (std::thread& t : readerThreads) t.join();

    EXPECT_EQ(overDepth.load(), 0);
    int totalRefused = 0;
    std::size_t totalAccepted = 0;
    for (int w = 0; w < writers; ++w) {
        totalRefused += refused[w];
        totalAccepted += accepted[w].size();
        EXPECT_EQ(static_cast<int>(accepted[w].size()) + refused[w], perWriter) << "writer " << w;
    }
    EXPECT_GT(totalRefused, 0);
    for (int r = 0; r < readers; ++r) {
        EXPECT_FALSE(logs[r].neverStarted) << "reader " << r;
        EXPECT_FALSE(logs[r].timedOut) << "reader " << r;
        EXPECT_FALSE(logs[r].foreign) << "reader " << r;
        EXPECT_FALSE(logs[r].outOfOrder) << "reader " << r;
    }

    // Exactly the accepted messages were read, each once; no refused one was.
    std::size_t totalRead = 0;
    for (const ReaderLog& log : logs) totalRead += log.deliveries.size();
    EXPECT_EQ(totalRead, totalAccepted);
    const auto seen = tally(logs, writers, perWriter);
    for (int w = 0; w < writers; ++w) {
        std::vector<int> expected(perWriter, 0);
        for (int seq : accepted[w]) expected[seq] = 1;
        for (int seq = 0; seq < perWriter; ++seq) {
            ASSERT_EQ(seen[w][seq], expected[seq]) << "writer " << w << ", message " << seq;
        }
    }
    EXPECT_EQ(queue.getAvailableMessagesCount(), 0u);
}

TEST(MessageCallbackThreads, DeliveriesFromManyThreadsNeverOverlap) {
    constexpr int putters = 4;
    const int perPutter = scaledCount(5000, 200);
    std::atomic<bool> inside{false};
    std::atomic<int> overlaps{0};
    long delivered = 0;  // written only inside deliveries, which must not overlap
    MessageCallback callback(MessageCallback::Callback([&](const MessagePtr& message) {
        if (inside.exchange(true)) ++overlaps;
        if (message) ++delivered;
        // Give another putter time to enter, should the lock not hold it back.
        for (int i = 0; i < 10; ++i) std::this_thread::yield();
        inside.store(false);
    }));

    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < putters; ++p) {
        threads.emplace_back([&] {
            const MessagePtr message = std::make_shared<Message>(Identifier(9, 100));
            for (int i = 0; i < perPutter; ++i) {
                if (!callback.putMessage(message)) ++refused;
            }
        });
    }
    for (std::thread& t : threads) t.join();

    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_EQ(refused.load(), 0);
    EXPECT_EQ(delivered, static_cast<long>(putters) * perPutter);
    EXPECT_EQ(callback.getAvailableMessagesCount(), 0u);
}

}  // namespace
