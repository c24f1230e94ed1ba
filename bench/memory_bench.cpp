// kest_bench_memory: what a queued message, a table entry and a post cost in
// memory. This executable replaces the global operator new and delete with
// counting ones (kept out of kest_bench, whose timings they would distort) and
// also reads the malloc arena, which sees the allocations that bypass operator
// new (moodycamel's queue and ZeroMQ call malloc) and malloc's own overhead.
//
// Usage: kest_bench_memory [output.json]
// Prints a table; with an argument, also writes the results as JSON.

#include "BenchSupport.h"
#include "peers/LockedQueue.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <malloc.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <vector>

#ifdef KEST_BENCH_HAVE_SIGNALS2
#include <boost/signals2/signal.hpp>
#endif
#ifdef KEST_BENCH_HAVE_MOODYCAMEL
#include <blockingconcurrentqueue.h>
#endif
#ifdef KEST_BENCH_HAVE_ZMQ
#include "peers/ZmqPubSub.h"
#endif

// ---- Counting operator new and delete ---------------------------------------

namespace {

std::atomic<std::uint64_t> allocationCount{0};
std::atomic<std::uint64_t> bytesRequested{0};
std::atomic<std::int64_t> bytesHeld{0};  // usable size of the blocks not yet freed

void* countedAllocate(std::size_t size) noexcept {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) return nullptr;
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    bytesRequested.fetch_add(size, std::memory_order_relaxed);
    bytesHeld.fetch_add(static_cast<std::int64_t>(malloc_usable_size(block)), std::memory_order_relaxed);
    return block;
}

void countedFree(void* block) noexcept {
    if (block == nullptr) return;
    bytesHeld.fetch_sub(static_cast<std::int64_t>(malloc_usable_size(block)), std::memory_order_relaxed);
    std::free(block);
}

