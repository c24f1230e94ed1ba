// W2, pipe: one posting thread hands 1,000,000 messages through a queue to one
// reading thread; the time runs until the reader has taken the last one and is
// joined. Kest is measured twice: posting through a dispatcher into a
// subscribed MessageQueue (the real path), and putting into the MessageQueue
// directly (the queue alone). Peers: a mutex + std::list + condition variable
// queue (the floor), moodycamel's BlockingConcurrentQueue and ZeroMQ inproc
// PUB/SUB. All carry the same pre-made messages.
//
// The BM_PipeFresh_ family is the same pipe as producers and consumers use it:
// the posting thread makes each message as it sends it and the reader drops
// each one it takes, so making a message and freeing it on the other thread
// are timed with the queue. Kest sends a Message, the peers a
// MessageSizedBlock of the same size.

#include "BenchSupport.h"
#include "peers/LockedQueue.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <cstdint>
#include <memory>
#include <thread>
#include <utility>
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

// ---- Fresh message per send ------------------------------------------------------

// Times kPipeMessages `send(make())` calls on this thread against as many
// `receive()` calls on a reader thread, which drops each message when it has
// checked it: the sender keeps no reference, so the reader usually releases
// the last one and the memory goes back to the allocator from the other thread.
template <class Make, class Send, class Receive>
void runFreshPipe(benchmark::State& state, Make make, Send send, Receive receive) {
    std::uint64_t delivered = 0;
    for (auto _ : state) {
        std::thread reader([&] {
            std::uint64_t intactCount = 0;
            for (std::size_t i = 0; i < kPipeMessages; ++i) {
                auto message = receive();
                if (message && intact(*message)) ++intactCount;
            }
            delivered += intactCount;  // published to the poster by join()
        });
        for (std::size_t i = 0; i < kPipeMessages; ++i) send(make());
        reader.join();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPipeMessages));
    checkDelivered(state, delivered, kPipeMessages * static_cast<std::uint64_t>(state.iterations()));
}

MessagePtr makeFreshSample() { return std::make_shared<Message>(kSampleId, sampleSender()); }

// The sender hands its only reference to the post. A dispatcher that copies it
// into the queue rather than passing it on drops its own copy when the post
// returns, which may now and then be after the reader has let go: that cost is
// the dispatcher's, and is timed with it.
void BM_PipeFresh_KestDispatcher(benchmark::State& state) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto queue = std::make_shared<MessageQueue>();
    dispatcher->subscribe(queue, sampleSender(), kSampleId);
    const MessageDispatcher::QueuePtr noSender;
    runFreshPipe(
        state, makeFreshSample,
        [&](MessagePtr message) { dispatcher->postMessage(std::move(message), noSender); },
        [&] { return queue->getMessage(); });
}
BENCHMARK(BM_PipeFresh_KestDispatcher)->Apply(setPipeArgs);

void BM_PipeFresh_KestQueue(benchmark::State& state) {
    auto queue = std::make_shared<MessageQueue>();
    runFreshPipe(
        state, makeFreshSample, [&](MessagePtr message) { queue->putMessage(std::move(message)); },
        [&] { return queue->getMessage(); });
}
BENCHMARK(BM_PipeFresh_KestQueue)->Apply(setPipeArgs);

void BM_PipeFresh_MutexList(benchmark::State& state) {
    Peers::LockedQueue<BlockPtr> queue;
    runFreshPipe(
        state, makeBlock, [&](BlockPtr block) { queue.push(std::move(block)); }, [&] { return queue.pop(); });
}
BENCHMARK(BM_PipeFresh_MutexList)->Apply(setPipeArgs);

#ifdef KEST_BENCH_HAVE_MOODYCAMEL
void BM_PipeFresh_Moodycamel(benchmark::State& state) {
    moodycamel::BlockingConcurrentQueue<BlockPtr> queue;
    runFreshPipe(
        state, makeBlock, [&](BlockPtr block) { queue.enqueue(std::move(block)); },
        [&] {
            BlockPtr block;
            queue.wait_dequeue(block);
            return block;
        });
}
BENCHMARK(BM_PipeFresh_Moodycamel)->Apply(setPipeArgs);
#endif

#ifdef KEST_BENCH_HAVE_ZMQ
// A frame carries bytes, so a shared_ptr cannot cross it as it is: carrying
// one would take a second allocation to hold it (or copying the 400 bytes into
// a frame that ZeroMQ allocates), and ZeroMQ would be charged for work its
// users need not do. The payload is therefore a plain `new` of the same block,
// whose pointer travels in an 8-byte frame (kept inside ZeroMQ's message, no
// allocation) and which the reader deletes: one allocation per message and a
// free on the reading thread, as for the other queues, and no reference count,
// which if anything favours ZeroMQ.
void BM_PipeFresh_Zmq(benchmark::State& state) {
    Peers::ZmqPubSub pipe("inproc://pipe-fresh");
    pipe.subscribe("");
    if (!pipe.waitUntilRouted("")) {
        state.SkipWithError("the subscription never reached the publisher");
        return;
    }
    runFreshPipe(
        state,
        [] {
            auto block = std::make_unique<MessageSizedBlock>();
            block->tag = MessageSizedBlock::kTag;
            return block;
        },
        [&](std::unique_ptr<MessageSizedBlock> block) { pipe.publish("", block.release()); },
        [&] {
            return std::unique_ptr<const MessageSizedBlock>(
                static_cast<const MessageSizedBlock*>(pipe.receive(0)));
        });
}
BENCHMARK(BM_PipeFresh_Zmq)->Apply(setPipeArgs);
#endif

}  // namespace
}  // namespace KestBench
