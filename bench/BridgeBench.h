#pragma once

// What kest_bench_bridge and its child program kest_bench_bridge_peer share:
// the message both processes exchange, its registration for decoding, and the
// line protocol on the child's standard input and output.
//
// The message is a realistic small one: a PayloadMessage whose record holds a
// reading of four fields (a number, a count, a unit, a flag), with a three-part
// sender. The raw ZeroMQ peers send frames of exactly the size the bridge puts
// on the wire for it (its frame kind, envelope and tree), so both sides move
// the same bytes.

#include <kest/metadata/MirroredObject.h>
#include <kest/model/PayloadMessage.h>
#include <kest/model/Reflector.h>
#include <kest/net/MessageTypes.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KestBench::Bridge {

class Reading : public Kest::MetaData::MirroredObject {
public:
    Reading() = default;
    Reading(double v, unsigned long n, std::string u, bool ok) : Reading() {
        value.assign(v);
        count.assign(n);
        unit.assign(std::move(u));
        valid.assign(ok);
    }
    Reading(const Reading& other)
        : MirroredObject(other),
          value(this, other.value),
          count(this, other.count),
          unit(this, other.unit),
          valid(this, other.valid) {}
    Reading& operator=(const Reading& other) {
        value = other.value;
        count = other.count;
        unit = other.unit;
        valid = other.valid;
        return *this;
    }

    Kest::MetaData::Reflector<double, false, true> value{this, "Value", true};
    Kest::MetaData::Reflector<unsigned long, false, true> count{this, "Count", true};
    Kest::MetaData::Reflector<std::string, false, true> unit{this, "Unit", true};
    Kest::MetaData::Reflector<bool, false, true> valid{this, "Valid", true};
};

// The producer's messages and the round trip's requests; the answers.
using ReadingMessage = Kest::Msgs::PayloadMessage<0x0B00, 1, Reading>;
using ReplyMessage = Kest::Msgs::PayloadMessage<0x0B00, 2, Reading>;

inline const std::vector<std::string>& readingSender() {
    static const std::vector<std::string> sender{"plant0", "line2", "press3"};
    return sender;
}

// The i-th message: its fields vary a little, as real readings do.
template <class M>
std::shared_ptr<const M> makeReading(std::uint64_t i) {
    return std::make_shared<M>(Reading(20.0 + static_cast<double>(i % 1000) * 0.001, i, "degC", i % 7 != 0),
                               readingSender());
}

// Both processes decode the messages as their concrete types.
inline void registerReadingTypes() {
    Kest::Net::MessageTypes::add<ReadingMessage>(ReadingMessage::Id);
    Kest::Net::MessageTypes::add<ReplyMessage>(ReplyMessage::Id);
}

// Prefix of every line the child writes for the parent; anything else on its
// standard output (a dispatcher's warning) is skipped.
inline constexpr const char* kLinePrefix = "KB ";

}  // namespace KestBench::Bridge
