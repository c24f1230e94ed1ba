// W3, routing scale: the cost of one post when a table holds K keys with
// three-level addresses, exactly one of which covers the message. K = 12 is the
// largest table that is scanned key by key, K = 13 the smallest that is probed
// with the message's candidate keys. Measured for the subscriptions table
// (sender addresses) and the services table (destination addresses). Peer: a
// ZeroMQ SUB socket holding K prefix subscriptions, one publish and one
// receive per message.

#include "BenchSupport.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>

#include <cstdint>
#include <memory>
#include <string>

#ifdef KEST_BENCH_HAVE_ZMQ
#include "peers/ZmqPubSub.h"
#endif

namespace KestBench {
namespace {

using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;

void setRoutingArgs(benchmark::internal::Benchmark* bench) {
    bench->ArgName("keys")->Arg(1)->Arg(12)->Arg(13)->Arg(1000)->Arg(100000);
}

// The key that matches sits in the middle of the address tree.
std::size_t matchingKey(std::size_t keys) { return keys / 2; }

std::shared_ptr<MessageCallback> countingQueue(std::uint64_t& delivered) {
    return std::make_shared<MessageCallback>([&delivered](const MessagePtr& message) {
        benchmark::DoNotOptimize(message.get());
        ++delivered;
    });
}

void BM_Routing_KestSubscriptions(benchmark::State& state) {
    const auto keys = static_cast<std::size_t>(state.range(0));
    const std::size_t match = matchingKey(keys);
    std::uint64_t delivered = 0;
    std::uint64_t misrouted = 0;
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto others = countingQueue(misrouted);
    for (std::size_t i = 0; i < keys; ++i) {
        dispatcher->subscribe(i == match ? countingQueue(delivered) : others, tableAddress(i), kSampleId);
    }
    const Address sender = tableAddress(match);
    const MessageDispatcher::QueuePtr noSender;
    auto batch = makeBatch([&] { return MessagePtr(std::make_shared<Message>(kSampleId, sender)); });
    for (auto _ : state) {
        benchmark::DoNotOptimize(dispatcher->postMessage(batch.next(state), noSender));
    }
    checkDelivered(state, delivered + misrouted, static_cast<std::uint64_t>(state.iterations()));
    checkDelivered(state, delivered, static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_Routing_KestSubscriptions)->Apply(setRoutingArgs);

void BM_Routing_KestServices(benchmark::State& state) {
    const auto keys = static_cast<std::size_t>(state.range(0));
    const std::size_t match = matchingKey(keys);
    std::uint64_t delivered = 0;
    std::uint64_t misrouted = 0;
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto others = countingQueue(misrouted);
    for (std::size_t i = 0; i < keys; ++i) {
        dispatcher->registerService(i == match ? countingQueue(delivered) : others, tableAddress(i),
                                    kSampleId, 1);
    }
    const Address destination = tableAddress(match);
    const MessageDispatcher::QueuePtr noSender;
    std::uint64_t accepted = 0;
    auto batch = makeBatch(
        [&] { return MessagePtr(std::make_shared<Message>(kSampleId, sampleSender(), destination)); });
    for (auto _ : state) {
        accepted += dispatcher->postMessage(batch.next(state), noSender) ? 1 : 0;
    }
    checkDelivered(state, accepted, static_cast<std::uint64_t>(state.iterations()));
    checkDelivered(state, delivered + misrouted, static_cast<std::uint64_t>(state.iterations()));
    checkDelivered(state, delivered, static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_Routing_KestServices)->Apply(setRoutingArgs);

#ifdef KEST_BENCH_HAVE_ZMQ
void BM_Routing_Zmq(benchmark::State& state) {
    const auto keys = static_cast<std::size_t>(state.range(0));
    const std::size_t match = matchingKey(keys);
    Peers::ZmqPubSub pubSub("inproc://routing");
    for (std::size_t i = 0; i < keys; ++i) {
        if (i != match) pubSub.subscribe(tableTopic(i));
    }
    const std::string topic = tableTopic(match);
    pubSub.subscribe(topic);
    if (!pubSub.waitUntilRouted(topic)) {
        state.SkipWithError("the subscriptions never reached the publisher");
        return;
    }
    std::uint64_t delivered = 0;
    MessageRing messages;  // ZeroMQ keeps no history: no need for fresh ones
    for (auto _ : state) {
        const MessagePtr& message = messages.next();
        pubSub.publish(topic, message.get());
        const void* received = pubSub.receive(topic.size());
        benchmark::DoNotOptimize(received);
        delivered += received == message.get() ? 1 : 0;
    }
    checkDelivered(state, delivered, static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_Routing_Zmq)->Apply(setRoutingArgs);
#endif

}  // namespace
}  // namespace KestBench
