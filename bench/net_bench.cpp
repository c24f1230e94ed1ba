// Messages on the wire: encode and decode of a small message (a Message with
// a three-part sender) and of one with a 4 KiB payload (a GenericMessage
// whose tree mixes numbers and strings), each beside its floor: msgpack-cxx
// packing the same tree from plain structs and containers into its own
// buffer (an sbuffer, kept from one message to the next as encodeTo keeps
// its string), and unpacking the same bytes into an object handle. The floor's
// bytes are checked to equal ours before anything is timed, so both sides
// do the same work.
//
// BM_Wire_MessageFloor_Small makes the message that decoding the small
// message returns, as decode makes it, from values at hand. Two measured
// floors of the tree itself: BM_Wire_TreeRead_4KiB reads every
// value of the 4 KiB payload through the tree's interface, which encoding a
// tree cannot avoid and packing plain structs does not pay;
// BM_Wire_TreeCopy_4KiB copies that tree: allocating its nodes, which
// decoding into a tree cannot avoid and an object handle (one arena) does
// not pay.

#include "BenchSupport.h"

#include <kest/metadata/Element.h>
#include <kest/net/GenericMessage.h>
#include <kest/net/Wire.h>

#include <msgpack.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace KestBench {
namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::Object;
using Kest::Net::Envelope;
using Kest::Net::GenericMessage;

Envelope sampleEnvelope() {
    Envelope envelope;
    envelope.origin = "host-a:4711";
    envelope.epoch = 1718000000;
    envelope.hops = 1;
    envelope.scope = Kest::Net::Scope::Both;
    envelope.sequence = 123456;
    return envelope;
}

// ---- The trees, as plain structs for the floor -----------------------------

struct PlainEnvelope {
    std::string origin;
    std::uint64_t epoch;
    std::uint32_t hops;
    std::uint8_t scope;
    std::uint64_t sequence;
    MSGPACK_DEFINE(origin, epoch, hops, scope, sequence)
};

PlainEnvelope plainEnvelope() {
    const Envelope e = sampleEnvelope();
    return PlainEnvelope{e.origin, e.epoch, e.hops, static_cast<std::uint8_t>(e.scope), e.sequence};
}

const std::vector<unsigned> kVersion{1, 0};

struct PlainSmall {
    PlainEnvelope envelope;
    unsigned long id;
    std::string identity;
    std::vector<std::string> sender;

    template <class Stream>
    void pack(msgpack::packer<Stream>& p) const {
        p.pack_array(3);
        p.pack(kVersion);
        p.pack(envelope);
        p.pack_map(3);
        p.pack(std::string("Id"));
        p.pack(id);
        p.pack(std::string("Identity"));
        p.pack(identity);
        p.pack(std::string("Sender"));
        p.pack(sender);
    }
};

struct PlainReading {
    unsigned long count;
    std::string name;
    double value;  // never a whole number: msgpack-cxx would write it as an integer
    MSGPACK_DEFINE_MAP(MSGPACK_NVP("Count", count), MSGPACK_NVP("Name", name), MSGPACK_NVP("Value", value))
};

struct PlainLarge {
    PlainEnvelope envelope;
    unsigned long id;
    std::string identity;
    std::vector<PlainReading> readings;
    std::vector<double> samples;
    std::vector<long> offsets;  // negative: written in signed formats by both
    std::vector<std::string> sender;

    template <class Stream>
    void pack(msgpack::packer<Stream>& p) const {
        p.pack_array(3);
        p.pack(kVersion);
        p.pack(envelope);
        // Members in name order, as the tree's object keeps them.
        p.pack_map(6);
        p.pack(std::string("Id"));
        p.pack(id);
        p.pack(std::string("Identity"));
        p.pack(identity);
        p.pack(std::string("Offsets"));
        p.pack(offsets);
        p.pack(std::string("Readings"));
        p.pack(readings);
        p.pack(std::string("Samples"));
        p.pack(samples);
        p.pack(std::string("Sender"));
        p.pack(sender);
    }
};

constexpr int kReadings = 56;
constexpr int kSamples = 160;
constexpr int kOffsets = 64;

