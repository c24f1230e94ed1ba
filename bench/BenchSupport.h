#pragma once

// Helpers shared by the workload files: fresh messages made ahead of the timed
// region, message-sized blocks for the peers' fresh-message runs, the
// three-level addresses of the routing tables, a stream buffer that swallows
// standard output, and percentiles of recorded samples.

#include <benchmark/benchmark.h>

#include <kest/model/Identifier.h>
#include <kest/model/Message.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace KestBench {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using MessagePtr = std::shared_ptr<const Message>;
using Address = std::vector<std::string>;

// The identifier every workload posts, and the one W4's answers carry.
inline constexpr Identifier kSampleId{7, 1};
inline constexpr Identifier kReplyId{7, 2};

// The sender address of the messages that are not about routing.
inline const Address& sampleSender() {
    static const Address address{"plant0", "line2", "press3"};
    return address;
}

// The i-th address of a routing table: plant<i/1000>/line<(i/10)%100>/unit<i%10>,
// so 100,000 keys make a tree of 100 plants, 100 lines each, 10 units each.
inline Address tableAddress(std::size_t i) {
    return {"plant" + std::to_string(i / 1000), "line" + std::to_string((i / 10) % 100),
            "unit" + std::to_string(i % 10)};
}

// The same address as one ZeroMQ topic; the trailing '/' keeps "unit1/" from
// being a prefix of "unit10/".
inline std::string tableTopic(std::size_t i) {
    std::string topic;
    for (const std::string& part : tableAddress(i)) topic += part + '/';
    return topic;
}

inline MessagePtr makeSample() { return std::make_shared<Message>(kSampleId, sampleSender()); }

// What the peers carry in the fresh-message workloads: an object exactly as
// large as a Message, made with std::make_shared per send as a Message is. Its
// first word is a tag the receiver checks; the rest is zeroed, as make_shared
// value-initialises it.
struct MessageSizedBlock {
    static constexpr std::uint64_t kTag = 0x4b657374426c6b31;  // "KestBlk1"
    std::uint64_t tag;
    unsigned char rest[sizeof(Message) - sizeof(std::uint64_t)];
};
static_assert(sizeof(MessageSizedBlock) == sizeof(Message), "a block must weigh what a message weighs");
using BlockPtr = std::shared_ptr<const MessageSizedBlock>;

inline std::shared_ptr<MessageSizedBlock> makeBlock() {
    auto block = std::make_shared<MessageSizedBlock>();
    block->tag = MessageSizedBlock::kTag;
    return block;
}

// Whether a receiver got what was sent.
inline bool intact(const Message& message) { return message.id() == kSampleId; }
inline bool intact(const MessageSizedBlock& block) { return block.tag == MessageSizedBlock::kTag; }

// A run of fresh messages handed out one by one inside a timed loop. A
// dispatcher refuses a message whose identity it has already handled, so every
// post needs a new one; making messages is not what these benchmarks time, so
// each batch is made (and the previous one destroyed) with the timer paused.
// The batch keeps its messages alive until the next refill, which also keeps
// their destruction out of the timed region.
template <class Make>
class MessageBatch {
public:
    explicit MessageBatch(Make make, std::size_t size = 4096) : make_(std::move(make)), messages_(size) {
        fill();
    }

    const MessagePtr& next(benchmark::State& state) {
        if (next_ == messages_.size()) {
            state.PauseTiming();
            fill();
            state.ResumeTiming();
        }
        return messages_[next_++];
    }

private:
    void fill() {
        for (MessagePtr& message : messages_) message = make_();
        next_ = 0;
    }

    Make make_;
    std::vector<MessagePtr> messages_;
    std::size_t next_ = 0;
};

template <class Make>
MessageBatch<Make> makeBatch(Make make, std::size_t size = 4096) {
    return MessageBatch<Make>(std::move(make), size);
}

inline std::vector<MessagePtr> makeMessages(std::size_t count, Identifier id = kSampleId) {
    std::vector<MessagePtr> messages;
    messages.reserve(count);
    for (std::size_t i = 0; i < count; ++i) messages.push_back(std::make_shared<Message>(id, sampleSender()));
    return messages;
}

// The same messages for receivers that keep no history (the peers): one batch
// made up front and handed out round and round. Refilling a MessageBatch costs
// as much as a post, which would make a peer that takes a few nanoseconds per
// message spend nearly all of its run making messages it does not need.
class MessageRing {
public:
    explicit MessageRing(std::size_t size = 4096) : messages_(makeMessages(size)) {}

    const MessagePtr& next() {
        if (next_ == messages_.size()) next_ = 0;
        return messages_[next_++];
    }

private:
    std::vector<MessagePtr> messages_;
    std::size_t next_ = 0;
};

// Swallows everything written to it.
class NullBuffer : public std::streambuf {
protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize count) override { return count; }
};

// Sends std::cout to a NullBuffer for its lifetime.
class SilenceStdout {
public:
    SilenceStdout() : old_(std::cout.rdbuf(&null_)) {}
    ~SilenceStdout() { std::cout.rdbuf(old_); }
    SilenceStdout(const SilenceStdout&) = delete;
    SilenceStdout& operator=(const SilenceStdout&) = delete;

private:
    NullBuffer null_;
    std::streambuf* old_;
};

// The value below which `fraction` of the samples lie (nearest rank).
inline double percentile(std::vector<std::int64_t> samples, double fraction) {
    if (samples.empty()) return 0;
    auto rank = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1) + 0.5);
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(rank), samples.end());
    return static_cast<double>(samples[rank]);
}

inline std::int64_t nanosecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
        .count();
}

// Reports a workload whose receivers did not see every message it sent (the
// first such report of a run stands).
inline void checkDelivered(benchmark::State& state, std::uint64_t delivered, std::uint64_t expected) {
    if (delivered != expected && !state.error_occurred()) {
        state.SkipWithError(("delivered " + std::to_string(delivered) + " of " +
                             std::to_string(expected) + " messages")
                                .c_str());
    }
}

}  // namespace KestBench
