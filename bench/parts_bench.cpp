// W5, the parts of a post measured one by one: making a message (with its
// identity) against a plain std::make_shared of a block of the same size; the
// identity string alone; the handled-message history at capacity; the table
// lookup on both of its paths; and a post refused by a full fixed-depth queue,
// whose warning and trace go to a null stream.

#include "BenchSupport.h"

#include <kest/model/MessageKey.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/Routing.h>
#include <kest/msgs/diagnostics/MessagesHandled.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace KestBench {
namespace {

using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageKey;
using Kest::Msgs::MessagesHandled;
using Kest::Msgs::MessageQueue_FixedDepth;

// ---- Message creation ----------------------------------------------------

// A block as large as a Message, with no fields, names or identity.
struct PlainBlock {
    std::array<unsigned char, sizeof(Message)> bytes;
};

void BM_Create_KestMessage(benchmark::State& state) {
    for (auto _ : state) {
        auto message = std::make_shared<Message>(kSampleId);
        benchmark::DoNotOptimize(message.get());
    }
}
BENCHMARK(BM_Create_KestMessage);

void BM_Create_PlainMakeShared(benchmark::State& state) {
    for (auto _ : state) {
        auto block = std::make_shared<PlainBlock>();
        benchmark::DoNotOptimize(block.get());
    }
}
BENCHMARK(BM_Create_PlainMakeShared);

// The same with the three-level sender address that the workloads post.
void BM_Create_KestMessageWithSender(benchmark::State& state) {
    for (auto _ : state) {
        auto message = std::make_shared<Message>(kSampleId, sampleSender());
        benchmark::DoNotOptimize(message.get());
    }
}
BENCHMARK(BM_Create_KestMessageWithSender);

void BM_Create_Identity(benchmark::State& state) {
    for (auto _ : state) {
        std::string identity = Message::makeIdentity();
        benchmark::DoNotOptimize(identity.data());
    }
}
BENCHMARK(BM_Create_Identity);

// ---- Handled-message history -----------------------------------------------

// Every call accepts a new string and forgets the oldest. Strings are cycled
// from a pool of twice the history length plus one: a string comes round
// again only after it has been forgotten, so each call is a real acceptance.
void BM_History_HandleMessageAtCapacity(benchmark::State& state) {
    constexpr std::size_t capacity = MessagesHandled::DefaultHistoryLength;
    std::vector<std::string> pool;
    for (std::size_t i = 0; i < 2 * capacity + 1; ++i) pool.push_back(Message::makeIdentity());
    MessagesHandled history;
    std::size_t next = 0;
    for (; next < capacity; ++next) history.handleMessage(pool[next]);

    std::uint64_t accepted = 0;
    for (auto _ : state) {
        accepted += history.handleMessage(pool[next]) ? 1 : 0;
        if (++next == pool.size()) next = 0;
    }
    checkDelivered(state, accepted, static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_History_HandleMessageAtCapacity);

// ---- Table lookup --------------------------------------------------------

// A subscriptions table of `entries` keys of which one covers the message:
// 12 entries take the scanning path, 13 the candidate-key path.
void BM_Lookup_FindCovering(benchmark::State& state) {
    const auto entries = static_cast<std::size_t>(state.range(0));
    std::unordered_map<MessageKey, int, MessageKey::HasherWithSender> table;
    for (std::size_t i = 0; i < entries; ++i) {
        table.emplace(MessageKey(kSampleId, tableAddress(i), {}, MessageKey::HashFunction()), 0);
    }
    const MessagePtr message = std::make_shared<Message>(kSampleId, tableAddress(entries / 2));
    std::uint64_t found = 0;
    for (auto _ : state) {
        auto covering =
            Kest::Msgs::findCovering(message, table, false, MessageKey::HashingGroup::Sender);
        found += covering.size();
        benchmark::DoNotOptimize(covering.data());
    }
    checkDelivered(state, found, static_cast<std::uint64_t>(state.iterations()));
}
BENCHMARK(BM_Lookup_FindCovering)->ArgName("entries")->Arg(12)->Arg(13);

// ---- Refused put -----------------------------------------------------------

// The only subscriber is a full fixed-depth queue: every post is refused
// there and prints the drop warning and the message's trace.
void BM_Refused_FullFixedDepthQueue(benchmark::State& state) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto full = std::make_shared<MessageQueue_FixedDepth>(1u);
    full->putMessage(makeSample());
    dispatcher->subscribe(full, sampleSender(), kSampleId);
    const MessageDispatcher::QueuePtr noSender;
    auto batch = makeBatch(makeSample);
    {
        SilenceStdout silence;
        for (auto _ : state) {
            benchmark::DoNotOptimize(dispatcher->postMessage(batch.next(state), noSender));
        }
    }
    checkDelivered(state, full->getAvailableMessagesCount(), 1);
}
BENCHMARK(BM_Refused_FullFixedDepthQueue);

}  // namespace
}  // namespace KestBench
