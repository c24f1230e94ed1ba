// What a bridge does with frames that are not its protocol: counts them and
// goes on. The junk comes from a bare ZeroMQ DEALER on 127.0.0.1; the bridge
// runs in poll() mode, so the test turns its loop until the counters move.

#include "BridgeTestSupport.h"

#include <kest/net/Bridge.h>
#include <kest/net/Wire.h>

#include <gtest/gtest.h>

#include <zmq.hpp>

#include <msgpack.hpp>

#include <memory>
#include <string>

namespace {

using namespace KestTest;
using Kest::Net::Bridge;
using Kest::Net::BridgeOptions;

const Identifier kReading(0x0100, 1);

// Polls `bridge` until `done()` or the deadline.
template <class Done>
bool pollUntil(Bridge& bridge, Done done, std::chrono::milliseconds timeout = kSyncTimeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        bridge.poll(20ms);
    }
    return true;
}

TEST(BridgeProtocol, JunkFramesAreCountedAndTheBridgeGoesOn) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    BridgeOptions o;
    o.listen = "tcp://127.0.0.1:*";
    o.heartbeatInterval = 50ms;
    o.peerTimeout = 1000ms;
    Bridge bridge(dispatcher, o);
    Collector inbox;
    dispatcher->subscribe(inbox.queue(), {}, kReading);
    bridge.poll(0ms);  // binds

    zmq::context_t context;
    zmq::socket_t junk(context, zmq::socket_type::dealer);
    junk.set(zmq::sockopt::linger, 0);
    junk.connect(bridge.endpoint());
    junk.send(zmq::message_t(), zmq::send_flags::none);                   // empty
    junk.send(zmq::buffer(std::string("\x63zzz")), zmq::send_flags::none);  // unknown kind
    junk.send(zmq::buffer(std::string("\x01\xc1")), zmq::send_flags::none);  // Hello, not MessagePack
    junk.send(zmq::buffer(std::string("\x04\x91\x07")), zmq::send_flags::none);  // Snapshot of version 7
    junk.send(zmq::buffer(std::string("\x10garbage")), zmq::send_flags::none);  // Data, not the wire format
    junk.send(zmq::buffer(std::string("\x01")), zmq::send_flags::sndmore);  // two frames
    junk.send(zmq::buffer(std::string("x")), zmq::send_flags::none);
    // Well-formed data from a process the bridge never heard of.
    Kest::Net::Envelope envelope;
    envelope.origin = "tcp://127.0.0.1:1";
    envelope.epoch = 5;
    junk.send(zmq::buffer("\x10" + Kest::Net::encode(*numbered(kReading, 1), envelope)), zmq::send_flags::none);

    ASSERT_TRUE(pollUntil(bridge, [&] {
        const auto c = bridge.counters();
        return c.malformed >= 6 && c.strayMessages >= 1;
    })) << bridge.counters().malformed << " " << bridge.counters().strayMessages;
    EXPECT_EQ(bridge.counters().malformed, 6u);
    EXPECT_EQ(bridge.counters().strayMessages, 1u);
    EXPECT_EQ(inbox.count(), 0u);
    EXPECT_TRUE(bridge.peers().empty());

    // Still a bridge: another one connects and is served.
    auto other = std::make_shared<MessageDispatcher>();
    BridgeOptions p = o;
    p.peers = {bridge.endpoint()};
    Bridge peer(other, p);
    peer.start();
    ASSERT_TRUE(pollUntil(bridge, [&] { return bridge.waitSynced(0ms) && peer.waitSynced(0ms); }));
    other->postMessage(numbered(kReading, 2), nullptr);
    ASSERT_TRUE(pollUntil(bridge, [&] { return inbox.count() == 1; }));
}


// The HELLO a bridge sends, written by hand: [version, id, epoch, key,
// token, echo, yourEpoch, dataSequence, routingSequence, haveYourRouting,
// yourRoutingSequence, peers].
std::string hello(const std::string& id, std::uint64_t epoch, std::uint64_t dataSequence) {
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> p(buffer);
    p.pack_array(12);
    p.pack_uint64(1);
    p.pack(id);
    p.pack_uint64(epoch);
    p.pack(std::string());
    p.pack_uint64(99);
    p.pack_uint64(0);
    p.pack_uint64(0);
    p.pack_uint64(dataSequence);
    p.pack_uint64(0);
    p.pack_false();
    p.pack_uint64(0);
    p.pack_array(0);
    return "\x01" + std::string(buffer.data(), buffer.size());
}

std::string data(const std::string& origin, std::uint64_t epoch, std::uint64_t sequence, std::uint64_t n,
                 std::uint32_t hops = 0) {
    Kest::Net::Envelope envelope;
    envelope.origin = origin;
    envelope.epoch = epoch;
    envelope.hops = hops;
    envelope.scope = Kest::Net::Scope::Subscribers;
    envelope.sequence = sequence;
    return "\x10" + Kest::Net::encode(*numbered(kReading, n), envelope);
}

TEST(BridgeProtocol, GapsInAPeersSequenceAreCountedDroppedAndLateOrForwardedFramesAreNotDelivered) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    BridgeOptions o;
    o.listen = "tcp://127.0.0.1:*";
    o.heartbeatInterval = 50ms;
    o.peerTimeout = 5000ms;
    Bridge bridge(dispatcher, o);
    Collector inbox;
    dispatcher->subscribe(inbox.queue(), {}, kReading);
    bridge.poll(0ms);

    // A process that is nowhere to be reached: the bridge's connection back fails quietly.
    const std::string id = "tcp://127.0.0.1:1";
    zmq::context_t context;
    zmq::socket_t peer(context, zmq::socket_type::dealer);
    peer.set(zmq::sockopt::linger, 0);
    peer.connect(bridge.endpoint());
    peer.send(zmq::buffer(hello(id, 42, 0)), zmq::send_flags::none);  // nothing sent before
    peer.send(zmq::buffer(data(id, 42, 0, 100)), zmq::send_flags::none);
    peer.send(zmq::buffer(data(id, 42, 5, 105)), zmq::send_flags::none);  // 1 to 4 lost
    peer.send(zmq::buffer(data(id, 42, 3, 103)), zmq::send_flags::none);  // late: counted with the gap
    peer.send(zmq::buffer(hello(id, 42, 10)), zmq::send_flags::none);     // 6 to 9 lost as well
    peer.send(zmq::buffer(data(id, 42, 10, 110, 1)), zmq::send_flags::none);  // forwarded once: refused
    peer.send(zmq::buffer(data(id, 7, 11, 111)), zmq::send_flags::none);  // from an epoch not known
    peer.send(zmq::buffer(data(id, 42, 11, 111)), zmq::send_flags::none);

    ASSERT_TRUE(pollUntil(bridge, [&] { return inbox.count() >= 3; }));
    const auto status = peerStatus(bridge, id);
    ASSERT_EQ(status.id, id);
    EXPECT_EQ(status.epoch, 42u);
    EXPECT_EQ(status.counters.received, 3u);
    EXPECT_EQ(status.counters.dropped, 4u + 4u + 1u + 1u);
    const auto got = inbox.messages();
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(numberOf(*got[0]), 100u);
    EXPECT_EQ(numberOf(*got[1]), 105u);
    EXPECT_EQ(numberOf(*got[2]), 111u);
}

}  // namespace
