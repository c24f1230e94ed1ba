// W1, synchronous fan-out: one post reaches N callback subscribers on the
// posting thread. Peers: a loop over a std::vector of std::function (no
// lookup, no lock) and a Boost.Signals2 signal with N slots. The dispatcher
// gets a fresh message for every post; the peers, which keep no history,
// cycle through one batch of the same messages.
//
// The BM_FanOutFresh_ family makes the message inside the timed loop and lets
// it go after the post, as a real producer does: a Message for the
// dispatcher, a MessageSizedBlock (as large, also made with make_shared) for
// the peers.
//
// The floors (BM_FanOut_Floor, BM_FanOutFresh_Floor) do per subscriber only
// what any delivery to a locked callback subscriber must: copy the shared
// pointer, lock and unlock the subscriber's own std::mutex, call its
// std::function.

#include "BenchSupport.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#ifdef KEST_BENCH_HAVE_SIGNALS2
#include <boost/signals2/signal.hpp>
#endif

namespace KestBench {
namespace {

using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;

// Every receiver does the same: count the delivery and keep the pointer alive
// in the optimiser's eyes.
struct Receiver {
    std::uint64_t* delivered;
    template <class Pointer>
    void operator()(const Pointer& message) const {
        benchmark::DoNotOptimize(message.get());
        ++*delivered;
    }
};

void setFanOutArgs(benchmark::internal::Benchmark* bench) {
    bench->ArgName("subscribers")->Arg(1)->Arg(10)->Arg(100);
}

void BM_FanOut_Kest(benchmark::State& state) {
    const auto subscribers = static_cast<std::size_t>(state.range(0));
    std::uint64_t delivered = 0;
    auto dispatcher = std::make_shared<MessageDispatcher>();
    for (std::size_t i = 0; i < subscribers; ++i) {
        dispatcher->subscribe(std::make_shared<MessageCallback>(Receiver{&delivered}), sampleSender(),
                              kSampleId);
    }
    const MessageDispatcher::QueuePtr noSender;
    auto batch = makeBatch(makeSample);
    for (auto _ : state) {
        benchmark::DoNotOptimize(dispatcher->postMessage(batch.next(state), noSender));
    }
    checkDelivered(state, delivered, subscribers * static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_FanOut_Kest)->Apply(setFanOutArgs);

void BM_FanOut_FunctionVector(benchmark::State& state) {
    const auto subscribers = static_cast<std::size_t>(state.range(0));
    std::uint64_t delivered = 0;
    std::vector<std::function<void(const MessagePtr&)>> callbacks(subscribers, Receiver{&delivered});
    MessageRing messages;
    for (auto _ : state) {
        const MessagePtr& message = messages.next();
        for (const auto& callback : callbacks) callback(message);
    }
    checkDelivered(state, delivered, subscribers * static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_FanOut_FunctionVector)->Apply(setFanOutArgs);

#ifdef KEST_BENCH_HAVE_SIGNALS2
void BM_FanOut_Signals2(benchmark::State& state) {
    const auto subscribers = static_cast<std::size_t>(state.range(0));
    std::uint64_t delivered = 0;
    boost::signals2::signal<void(const MessagePtr&)> signal;
    for (std::size_t i = 0; i < subscribers; ++i) signal.connect(Receiver{&delivered});
    MessageRing messages;
    for (auto _ : state) signal(messages.next());
    checkDelivered(state, delivered, subscribers * static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_FanOut_Signals2)->Apply(setFanOutArgs);
#endif

// ---- Fresh message per post --------------------------------------------------

void BM_FanOutFresh_Kest(benchmark::State& state) {
    const auto subscribers = static_cast<std::size_t>(state.range(0));
    std::uint64_t delivered = 0;
    auto dispatcher = std::make_shared<MessageDispatcher>();
    for (std::size_t i = 0; i < subscribers; ++i) {
        dispatcher->subscribe(std::make_shared<MessageCallback>(Receiver{&delivered}), sampleSender(),
                              kSampleId);
    }
    const MessageDispatcher::QueuePtr noSender;
    for (auto _ : state) {
        // The post takes the only reference; the message dies before the next one is made.
        benchmark::DoNotOptimize(
            dispatcher->postMessage(std::make_shared<Message>(kSampleId, sampleSender()), noSender));
    }
    checkDelivered(state, delivered, subscribers * static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_FanOutFresh_Kest)->Apply(setFanOutArgs);

void BM_FanOutFresh_FunctionVector(benchmark::State& state) {
    const auto subscribers = static_cast<std::size_t>(state.range(0));
    std::uint64_t delivered = 0;
    std::vector<std::function<void(const BlockPtr&)>> callbacks(subscribers, Receiver{&delivered});
    for (auto _ : state) {
        const BlockPtr block = makeBlock();
        for (const auto& callback : callbacks) callback(block);
    }
    checkDelivered(state, delivered, subscribers * static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_FanOutFresh_FunctionVector)->Apply(setFanOutArgs);

#ifdef KEST_BENCH_HAVE_SIGNALS2
void BM_FanOutFresh_Signals2(benchmark::State& state) {
    const auto subscribers = static_cast<std::size_t>(state.range(0));
    std::uint64_t delivered = 0;
    boost::signals2::signal<void(const BlockPtr&)> signal;
    for (std::size_t i = 0; i < subscribers; ++i) signal.connect(Receiver{&delivered});
    for (auto _ : state) signal(makeBlock());
    checkDelivered(state, delivered, subscribers * static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_FanOutFresh_Signals2)->Apply(setFanOutArgs);
#endif

// ---- Delivery floor ------------------------------------------------------------

// One subscriber of the floor: its lock and its callback, each subscriber on
// its own cache lines as a separately allocated queue would be.
template <class Pointer>
struct FloorSubscriber {
    std::mutex mutex;
    std::function<void(const Pointer&)> callback;

    // Taken by value: the subscriber's own reference, an atomic increment on
    // the way in and a decrement on the way out.
    void deliver(Pointer message) {
        std::lock_guard<std::mutex> lock(mutex);
        callback(message);
    }
};

template <class Pointer>
std::vector<std::unique_ptr<FloorSubscriber<Pointer>>> floorSubscribers(std::size_t count,
                                                                        std::uint64_t& delivered) {
    std::vector<std::unique_ptr<FloorSubscriber<Pointer>>> subscribers;
    for (std::size_t i = 0; i < count; ++i) {
        subscribers.push_back(std::make_unique<FloorSubscriber<Pointer>>());
        subscribers.back()->callback = Receiver{&delivered};
    }
    return subscribers;
}

// The same pre-made messages as the peers of BM_FanOut_Kest.
void BM_FanOut_Floor(benchmark::State& state) {
    std::uint64_t delivered = 0;
    auto subscribers = floorSubscribers<MessagePtr>(static_cast<std::size_t>(state.range(0)), delivered);
    MessageRing messages;
    for (auto _ : state) {
        const MessagePtr& message = messages.next();
        for (const auto& subscriber : subscribers) subscriber->deliver(message);
    }
    checkDelivered(state, delivered, subscribers.size() * static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_FanOut_Floor)->Apply(setFanOutArgs);

// A fresh message-sized block per post, made and let go as in BM_FanOutFresh_FunctionVector.
void BM_FanOutFresh_Floor(benchmark::State& state) {
    std::uint64_t delivered = 0;
    auto subscribers = floorSubscribers<BlockPtr>(static_cast<std::size_t>(state.range(0)), delivered);
    for (auto _ : state) {
        const BlockPtr block = makeBlock();
        for (const auto& subscriber : subscribers) subscriber->deliver(block);
    }
    checkDelivered(state, delivered, subscribers.size() * static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_FanOutFresh_Floor)->Apply(setFanOutArgs);

}  // namespace
}  // namespace KestBench
