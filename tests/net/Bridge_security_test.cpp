// CURVE between bridges of one process over tcp://127.0.0.1: the right keys
// connect, a wrong server key or a key not on the allow-list never does.

#include "BridgeTestSupport.h"

#include <kest/net/Bridge.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace KestTest;
using Kest::Net::Bridge;
using Kest::Net::BridgeOptions;
using Kest::Net::CurveKeyPair;

const Identifier kReading(0x0100, 1);

// How long a refused connection is given to show it gets nowhere: many
// reconnection attempts (every 100 ms) and heartbeats (every 50 ms).
constexpr std::chrono::milliseconds kRefusalWindow{1500};

BridgeOptions curveOptions(const CurveKeyPair& keys, std::vector<std::string> allow,
                           std::vector<std::string> peers = {}) {
    BridgeOptions o;
    o.listen = "tcp://127.0.0.1:*";
    o.curveSecretKey = keys.secretKey;
    o.curveAllow = std::move(allow);
    o.peers = std::move(peers);
    o.heartbeatInterval = 50ms;
    o.peerTimeout = 1000ms;
    o.linger = 200ms;
    return o;
}

TEST(BridgeCurve, MatchingKeysConnectAndCarryMessages) {
    const CurveKeyPair keyA = Kest::Net::makeCurveKeyPair();
    const CurveKeyPair keyB = Kest::Net::makeCurveKeyPair();
    auto dispatcherA = std::make_shared<MessageDispatcher>();
    auto dispatcherB = std::make_shared<MessageDispatcher>();
    Bridge a(dispatcherA, curveOptions(keyA, {keyB.publicKey}));
    a.start();
    Bridge b(dispatcherB, curveOptions(keyB, {keyA.publicKey}, {a.endpoint() + "?key=" + keyA.publicKey}));
    b.start();
    Collector inbox;
    dispatcherA->subscribe(inbox.queue(), {}, kReading);
    ASSERT_TRUE(a.waitSynced(kSyncTimeout));
    ASSERT_TRUE(b.waitSynced(kSyncTimeout));

    EXPECT_TRUE(dispatcherB->postMessage(numbered(kReading, 7), nullptr));
    ASSERT_TRUE(inbox.waitForNumber(7));
    EXPECT_EQ(a.counters().rejectedConnections, 0u);
    ASSERT_EQ(a.peers().size(), 1u);
    EXPECT_EQ(a.peers()[0].id, b.endpoint());  // a connected back with the key b proved
}

TEST(BridgeCurve, WrongServerKeyNeverConnectsAndCarriesNothing) {
    const CurveKeyPair keyA = Kest::Net::makeCurveKeyPair();
    const CurveKeyPair keyC = Kest::Net::makeCurveKeyPair();
    const CurveKeyPair impostor = Kest::Net::makeCurveKeyPair();
    auto dispatcherA = std::make_shared<MessageDispatcher>();
    auto dispatcherC = std::make_shared<MessageDispatcher>();
    Bridge a(dispatcherA, curveOptions(keyA, {keyC.publicKey}));
    a.start();
    Collector inbox;
    dispatcherA->subscribe(inbox.queue(), {}, kReading);
    // c is allowed, but takes another key for a's.
    Bridge c(dispatcherC, curveOptions(keyC, {keyA.publicKey}, {a.endpoint() + "?key=" + impostor.publicKey}));
    c.start();

    EXPECT_FALSE(c.waitSynced(kRefusalWindow));
    ASSERT_EQ(c.peers().size(), 1u);
    EXPECT_FALSE(c.peers()[0].connected);
    EXPECT_GT(c.peers()[0].counters.handshakeFailures, 0u);
    EXPECT_GT(a.counters().rejectedConnections, 0u);
    EXPECT_TRUE(a.peers().empty());
    dispatcherC->postMessage(numbered(kReading, 1), nullptr);
    EXPECT_EQ(c.peers()[0].counters.sent, 0u);
    EXPECT_EQ(inbox.count(), 0u);
}

TEST(BridgeCurve, ClientKeyMissingFromTheAllowListIsRefusedWhileAnAllowedOneGetsIn) {
    const CurveKeyPair keyA = Kest::Net::makeCurveKeyPair();
    const CurveKeyPair keyB = Kest::Net::makeCurveKeyPair();
    const CurveKeyPair stranger = Kest::Net::makeCurveKeyPair();
    auto dispatcherA = std::make_shared<MessageDispatcher>();
    auto dispatcherB = std::make_shared<MessageDispatcher>();
    auto dispatcherS = std::make_shared<MessageDispatcher>();
    Bridge a(dispatcherA, curveOptions(keyA, {keyB.publicKey}));
    a.start();
    Collector inbox;
    dispatcherA->subscribe(inbox.queue(), {}, kReading);
    Bridge s(dispatcherS, curveOptions(stranger, {keyA.publicKey}, {a.endpoint() + "?key=" + keyA.publicKey}));
    s.start();
    Bridge b(dispatcherB, curveOptions(keyB, {keyA.publicKey}, {a.endpoint() + "?key=" + keyA.publicKey}));
    b.start();

    ASSERT_TRUE(b.waitSynced(kSyncTimeout));
    EXPECT_FALSE(s.waitSynced(kRefusalWindow));
    EXPECT_GT(s.peers()[0].counters.handshakeFailures, 0u);
    EXPECT_GT(a.counters().rejectedConnections, 0u);
    ASSERT_EQ(a.peers().size(), 1u);
    EXPECT_EQ(a.peers()[0].id, b.endpoint());

    dispatcherS->postMessage(numbered(kReading, 1), nullptr);
    dispatcherB->postMessage(numbered(kReading, 2), nullptr);
    ASSERT_TRUE(inbox.waitForNumber(2));
    EXPECT_EQ(inbox.count(), 1u);
}

}  // namespace
