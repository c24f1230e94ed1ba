// W1, synchronous fan-out: one post reaches N callback subscribers on the
// posting thread. Peers: a loop over a std::vector of std::function (the
// floor: no lookup, no lock) and a Boost.Signals2 signal with N slots. The
// dispatcher gets a fresh message for every post; the peers, which keep no
// history, cycle through one batch of the same messages.

#include "BenchSupport.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>

#include <cstdint>
#include <functional>
#include <memory>
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
    void operator()(const MessagePtr& message) const {
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

}  // namespace
}  // namespace KestBench
