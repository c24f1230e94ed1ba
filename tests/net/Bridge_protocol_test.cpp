// What a bridge does with frames that are not its protocol: counts them and
// goes on. The junk comes from a bare ZeroMQ DEALER on 127.0.0.1; the bridge
// runs in poll() mode, so the test turns its loop until the counters move.

#include "BridgeTestSupport.h"

#include <kest/net/Bridge.h>
#include <kest/net/Wire.h>

#include <gtest/gtest.h>

#include <zmq.hpp>

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

}  // namespace
