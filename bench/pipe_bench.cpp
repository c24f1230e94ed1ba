// W2, pipe: one posting thread hands 1,000,000 messages through a queue to one
// reading thread; the time runs until the reader has taken the last one and is
// joined. Kest is measured twice: posting through a dispatcher into a
// subscribed MessageQueue (the real path), and putting into the MessageQueue
// directly (the queue alone). Peers: a mutex + std::list + condition variable
// queue (the floor), moodycamel's BlockingConcurrentQueue and ZeroMQ inproc
// PUB/SUB. All carry the same pre-made messages.

#include "BenchSupport.h"
#include "peers/LockedQueue.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#ifdef KEST_BENCH_HAVE_MOODYCAMEL
#include <blockingconcurrentqueue.h>
#endif
#ifdef KEST_BENCH_HAVE_ZMQ
#include "peers/ZmqPubSub.h"
#endif

namespace KestBench {
namespace {

using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageQueue;

constexpr std::size_t kPipeMessages = 1'000'000;

// Times kPipeMessages `send` calls on this thread against as many `receive`
// calls on a reader thread. `receive` waits for the next message and returns
// it (any pointer-like type); the reader counts those that arrive intact.
template <class Send, class Receive>
void runPipe(benchmark::State& state, Send send, Receive receive) {
    std::vector<MessagePtr> messages;
    std::uint64_t delivered = 0;
    for (auto _ : state) {
        state.PauseTiming();
        messages.clear();
        messages = makeMessages(kPipeMessages);
        state.ResumeTiming();

        std::thread reader([&] {
            std::uint64_t intact = 0;
            for (std::size_t i = 0; i < kPipeMessages; ++i) {
                auto message = receive();
                if (message && message->id() == kSampleId) ++intact;
            }
            delivered += intact;  // published to the poster by join()
        });
        for (const MessagePtr& message : messages) send(message);
        reader.join();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPipeMessages));
    checkDelivered(state, delivered, kPipeMessages * static_cast<std::uint64_t>(state.iterations()));
}

void setPipeArgs(benchmark::internal::Benchmark* bench) {
    bench->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
}

void BM_Pipe_KestDispatcher(benchmark::State& state) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto queue = std::make_shared<MessageQueue>();
    dispatcher->subscribe(queue, sampleSender(), kSampleId);
    const MessageDispatcher::QueuePtr noSender;
    runPipe(
        state, [&](const MessagePtr& message) { dispatcher->postMessage(message, noSender); },
        [&] { return queue->getMessage(); });
}
BENCHMARK(BM_Pipe_KestDispatcher)->Apply(setPipeArgs);

void BM_Pipe_KestQueue(benchmark::State& state) {
    auto queue = std::make_shared<MessageQueue>();
    runPipe(
        state, [&](const MessagePtr& message) { queue->putMessage(message); },
        [&] { return queue->getMessage(); });
}
BENCHMARK(BM_Pipe_KestQueue)->Apply(setPipeArgs);

void BM_Pipe_MutexList(benchmark::State& state) {
    Peers::LockedQueue<MessagePtr> queue;
    runPipe(
        state, [&](const MessagePtr& message) { queue.push(message); }, [&] { return queue.pop(); });
}
BENCHMARK(BM_Pipe_MutexList)->Apply(setPipeArgs);

#ifdef KEST_BENCH_HAVE_MOODYCAMEL
void BM_Pipe_Moodycamel(benchmark::State& state) {
    moodycamel::BlockingConcurrentQueue<MessagePtr> queue;
    runPipe(
        state, [&](const MessagePtr& message) { queue.enqueue(message); },
        [&] {
            MessagePtr message;
            queue.wait_dequeue(message);
            return message;
        });
}
BENCHMARK(BM_Pipe_Moodycamel)->Apply(setPipeArgs);
#endif

#ifdef KEST_BENCH_HAVE_ZMQ
void BM_Pipe_Zmq(benchmark::State& state) {
    Peers::ZmqPubSub pipe("inproc://pipe");
    pipe.subscribe("");
    if (!pipe.waitUntilRouted("")) {
        state.SkipWithError("the subscription never reached the publisher");
        return;
    }
    runPipe(
        state, [&](const MessagePtr& message) { pipe.publish("", message.get()); },
        [&] { return static_cast<const Message*>(pipe.receive(0)); });
}
BENCHMARK(BM_Pipe_Zmq)->Apply(setPipeArgs);
#endif

}  // namespace
}  // namespace KestBench