PlainLarge plainLarge(const GenericMessage& message) {
    PlainLarge large{plainEnvelope(), static_cast<unsigned long>(message.id()), message.identity(), {}, {}, {},
                     message.sender()};
    for (int i = 0; i < kReadings; ++i) {
        large.readings.push_back(PlainReading{static_cast<unsigned long>(i * 37), "sensor-" + std::to_string(i),
                                              i * 1.5 + 0.25});
    }
    for (int i = 0; i < kSamples; ++i) large.samples.push_back(i * 0.001 + 0.5);
    for (int i = 0; i < kOffsets; ++i) large.offsets.push_back(-1 - i * 1000);
    return large;
}

// The same payload as a metadata tree.
Element largePayload() {
    Element payload(Object{});
    Array readings;
    for (int i = 0; i < kReadings; ++i) {
        Element reading(Object{});
        reading["Count"] = Element(static_cast<unsigned long>(i * 37));
        reading["Name"] = Element("sensor-" + std::to_string(i));
        reading["Value"] = Element(i * 1.5 + 0.25);
        readings.push_back(reading);
    }
    payload["Readings"] = Element(readings);
    Array samples;
    for (int i = 0; i < kSamples; ++i) samples.push_back(Element(i * 0.001 + 0.5));
    payload["Samples"] = Element(samples);
    Array offsets;
    for (int i = 0; i < kOffsets; ++i) offsets.push_back(Element(static_cast<long>(-1 - i * 1000)));
    payload["Offsets"] = Element(offsets);
    return payload;
}

const Message& smallMessage() {
    static const Message message(kSampleId, sampleSender());
    return message;
}

const GenericMessage& largeMessage() {
    static const GenericMessage message(Identifier(0x0B00, 7), sampleSender(), std::nullopt, largePayload());
    return message;
}

template <class Plain>
std::string packFloor(const Plain& plain) {
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    plain.pack(packer);
    return std::string(buffer.data(), buffer.size());
}

// Skips the benchmark unless the floor writes exactly our bytes.
bool sameBytes(benchmark::State& state, const std::string& ours, const std::string& floor) {
    if (ours == floor) return true;
    state.SkipWithError("the floor's bytes differ from encode()'s: not the same work");
    return false;
}

PlainSmall plainSmall() {
    const Message& m = smallMessage();
    return PlainSmall{plainEnvelope(), static_cast<unsigned long>(m.id()), m.identity(), m.sender()};
}

// ---- Small ---------------------------------------------------------------------

