// Instructions per post, counted by valgrind rather than timed: builds the
// tables of one workload as fanout_bench.cpp (W1) and routing_bench.cpp (W3)
// do, makes every message first, then posts them all. Run it as
//
//   valgrind --tool=callgrind --callgrind-out-file=out
//       --toggle-collect='Kest::Msgs::MessageDispatcher::postMessage*'
//       kest_bench_instructions <workload> [posts]
//
// (one command line)
//
// and divide the "Collected" total by the number of posts (default 20000).
// Only what runs inside postMessage is counted: making and destroying the
// messages is not. A count is deterministic for one binary, so it shows
// changes of a few instructions that the shared machine's timings cannot.
//
// Workloads: fanout-N (N callback subscribers of one key), subscriptions-K
// and services-K (K keys of three-level addresses, one of which covers the
// message).
//
// Two workloads count other parts, with another --toggle-collect:
//
//   history-N   N identities accepted by a full MessagesHandled
//               ('*acceptOne*'), strings
//               cycled as W5's BM_History_HandleMessageAtCapacity does;
//   make-N      N messages with the W1 sender made and released
//               ('*makeAndRelease*'), as W5's BM_Create_KestMessageWithSender;
//               makeIdentity, the allocation and the free included.

#include "BenchSupport.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/diagnostics/MessagesHandled.h>
#include <kest/msgs/queues/MessageCallback.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace KestBench;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessagesHandled;

std::shared_ptr<MessageCallback> countingQueue(std::uint64_t& delivered) {
    return std::make_shared<MessageCallback>([&delivered](const MessagePtr&) { ++delivered; });
}

int usage() {
    std::fprintf(stderr,
                 "usage: kest_bench_instructions fanout-N|subscriptions-K|services-K [posts]\n"
                 "       kest_bench_instructions history-N|make-N\n");
    return 2;
}

// Kept out of line, so that callgrind can count exactly this.
[[gnu::noinline]] bool acceptOne(MessagesHandled& history, const std::string& id) {
    return history.handleMessage(id);
}

// A full history, then `count` new identities; the number accepted.
std::size_t acceptAtCapacity(std::size_t count) {
    constexpr std::size_t capacity = MessagesHandled::DefaultHistoryLength;
    std::vector<std::string> pool;
    for (std::size_t i = 0; i < 2 * capacity + 1; ++i) pool.push_back(Message::makeIdentity());
    MessagesHandled history;
    std::size_t next = 0;
    for (; next < capacity; ++next) history.handleMessage(pool[next]);
    std::size_t accepted = 0;
    for (std::size_t i = 0; i < count; ++i) {
        accepted += acceptOne(history, pool[next]) ? 1 : 0;
        if (++next == pool.size()) next = 0;
    }
    return accepted;
}

// Kept out of line, so that callgrind can count exactly this.
[[gnu::noinline]] bool makeAndRelease() {
    auto message = std::make_shared<Message>(kSampleId, sampleSender());
    return intact(*message);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) return usage();
    const std::string workload = argv[1];
    const std::size_t posts = argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 20000;
    const std::string::size_type dash = workload.rfind('-');
    if (dash == std::string::npos || posts == 0) return usage();
    const std::string kind = workload.substr(0, dash);
    const std::size_t size = std::strtoul(workload.c_str() + dash + 1, nullptr, 10);
    if (size == 0) return usage();

    if (kind == "history") {
        const std::size_t accepted = acceptAtCapacity(size);
        std::printf("%s: %zu of %zu accepted\n", workload.c_str(), accepted, size);
        return accepted == size ? 0 : 1;
    }
    if (kind == "make") {
        std::size_t made = 0;
        for (std::size_t i = 0; i < size; ++i) made += makeAndRelease() ? 1 : 0;
        std::printf("%s: %zu made\n", workload.c_str(), made);
        return made == size ? 0 : 1;
    }

    std::uint64_t delivered = 0;
    std::uint64_t misrouted = 0;
    std::uint64_t expected = 0;
    auto dispatcher = std::make_shared<MessageDispatcher>();
    std::vector<MessagePtr> messages;
    messages.reserve(posts);
    if (kind == "fanout") {
        for (std::size_t i = 0; i < size; ++i) dispatcher->subscribe(countingQueue(delivered), sampleSender(), kSampleId);
        for (std::size_t i = 0; i < posts; ++i) messages.push_back(makeSample());
        expected = size * posts;
    } else if (kind == "subscriptions" || kind == "services") {
        const std::size_t match = size / 2;
        auto others = countingQueue(misrouted);
        for (std::size_t i = 0; i < size; ++i) {
            auto queue = i == match ? countingQueue(delivered) : others;
            if (kind == "subscriptions") {
                dispatcher->subscribe(queue, tableAddress(i), kSampleId);
            } else {
                dispatcher->registerService(queue, tableAddress(i), kSampleId, 1);
            }
        }
        const Address address = tableAddress(match);
        for (std::size_t i = 0; i < posts; ++i) {
            messages.push_back(kind == "subscriptions" ? std::make_shared<Message>(kSampleId, address)
                                                       : std::make_shared<Message>(kSampleId, sampleSender(), address));
        }
        expected = posts;
    } else {
        return usage();
    }

    const MessageDispatcher::QueuePtr noSender;
    std::uint64_t accepted = 0;
    for (const MessagePtr& message : messages) accepted += dispatcher->postMessage(message, noSender) ? 1 : 0;
    if (accepted != posts || delivered != expected || misrouted != 0) {
        std::fprintf(stderr, "wrong routing: %llu of %zu accepted, %llu of %llu delivered, %llu misrouted\n",
                     static_cast<unsigned long long>(accepted), posts, static_cast<unsigned long long>(delivered),
                     static_cast<unsigned long long>(expected), static_cast<unsigned long long>(misrouted));
        return 1;
    }
    std::printf("%s: %zu posts\n", workload.c_str(), posts);
    return 0;
}
