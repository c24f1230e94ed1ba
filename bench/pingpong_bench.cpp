// W4, ping-pong latency: a message goes from this thread to a responder thread
// and an answer comes back, each leg through its own queue. Every round trip is
// timed on its own; the counters p50_ns and p99_ns are the median and the 99th
// percentile of those, the benchmark time their mean. Kest: two dispatchers,
// one per direction, each with the reading side's MessageQueue subscribed.
// Peer: two mutex + std::list + condition variable queues.

#include "BenchSupport.h"
#include "peers/LockedQueue.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace KestBench {
namespace {

using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageQueue;

constexpr benchmark::IterationCount kRoundTrips = 20000;

// `ping(message)` sends towards the responder, `awaitReply()` waits for the
// answer on this thread; on the responder thread `answer(reply)` waits for a
// ping and sends `reply` back, returning the ping it took. All messages are
// made before the first round trip.
template <class Ping, class AwaitReply, class Answer>
void runPingPong(benchmark::State& state, Ping ping, AwaitReply awaitReply, Answer answer) {
    const auto roundTrips = static_cast<std::size_t>(state.max_iterations);
    const std::vector<MessagePtr> pings = makeMessages(roundTrips, kSampleId);
    const std::vector<MessagePtr> replies = makeMessages(roundTrips, kReplyId);
    std::vector<std::int64_t> samples;
    samples.reserve(roundTrips);

    std::uint64_t pingsSeen = 0;
    std::thread responder([&] {
        std::uint64_t intact = 0;
        for (const MessagePtr& reply : replies) {
            auto received = answer(reply);
            if (received && received->id() == kSampleId) ++intact;
        }
        pingsSeen = intact;  // published by join()
    });

    std::uint64_t repliesSeen = 0;
    std::size_t next = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        ping(pings[next++]);
        auto reply = awaitReply();
        samples.push_back(nanosecondsSince(start));
        if (reply && reply->id() == kReplyId) ++repliesSeen;
    }
    responder.join();

    state.counters["p50_ns"] = percentile(samples, 0.50);
    state.counters["p99_ns"] = percentile(samples, 0.99);
    checkDelivered(state, pingsSeen, roundTrips);
    checkDelivered(state, repliesSeen, roundTrips);
}

void setPingPongArgs(benchmark::internal::Benchmark* bench) {
    bench->Iterations(kRoundTrips)->UseRealTime()->Unit(benchmark::kMicrosecond);
}

void BM_PingPong_Kest(benchmark::State& state) {
    auto toResponder = std::make_shared<MessageDispatcher>();
    auto toPinger = std::make_shared<MessageDispatcher>();
    auto responderQueue = std::make_shared<MessageQueue>();
    auto pingerQueue = std::make_shared<MessageQueue>();
    toResponder->subscribe(responderQueue, sampleSender(), kSampleId);
    toPinger->subscribe(pingerQueue, sampleSender(), kReplyId);
    const MessageDispatcher::QueuePtr noSender;
    runPingPong(
        state, [&](const MessagePtr& message) { toResponder->postMessage(message, noSender); },
        [&] { return pingerQueue->getMessage(); },
        [&](const MessagePtr& reply) {
            MessagePtr received = responderQueue->getMessage();
            toPinger->postMessage(reply, noSender);
            return received;
        });
}
BENCHMARK(BM_PingPong_Kest)->Apply(setPingPongArgs);

void BM_PingPong_MutexList(benchmark::State& state) {
    Peers::LockedQueue<MessagePtr> toResponder;
    Peers::LockedQueue<MessagePtr> toPinger;
    runPingPong(
        state, [&](const MessagePtr& message) { toResponder.push(message); },
        [&] { return toPinger.pop(); },
        [&](const MessagePtr& reply) {
            MessagePtr received = toResponder.pop();
            toPinger.push(reply);
            return received;
        });
}
BENCHMARK(BM_PingPong_MutexList)->Apply(setPingPongArgs);

}  // namespace
}  // namespace KestBench