void BM_Wire_Encode_Small(benchmark::State& state) {
    const Envelope envelope = sampleEnvelope();
    std::string out;
    for (auto _ : state) {
        Kest::Net::encodeTo(out, smallMessage(), envelope);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(out.size());
    sameBytes(state, out, packFloor(plainSmall()));
}
BENCHMARK(BM_Wire_Encode_Small);

void BM_Wire_EncodeFloor_Small(benchmark::State& state) {
    const PlainSmall plain = plainSmall();
    msgpack::sbuffer buffer;
    for (auto _ : state) {
        buffer.clear();
        msgpack::packer<msgpack::sbuffer> packer(buffer);
        plain.pack(packer);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.counters["bytes"] = static_cast<double>(buffer.size());
    const std::string out(buffer.data(), buffer.size());
    sameBytes(state, Kest::Net::encode(smallMessage(), sampleEnvelope()), out);
}
BENCHMARK(BM_Wire_EncodeFloor_Small);

void BM_Wire_Decode_Small(benchmark::State& state) {
    const std::string bytes = Kest::Net::encode(smallMessage(), sampleEnvelope());
    for (auto _ : state) {
        auto message = Kest::Net::decode(bytes);
        benchmark::DoNotOptimize(message.get());
    }
    state.counters["bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_Wire_Decode_Small);

void BM_Wire_DecodeFloor_Small(benchmark::State& state) {
    const std::string bytes = packFloor(plainSmall());
    for (auto _ : state) {
        msgpack::object_handle handle = msgpack::unpack(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(handle.get().via.array.ptr);
    }
    state.counters["bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_Wire_DecodeFloor_Small);

// What decoding the small message must build besides the bytes' items: the
// message it returns (a GenericMessage with the sender and identity read),
// made and destroyed. The floor's object handle builds no message.
void BM_Wire_MessageFloor_Small(benchmark::State& state) {
    const Message& sent = smallMessage();
    for (auto _ : state) {
        auto message = std::make_shared<GenericMessage>(sent.id(), sent.sender(), std::nullopt, Element());
        message->identity.assign(sent.identity());
        benchmark::DoNotOptimize(message.get());
    }
}
BENCHMARK(BM_Wire_MessageFloor_Small);

// ---- 4 KiB ---------------------------------------------------------------------

void BM_Wire_Encode_4KiB(benchmark::State& state) {
    const Envelope envelope = sampleEnvelope();
    std::string out;
    for (auto _ : state) {
        Kest::Net::encodeTo(out, largeMessage(), envelope);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = static_cast<double>(out.size());
    sameBytes(state, out, packFloor(plainLarge(largeMessage())));
}
BENCHMARK(BM_Wire_Encode_4KiB);

void BM_Wire_EncodeFloor_4KiB(benchmark::State& state) {
    const PlainLarge plain = plainLarge(largeMessage());
    msgpack::sbuffer buffer;
    for (auto _ : state) {
        buffer.clear();
        msgpack::packer<msgpack::sbuffer> packer(buffer);
        plain.pack(packer);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.counters["bytes"] = static_cast<double>(buffer.size());
    const std::string out(buffer.data(), buffer.size());
    sameBytes(state, Kest::Net::encode(largeMessage(), sampleEnvelope()), out);
}
BENCHMARK(BM_Wire_EncodeFloor_4KiB);

void BM_Wire_Decode_4KiB(benchmark::State& state) {
    const std::string bytes = Kest::Net::encode(largeMessage(), sampleEnvelope());
    for (auto _ : state) {
        auto message = Kest::Net::decode(bytes);
        benchmark::DoNotOptimize(message.get());
    }
    state.counters["bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_Wire_Decode_4KiB);

void BM_Wire_DecodeFloor_4KiB(benchmark::State& state) {
    const std::string bytes = packFloor(plainLarge(largeMessage()));
    for (auto _ : state) {
        msgpack::object_handle handle = msgpack::unpack(bytes.data(), bytes.size());
        benchmark::DoNotOptimize(handle.get().via.array.ptr);
    }
    state.counters["bytes"] = static_cast<double>(bytes.size());
}
BENCHMARK(BM_Wire_DecodeFloor_4KiB);

// Reading every value of the 4 KiB payload's tree through the tree's own
// interface (GetElementType, GetAs, the containers' iterators), writing
// nothing: what encoding a tree costs before a byte is packed.
void readTree(const Element& e, std::string& scratch, std::uint64_t& sum) {
    switch (e.GetElementType()) {
        case Element::NumberType: {
            unsigned long v = 0;
            Kest::MetaData::GetAs(e, v);
            sum += v;
            break;
        }
        case Element::SignedType: {
            long v = 0;
            Kest::MetaData::GetAs(e, v);
            sum += static_cast<std::uint64_t>(v);
            break;
        }
        case Element::FloatType: {
            double v = 0;
            Kest::MetaData::GetAs(e, v);
            sum += static_cast<std::uint64_t>(v);
            break;
        }
        case Element::StringType:
            Kest::MetaData::GetAs(e, scratch);
            sum += scratch.size();
            break;
        case Element::ObjectType:
            for (const auto& member : static_cast<const Object&>(e)) {
                sum += member.first.size();
                readTree(member.second, scratch, sum);
            }
            break;
        case Element::ArrayType:
            for (const Element& item : static_cast<const Array&>(e)) readTree(item, scratch, sum);
            break;
        default:
            break;
    }
}

void BM_Wire_TreeRead_4KiB(benchmark::State& state) {
    const Element& payload = largeMessage().tree();
    std::string scratch;
    for (auto _ : state) {
        std::uint64_t sum = 0;
        readTree(payload, scratch, sum);
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_Wire_TreeRead_4KiB);

void BM_Wire_TreeCopy_4KiB(benchmark::State& state) {
    const Element& payload = largeMessage().tree();
    for (auto _ : state) {
        Element copy(payload);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(BM_Wire_TreeCopy_4KiB);

}  // namespace
}  // namespace KestBench