void* allocateOrThrow(std::size_t size) {
    void* block = countedAllocate(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return countedAllocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return countedAllocate(size); }
void operator delete(void* block) noexcept { countedFree(block); }
void operator delete[](void* block) noexcept { countedFree(block); }
void operator delete(void* block, std::size_t) noexcept { countedFree(block); }
void operator delete[](void* block, std::size_t) noexcept { countedFree(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { countedFree(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { countedFree(block); }

// ---- Measurements ------------------------------------------------------------

namespace KestBench {
namespace {

using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageQueue;

constexpr std::size_t kItems = 10000;

struct Snapshot {
    std::uint64_t allocations;
    std::uint64_t requested;
    std::int64_t held;
    std::size_t arena;  // bytes in use in malloc's main arena

    static Snapshot take() {
        return {allocationCount.load(), bytesRequested.load(), bytesHeld.load(), mallinfo2().uordblks};
    }
};

struct Result {
    std::string name;
    std::string item;
    double allocations;  // operator new calls per item, freed ones included
    double requested;    // bytes asked of operator new per item, freed ones included
    double retained;     // usable bytes still held through operator new per item
    double heap;         // growth of malloc's arena per item
};

std::vector<Result> results;

// Runs `step`, which handles kItems items, and records the counts per item.
// What the step leaves alive when it returns (in a container owned by the
// caller) counts as retained.
void measure(const std::string& name, const std::string& item, const std::function<void()>& step) {
    const Snapshot before = Snapshot::take();
    step();
    const Snapshot after = Snapshot::take();
    const auto per = [](double value) { return value / static_cast<double>(kItems); };
    results.push_back({name, item, per(static_cast<double>(after.allocations - before.allocations)),
                       per(static_cast<double>(after.requested - before.requested)),
                       per(static_cast<double>(after.held - before.held)),
                       per(static_cast<double>(after.arena) - static_cast<double>(before.arena))});
}

// A dispatcher whose history is already full, so that a further post (or
// notification) forgets one identity for each it records and the history
// does not grow during a measurement.
std::shared_ptr<MessageDispatcher> dispatcherAtCapacity() {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    for (const MessagePtr& message : makeMessages(Kest::Msgs::MessagesHandled::DefaultHistoryLength + 1)) {
        dispatcher->postMessage(message, nullptr);
    }
    return dispatcher;
}

struct PlainBlock {
    std::array<unsigned char, sizeof(Message)> bytes;
};

void measureMessages() {
    std::vector<MessagePtr> held;
    held.reserve(kItems);
    measure("kest.message", "message, identity only", [&] {
        for (std::size_t i = 0; i < kItems; ++i) held.push_back(std::make_shared<Message>(kSampleId));
    });
    held.clear();
    measure("kest.message_sender", "message with a 3-level sender", [&] {
        for (std::size_t i = 0; i < kItems; ++i) held.push_back(makeSample());
    });
    held.clear();

    std::vector<std::shared_ptr<PlainBlock>> blocks;
    blocks.reserve(kItems);
    measure("plain.make_shared", "plain make_shared block of the same size", [&] {
        for (std::size_t i = 0; i < kItems; ++i) blocks.push_back(std::make_shared<PlainBlock>());
    });
}

void measureQueues() {
    const std::vector<MessagePtr> messages = makeMessages(kItems);
    {
        auto queue = std::make_shared<MessageQueue>();
        measure("kest.queue_put", "queued message, MessageQueue::putMessage", [&] {
            for (const MessagePtr& message : messages) queue->putMessage(message);
        });
    }
    {
        auto dispatcher = dispatcherAtCapacity();
        auto queue = std::make_shared<MessageQueue>();
        dispatcher->subscribe(queue, sampleSender(), kSampleId);
        measure("kest.queue_post", "queued message, posted through a dispatcher", [&] {
            for (const MessagePtr& message : messages) dispatcher->postMessage(message, nullptr);
        });
    }
    {
        Peers::LockedQueue<MessagePtr> queue;
        measure("floor.queue", "queued message, mutex + std::list", [&] {
            for (const MessagePtr& message : messages) queue.push(message);
        });
    }
#ifdef KEST_BENCH_HAVE_MOODYCAMEL
    {
        moodycamel::BlockingConcurrentQueue<MessagePtr> queue;
        measure("moodycamel.queue", "queued message, moodycamel BlockingConcurrentQueue", [&] {
            for (const MessagePtr& message : messages) queue.enqueue(message);
        });
    }
#endif
#ifdef KEST_BENCH_HAVE_ZMQ
    {
        Peers::ZmqPubSub pipe("inproc://memory-pipe");
        pipe.subscribe("");
        if (pipe.waitUntilRouted("")) {
            measure("zmq.queue", "queued message, ZeroMQ inproc PUB/SUB", [&] {
                for (const MessagePtr& message : messages) pipe.publish("", message.get());
            });
        }
    }
#endif
}

void measureTables() {
    std::vector<Address> addresses;
    for (std::size_t i = 0; i < kItems; ++i) addresses.push_back(tableAddress(i));
    {
        auto dispatcher = dispatcherAtCapacity();
        auto queue = std::make_shared<MessageCallback>([](const MessagePtr&) {});
        measure("kest.subscription", "subscription entry (3-level sender)", [&] {
            for (const Address& address : addresses) dispatcher->subscribe(queue, address, kSampleId);
        });
    }
    {
        auto dispatcher = dispatcherAtCapacity();
        auto queue = std::make_shared<MessageCallback>([](const MessagePtr&) {});
        measure("kest.service", "service entry (3-level destination)", [&] {
            for (const Address& address : addresses) dispatcher->registerService(queue, address, kSampleId, 1);
        });
    }
#ifdef KEST_BENCH_HAVE_SIGNALS2
    {
        boost::signals2::signal<void(const MessagePtr&)> signal;
        std::uint64_t delivered = 0;
        measure("signals2.slot", "Boost.Signals2 slot", [&] {
            for (std::size_t i = 0; i < kItems; ++i) {
                signal.connect([&delivered](const MessagePtr&) { ++delivered; });
            }
        });
    }
#endif
#ifdef KEST_BENCH_HAVE_ZMQ
    {
        Peers::ZmqPubSub pubSub("inproc://memory-routing");
        std::vector<std::string> topics;
        for (std::size_t i = 0; i < kItems; ++i) topics.push_back(tableTopic(i));
        measure("zmq.subscription", "ZeroMQ prefix subscription (3-level topic)", [&] {
            for (const std::string& topic : topics) pubSub.subscribe(topic);
            pubSub.waitUntilRouted(topics.back());
        });
    }
#endif
}

// What one post allocates on its way, everything of it freed again.
void measurePosts() {
    {
        auto dispatcher = dispatcherAtCapacity();
        dispatcher->subscribe(std::make_shared<MessageCallback>([](const MessagePtr&) {}), sampleSender(),
                              kSampleId);
        const std::vector<MessagePtr> messages = makeMessages(kItems);
        measure("kest.post_fanout1", "post to 1 callback subscriber", [&] {
            for (const MessagePtr& message : messages) dispatcher->postMessage(message, nullptr);
        });
    }
    for (std::size_t keys : {std::size_t{12}, std::size_t{13}}) {
        auto dispatcher = dispatcherAtCapacity();
        auto queue = std::make_shared<MessageCallback>([](const MessagePtr&) {});
        for (std::size_t i = 0; i < keys; ++i) dispatcher->subscribe(queue, tableAddress(i), kSampleId);
        std::vector<MessagePtr> messages;
        for (std::size_t i = 0; i < kItems; ++i) {
            messages.push_back(std::make_shared<Message>(kSampleId, tableAddress(keys / 2)));
        }
        measure("kest.post_subscriptions" + std::to_string(keys),
                "post through a " + std::to_string(keys) + "-key subscriptions table", [&] {
                    for (const MessagePtr& message : messages) dispatcher->postMessage(message, nullptr);
                });
    }
    {
        auto dispatcher = dispatcherAtCapacity();
        auto queue = std::make_shared<MessageCallback>([](const MessagePtr&) {});
        for (std::size_t i = 0; i < 13; ++i) dispatcher->registerService(queue, tableAddress(i), kSampleId, 1);
        std::vector<MessagePtr> messages;
        for (std::size_t i = 0; i < kItems; ++i) {
            messages.push_back(std::make_shared<Message>(kSampleId, sampleSender(), tableAddress(6)));
        }
        measure("kest.post_services13", "post through a 13-key services table", [&] {
            for (const MessagePtr& message : messages) dispatcher->postMessage(message, nullptr);
        });
    }
}

void printTable() {
    std::printf("%-56s %10s %12s %12s %12s\n", "per item", "allocs", "requested B", "retained B",
                "heap B");
    for (const Result& r : results) {
        std::printf("%-56s %10.2f %12.1f %12.1f %12.1f\n", r.item.c_str(), r.allocations, r.requested,
                    r.retained, r.heap);
    }
}

void writeJson(const std::string& path) {
    std::ofstream out(path);
    out << "{\n  \"items_per_measurement\": " << kItems << ",\n  \"results\": [\n";
    for (std::size_t i = 0; i < results.size(); ++i) {
        const Result& r = results[i];
        out << "    {\"name\": \"" << r.name << "\", \"item\": \"" << r.item
            << "\", \"allocations\": " << r.allocations << ", \"requested_bytes\": " << r.requested
            << ", \"retained_bytes\": " << r.retained << ", \"heap_bytes\": " << r.heap << "}"
            << (i + 1 < results.size() ? ",\n" : "\n");
    }
    out << "  ]\n}\n";
}

}  // namespace
}  // namespace KestBench

int main(int argc, char** argv) {
    using namespace KestBench;
    measureMessages();
    measureQueues();
    measureTables();
    measurePosts();
    printTable();
    if (argc > 1) writeJson(argv[1]);
    return 0;
}
