#pragma once

// The bridge's control protocol: what two bridges say to each other besides
// the messages themselves.
//
// Every frame a bridge sends is one ZeroMQ message: one byte naming its kind,
// then its body. A DATA body is a message in the wire format (Wire.h). Every
// other body is a MessagePack array whose first item is the protocol's major
// version; a reader refuses another major version and ignores items appended
// after the ones it knows (a newer minor version may add some).
//
// Private to libKestNet: not installed, nothing of it exported.

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Kest::Net::detail {

inline constexpr std::uint32_t kProtocolVersion = 1;

enum class FrameKind : std::uint8_t {
    Hello = 1,     // also the heartbeat: who I am, what I know of you, whom I know
    Bye = 2,       // I am stopping: drop my routing now
    Resync = 3,    // send me your whole routing
    Snapshot = 4,  // my whole routing, as of a sequence number
    Delta = 5,     // one numbered change of my routing
    Ack = 6,       // I have applied your routing up to a sequence number
    Data = 16,     // a message, in the wire format
};

// (message identifier, address): a subscription key (address = sender
// prefix) or a service key (address = destination prefix).
using RouteKey = std::pair<std::uint64_t, std::vector<std::string>>;

// The routing one process exports: its subscription keys and, per service
// key, its lowest local rank.
struct Routing {
    std::set<RouteKey> subscriptions;
    std::map<RouteKey, std::uint64_t> services;

    bool operator==(const Routing& other) const {
        return subscriptions == other.subscriptions && services == other.services;
    }
};

struct KnownPeer {
    std::string id;   // advertised endpoint
    std::string key;  // its CURVE public key (Z85), empty without CURVE
};

// Sent on every link at start, on every completed connection and with every
// heartbeat.
struct Hello {
    std::string id;             // the sender's advertised endpoint
    std::uint64_t epoch = 0;    // the sender's epoch
    std::string key;            // the sender's CURVE public key (Z85), or empty
    std::uint64_t token = 0;    // names the link this frame travels on
    std::uint64_t echo = 0;     // the token of the last Hello the sender got from the addressee
    std::uint64_t yourEpoch = 0;  // the addressee's epoch as the sender knows it, 0 if unknown
    std::uint64_t dataSequence = 0;     // data messages sent on this link so far
    std::uint64_t routingSequence = 0;  // the sender's current routing sequence
    bool haveYourRouting = false;       // whether the sender holds the addressee's routing ...
    std::uint64_t yourRoutingSequence = 0;  // ... and as of which sequence
    std::vector<KnownPeer> peers;  // the live peers the sender knows
};

struct Bye {
    std::string id;
    std::uint64_t epoch = 0;
};

struct Resync {
    std::string id;
    std::uint64_t epoch = 0;
    std::uint64_t yourEpoch = 0;  // the epoch whose routing is asked for
};

// A whole routing (Snapshot) or one change of it (Delta).
struct RoutingUpdate {
    std::string id;
    std::uint64_t epoch = 0;
    std::uint64_t sequence = 0;
    Routing routing;                          // Snapshot: all of it; Delta: added or changed
    std::set<RouteKey> removedSubscriptions;  // Delta only
    std::set<RouteKey> removedServices;       // Delta only
};

struct Ack {
    std::string id;
    std::uint64_t epoch = 0;
    std::uint64_t yourEpoch = 0;
    std::uint64_t sequence = 0;
};

// Each returns the whole frame: the kind byte, then the body.
std::string encodeHello(const Hello& hello);
std::string encodeBye(const Bye& bye);
std::string encodeResync(const Resync& resync);
std::string encodeRoutingUpdate(FrameKind kind, const RoutingUpdate& update);
std::string encodeAck(const Ack& ack);

// Each reads a body (the frame without its kind byte); std::nullopt for
// anything malformed or of another major version. Never throws but
// std::bad_alloc; reads at most a bounded amount.
std::optional<Hello> decodeHello(std::string_view body);
std::optional<Bye> decodeBye(std::string_view body);
std::optional<Resync> decodeResync(std::string_view body);
std::optional<RoutingUpdate> decodeRoutingUpdate(FrameKind kind, std::string_view body);
std::optional<Ack> decodeAck(std::string_view body);

// The changes that turn `from` into `to`, as the routing and removals of a Delta.
void difference(const Routing& from, const Routing& to, RoutingUpdate& delta);

}  // namespace Kest::Net::detail
