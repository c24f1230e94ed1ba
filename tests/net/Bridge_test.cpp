// Bridges between dispatchers of one process, each bridge with its own
// ZeroMQ context and I/O thread, over tcp://127.0.0.1 and over inproc://.

#include "BridgeTestSupport.h"

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/net/Bridge.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <vector>

namespace {

using namespace KestTest;
using Kest::Net::Bridge;
using Kest::Net::BridgeOptions;

const Identifier kReading(0x0100, 1);
const Identifier kRequest(0x0100, 2);
const Identifier kOther(0x0100, 3);

// One process of the mesh: a dispatcher and its bridge.
struct Node {
    std::shared_ptr<MessageDispatcher> dispatcher = std::make_shared<MessageDispatcher>();
    std::unique_ptr<Bridge> bridge;
};

class BridgeInProcess : public ::testing::TestWithParam<std::string> {
protected:
    // The listen endpoint of a new node on this test's transport.
    std::string listenEndpoint() {
        static std::atomic<int> next{0};
        if (GetParam() == "inproc") return "inproc://kest-bridge-test-" + std::to_string(next++);
        return "tcp://127.0.0.1:*";
    }

    BridgeOptions options(std::vector<std::string> peers = {}) {
        BridgeOptions o;
        o.listen = listenEndpoint();
        o.peers = std::move(peers);
        o.heartbeatInterval = 50ms;
        o.peerTimeout = 1000ms;
        o.linger = 500ms;
        return o;
    }

    Node& add(std::vector<std::string> peers = {}) {
        nodes_.push_back(std::make_unique<Node>());
        Node& node = *nodes_.back();
        node.bridge = std::make_unique<Bridge>(node.dispatcher, options(std::move(peers)));
        node.bridge->start();
        return node;
    }

    void syncAll() {
        for (auto& node : nodes_) ASSERT_TRUE(node->bridge->waitSynced(kSyncTimeout)) << node->bridge->endpoint();
    }

    std::vector<std::unique_ptr<Node>> nodes_;
};

TEST_P(BridgeInProcess, RemoteSubscriptionShowsAsAStandInAndUnsubscribingRemovesIt) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    syncAll();
    TableWatcher watchA(a.dispatcher);

    Collector inbox;
    b.dispatcher->subscribe(inbox.queue(), {"plant"}, kReading);
    ASSERT_TRUE(b.bridge->waitSynced(kSyncTimeout));
    EXPECT_EQ(watchA.subscribers(kReading, {"plant"}), 1u);  // the stand-in of b
    const auto seen = peerStatus(*a.bridge, b.bridge->endpoint());
    ASSERT_EQ(seen.subscriptions.size(), 1u);
    EXPECT_EQ(seen.subscriptions[0].id(), static_cast<unsigned long>(kReading));
    EXPECT_EQ(seen.subscriptions[0].sender(), std::vector<std::string>{"plant"});

    // a exports only its own interest, never the stand-in it learned: after a
    // change of its own routing, b still sees only its own subscriber.
    Collector other;
    a.dispatcher->subscribe(other.queue(), {}, kOther);
    ASSERT_TRUE(a.bridge->waitSynced(kSyncTimeout));
    TableWatcher watchB(b.dispatcher);
    EXPECT_EQ(watchB.subscribers(kReading, {"plant"}), 1u);
    EXPECT_EQ(watchB.subscribers(kOther), 1u);
    EXPECT_EQ(peerStatus(*b.bridge, a.bridge->endpoint()).subscriptions.size(), 1u);

    b.dispatcher->unsubscribe(inbox.queue(), {"plant"}, kReading);
    ASSERT_TRUE(b.bridge->waitSynced(kSyncTimeout));
    EXPECT_EQ(watchA.subscribers(kReading, {"plant"}), 0u);
    EXPECT_TRUE(peerStatus(*a.bridge, b.bridge->endpoint()).subscriptions.empty());
}

TEST_P(BridgeInProcess, MessagePostedInOneDispatcherReachesTheSubscriberOfTheOtherOnceAndInOrder) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    Collector inbox;
    b.dispatcher->subscribe(inbox.queue(), {}, kReading);
    syncAll();

    std::vector<std::string> identities;
    for (std::uint64_t n = 0; n < 100; ++n) {
        auto message = numbered(kReading, n, "a", {"plant", "line2"});
        identities.push_back(message->identity());
        EXPECT_TRUE(a.dispatcher->postMessage(message, nullptr));
    }
    ASSERT_TRUE(inbox.waitForCount(100));
    const auto got = inbox.messages();
    ASSERT_EQ(got.size(), 100u);
    for (std::uint64_t n = 0; n < 100; ++n) {
        EXPECT_EQ(numberOf(*got[n]), n);
        EXPECT_EQ(got[n]->identity(), identities[n]);  // the same message, not a copy with a new identity
        EXPECT_EQ(got[n]->sender(), (std::vector<std::string>{"plant", "line2"}));
    }
    const auto counters = peerStatus(*a.bridge, b.bridge->endpoint()).counters;
    EXPECT_EQ(counters.sent, 100u);
    EXPECT_EQ(counters.refused, 0u);
    EXPECT_EQ(peerStatus(*b.bridge, a.bridge->endpoint()).counters.received, 100u);
}

TEST_P(BridgeInProcess, MessageThatArrivedFromTheNetworkIsNeverSentBack) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    Collector inboxA;
    Collector inboxB;
    a.dispatcher->subscribe(inboxA.queue(), {}, kReading);
    b.dispatcher->subscribe(inboxB.queue(), {}, kReading);
    syncAll();

    ASSERT_TRUE(a.dispatcher->postMessage(numbered(kReading, 1), nullptr));
    ASSERT_TRUE(inboxB.waitForNumber(1));
    // A fence from b: when it arrives at a, anything b sent before it has too.
    ASSERT_TRUE(b.dispatcher->postMessage(numbered(kReading, 2), nullptr));
    ASSERT_TRUE(inboxA.waitForNumber(2));

    // a's own post reached its own subscriber once, locally; b sent only the fence.
    const auto got = inboxA.messages();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(numberOf(*got[0]), 1u);
    EXPECT_EQ(numberOf(*got[1]), 2u);
    EXPECT_EQ(peerStatus(*b.bridge, a.bridge->endpoint()).counters.sent, 1u);
    EXPECT_EQ(inboxB.count(), 2u);  // a's message and its own fence
}

TEST_P(BridgeInProcess, RemoteServicesAreRankedAboveLocalOnesAndFailOverToTheNextProcess) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    Node& c = add({a.bridge->endpoint()});
    const std::vector<std::string> desk{"desk"};
    Collector serviceB;
    Collector serviceC;
    b.dispatcher->registerService(serviceB.queue(), desk, kRequest, 2);
    c.dispatcher->registerService(serviceC.queue(), desk, kRequest, 1);
    syncAll();
    TableWatcher watchA(a.dispatcher);
    EXPECT_EQ(watchA.lowestRank(kRequest, desk), Bridge::kRemoteRankBase + 1);
    const auto seen = peerStatus(*a.bridge, c.bridge->endpoint());
    ASSERT_EQ(seen.services.size(), 1u);
    EXPECT_EQ(seen.services[0].rank, 1u);
    EXPECT_EQ(seen.services[0].key.destination(), desk);

    // The lowest remote rank serves.
    EXPECT_TRUE(a.dispatcher->postMessage(numbered(kRequest, 1, "a", {}, desk), nullptr));
    ASSERT_TRUE(serviceC.waitForNumber(1));

    // A local service, of any rank below 2^32, is preferred.
    Collector local;
    a.dispatcher->registerService(local.queue(), desk, kRequest, 7);
    EXPECT_TRUE(a.dispatcher->postMessage(numbered(kRequest, 2, "a", {}, desk), nullptr));
    EXPECT_EQ(local.count(), 1u);  // delivered on the posting thread
    a.dispatcher->unregisterService(local.queue(), desk, kRequest);

    // c leaves: its service disappears and b takes over.
    c.bridge->stop();
    ASSERT_TRUE(watchA.waitUntil([&] { return watchA.lowestRank(kRequest, desk) == Bridge::kRemoteRankBase + 2; }));
    EXPECT_TRUE(a.dispatcher->postMessage(numbered(kRequest, 3, "a", {}, desk), nullptr));
    ASSERT_TRUE(serviceB.waitForNumber(3));
    EXPECT_EQ(serviceC.count(), 1u);
    EXPECT_EQ(serviceB.count(), 1u);
}

TEST_P(BridgeInProcess, RequestWithRemoteSubscribersAndARemoteServiceInOneProcessArrivesOnceAtEach) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    const std::vector<std::string> desk{"desk"};
    Collector subscriber;
    Collector service;
    b.dispatcher->subscribe(subscriber.queue(), {}, kRequest);
    b.dispatcher->registerService(service.queue(), desk, kRequest, 1);
    syncAll();

    EXPECT_TRUE(a.dispatcher->postMessage(numbered(kRequest, 1, "a", {}, desk), nullptr));
    ASSERT_TRUE(subscriber.waitForNumber(1));
    ASSERT_TRUE(service.waitForNumber(1));
    // The fence follows both copies on the same link.
    EXPECT_TRUE(a.dispatcher->postMessage(numbered(kRequest, 2, "a", {}, desk), nullptr));
    ASSERT_TRUE(subscriber.waitForNumber(2));
    ASSERT_TRUE(service.waitForNumber(2));
    EXPECT_EQ(subscriber.count(), 2u);
    EXPECT_EQ(service.count(), 2u);
}

TEST_P(BridgeInProcess, CopyForSubscribersNeverReachesAServiceOfTheReceivingProcess) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    const std::vector<std::string> desk{"desk"};
    Collector localService;  // in a: preferred over b's service
    Collector subscriber;
    Collector remoteService;
    a.dispatcher->registerService(localService.queue(), desk, kRequest, 1);
    b.dispatcher->subscribe(subscriber.queue(), {}, kRequest);
    b.dispatcher->registerService(remoteService.queue(), desk, kRequest, 1);
    syncAll();

    EXPECT_TRUE(a.dispatcher->postMessage(numbered(kRequest, 1, "a", {}, desk), nullptr));
    EXPECT_EQ(localService.count(), 1u);
    ASSERT_TRUE(subscriber.waitForNumber(1));
    // A fence on the same link, for subscribers only.
    EXPECT_TRUE(a.dispatcher->postMessage(numbered(kRequest, 2, "a"), nullptr));
    ASSERT_TRUE(subscriber.waitForNumber(2));
    EXPECT_EQ(remoteService.count(), 0u);  // b's service never saw the subscribers' copy
}

TEST_P(BridgeInProcess, ThreeDispatchersInAFullMeshDeliverEachMessageOnceEverywhere) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    Node& c = add({b.bridge->endpoint()});  // learns a through b
    Collector inbox[3];
    Node* node[3] = {&a, &b, &c};
    TableWatcher watchA(a.dispatcher), watchB(b.dispatcher), watchC(c.dispatcher);
    TableWatcher* watch[3] = {&watchA, &watchB, &watchC};
    for (int i = 0; i < 3; ++i) node[i]->dispatcher->subscribe(inbox[i].queue(), {}, kReading);
    // c meets a only through b: a node can be synced with the peers it knows
    // before it has met the third, so wait for the meeting (it brings the
    // third's subscription into the tables), then for the routing.
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(watch[i]->waitUntil([&] { return node[i]->bridge->peers().size() == 2u; })) << i;
    }
    syncAll();

    constexpr std::uint64_t kEach = 50;
    for (std::uint64_t n = 0; n < kEach; ++n) {
        for (int i = 0; i < 3; ++i) {
            node[i]->dispatcher->postMessage(numbered(kReading, n, std::to_string(i)), nullptr);
        }
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(inbox[i].waitForCount(3 * kEach)) << i;
    }
    // Fences from each node to each other, after which nothing more may come.
    for (int i = 0; i < 3; ++i) node[i]->dispatcher->postMessage(numbered(kReading, 1000, std::to_string(i)), nullptr);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(inbox[i].waitFor([&](const auto& messages) {
            int fences = 0;
            for (const auto& m : messages) fences += numberOf(*m) == 1000 ? 1 : 0;
            return fences == 3;
        }));
        std::set<std::string> identities;
        for (const auto& m : inbox[i].messages()) EXPECT_TRUE(identities.insert(m->identity()).second);
        EXPECT_EQ(identities.size(), 3 * kEach + 3);
    }
    for (int i = 0; i < 3; ++i) {
        for (const auto& peer : node[i]->bridge->peers()) EXPECT_EQ(peer.counters.sent, kEach + 1) << i;
    }
}

TEST_P(BridgeInProcess, RoutingChangesNeverMakeTheBridgeCallBackIntoItsDispatcher) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    syncAll();
    // The bridge's callback runs inside each of these calls: had it called
    // the dispatcher, the call would throw resource_deadlock_would_occur.
    for (int round = 0; round < 100; ++round) {
        Collector queue;
        ASSERT_NO_THROW(a.dispatcher->subscribe(queue.queue(), {std::to_string(round)}, kReading));
        ASSERT_NO_THROW(a.dispatcher->registerService(queue.queue(), {std::to_string(round)}, kRequest, 3));
        ASSERT_NO_THROW(a.dispatcher->disconnectQueue(queue.queue()));
    }
    ASSERT_TRUE(a.bridge->waitSynced(kSyncTimeout));
    EXPECT_TRUE(peerStatus(*b.bridge, a.bridge->endpoint()).subscriptions.empty());
    EXPECT_EQ(a.bridge->counters().deliveryErrors, 0u);
}

TEST_P(BridgeInProcess, StopIsIdempotentAndLeavesNothingOfTheBridgeInTheDispatcher) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    Collector inbox;
    b.dispatcher->subscribe(inbox.queue(), {}, kReading);
    b.dispatcher->registerService(inbox.queue(), {"desk"}, kRequest, 4);
    syncAll();

    a.bridge->stop();
    a.bridge->stop();
    MessageDispatcher::SubscriptionsTable subscriptions;
    MessageDispatcher::ServicesTable services;
    EXPECT_EQ(a.dispatcher->getSubscriptionsTable(subscriptions), 0u);  // no stand-in, no callback
    EXPECT_EQ(a.dispatcher->getServicesTable(services), 0u);
    for (const auto& peer : a.bridge->peers()) EXPECT_FALSE(peer.connected);
    EXPECT_FALSE(a.bridge->waitSynced(0ms));
    EXPECT_FALSE(a.bridge->poll(0ms));

    // The destructor stops a running bridge the same way.
    b.bridge.reset();
    subscriptions.clear();
    EXPECT_EQ(b.dispatcher->getSubscriptionsTable(subscriptions), 1u);  // only the local subscriber
}

TEST_P(BridgeInProcess, PeerThatSaysByeLosesItsRoutingAtOnce) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    Collector inbox;
    b.dispatcher->subscribe(inbox.queue(), {}, kReading);
    syncAll();
    TableWatcher watchA(a.dispatcher);
    ASSERT_EQ(watchA.subscribers(kReading), 1u);

    b.bridge->stop();
    // Well before the peer time-out would have removed it.
    ASSERT_TRUE(watchA.waitUntil([&] { return watchA.subscribers(kReading) == 0; }, 900ms));
    // A peer that left is not waited for (its routing goes first, then the
    // peer itself, so give the bridge its turn to finish).
    EXPECT_TRUE(a.bridge->waitSynced(kSyncTimeout));
}

TEST_P(BridgeInProcess, StopFromInsideADeliveryOfTheBridgesOwnThreadThrowsInsteadOfDeadlocking) {
    Node& a = add();
    Node& b = add({a.bridge->endpoint()});
    std::mutex mutex;
    std::condition_variable done;
    std::optional<std::error_code> error;
    auto callback = std::make_shared<MessageCallback>([&](const std::shared_ptr<const Message>&) {
        std::error_code code;
        try {
            b.bridge->stop();
        } catch (const std::system_error& e) {
            code = e.code();
        }
        std::lock_guard<std::mutex> lock(mutex);
        error = code;
        done.notify_all();
    });
    b.dispatcher->subscribe(callback, {}, kReading);
    syncAll();
    a.dispatcher->postMessage(numbered(kReading, 1), nullptr);
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(done.wait_for(lock, kSyncTimeout, [&] { return error.has_value(); }));
    EXPECT_EQ(*error, std::errc::resource_deadlock_would_occur);
    lock.unlock();
    EXPECT_TRUE(b.bridge->waitSynced(kSyncTimeout));  // still running
}

TEST_P(BridgeInProcess, PollDrivesABridgeWithoutAThreadOfItsOwn) {
    Node& a = add();
    nodes_.push_back(std::make_unique<Node>());
    Node& b = *nodes_.back();
    b.bridge = std::make_unique<Bridge>(b.dispatcher, options({a.bridge->endpoint()}));
    EXPECT_EQ(b.bridge->endpoint(), "");
    Collector inboxA;
    Collector inboxB;
    a.dispatcher->subscribe(inboxA.queue(), {}, kReading);
    b.dispatcher->subscribe(inboxB.queue(), {}, kOther);
    ASSERT_TRUE(b.bridge->waitSynced(kSyncTimeout));  // runs poll() itself
    EXPECT_NE(b.bridge->endpoint(), "");
    ASSERT_TRUE(a.bridge->waitSynced(kSyncTimeout));
    EXPECT_THROW(b.bridge->start(), std::logic_error);

    EXPECT_TRUE(b.dispatcher->postMessage(numbered(kReading, 1), nullptr));  // sent on the posting thread
    ASSERT_TRUE(inboxA.waitForNumber(1));
    EXPECT_TRUE(a.dispatcher->postMessage(numbered(kOther, 2), nullptr));
    // Received only while b polls.
    const auto deadline = std::chrono::steady_clock::now() + kSyncTimeout;
    while (inboxB.count() == 0 && std::chrono::steady_clock::now() < deadline) b.bridge->poll(100ms);
    ASSERT_EQ(inboxB.count(), 1u);
    b.bridge->stop();
    EXPECT_FALSE(b.bridge->poll(0ms));
}

TEST_P(BridgeInProcess, ConfiguredPeerThatIsThisProcessIsDropped) {
    Node& a = add();
    static std::atomic<int> next{0};
    // An endpoint known before binding: inproc:// or ipc://.
    const std::string self = (GetParam() == "inproc" ? "inproc://" : "ipc://" + ::testing::TempDir()) +
                             "kest-bridge-self-" + std::to_string(next++);
    nodes_.push_back(std::make_unique<Node>());
    Node& b = *nodes_.back();
    BridgeOptions o = options({a.bridge->endpoint(), self});
    o.listen = self;
    b.bridge = std::make_unique<Bridge>(b.dispatcher, o);
    b.bridge->start();
    syncAll();
    const auto peers = b.bridge->peers();
    ASSERT_EQ(peers.size(), 1u);
    EXPECT_EQ(peers[0].id, a.bridge->endpoint());
}

INSTANTIATE_TEST_SUITE_P(Transports, BridgeInProcess, ::testing::Values("tcp", "inproc"),
                         [](const auto& info) { return info.param; });

TEST(BridgeOptions, StartRefusesToListenBeyondLoopbackWithoutKeys) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    for (const char* listen : {"tcp://0.0.0.0:*", "tcp://*:*", "tcp://eth0:*", "tcp://[::]:*"}) {
        BridgeOptions o;
        o.listen = listen;
        Bridge bridge(dispatcher, o);
        try {
            bridge.start();
            ADD_FAILURE() << listen << " was accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find("without encryption"), std::string::npos) << e.what();
        }
    }
    MessageDispatcher::SubscriptionsTable table;
    EXPECT_EQ(dispatcher->getSubscriptionsTable(table), 0u);  // nothing attached to it
}

TEST(BridgeOptions, StartAcceptsLoopbackIpcAndInprocWithoutKeys) {
    auto dispatcher = std::make_shared<MessageDispatcher>();
    for (const std::string& listen : {std::string("tcp://127.0.0.1:*"), std::string("tcp://127.8.9.10:*"),
                                      std::string("tcp://localhost:*"), std::string("tcp://[::1]:*"),
                                      "ipc://" + ::testing::TempDir() + "kest-bridge-options.ipc",
                                      std::string("inproc://kest-bridge-options")}) {
        BridgeOptions o;
        o.listen = listen;
        Bridge bridge(dispatcher, o);
        try {
            bridge.start();
        } catch (const std::invalid_argument& e) {
            ADD_FAILURE() << listen << ": " << e.what();
        } catch (const std::exception& e) {
            // The address may be missing here (no IPv6): only our own refusal fails the test.
            std::cout << listen << " could not be bound: " << e.what() << "\n";
        }
        bridge.stop();
    }
}

TEST(BridgeOptions, StringOptionsOfTheFactoryAreParsedAndBadOnesRefused) {
    const auto keys = Kest::Net::makeCurveKeyPair();
    EXPECT_NO_THROW(Bridge({"listen=tcp://127.0.0.1:*", "peer=tcp://127.0.0.1:7001", "peer=ipc:///tmp/x",
                            "advertise=tcp://127.0.0.1:7002", "send-buffer=10", "linger-ms=0", "heartbeat-ms=5",
                            "peer-timeout-ms=50", "allow-insecure"}));
    EXPECT_NO_THROW(Bridge({"listen=tcp://127.0.0.1:*", "curve-secret=" + keys.secretKey,
                            "curve-allow=" + keys.publicKey, "peer=tcp://127.0.0.1:7001?key=" + keys.publicKey}));
    for (const std::vector<std::string>& bad :
         std::vector<std::vector<std::string>>{{"listen"},
                                               {"listen="},
                                               {"bogus=1"},
                                               {"send-buffer=ten"},
                                               {"send-buffer=0"},
                                               {"send-buffer=-1"},
                                               {"heartbeat-ms=100", "peer-timeout-ms=100"},
                                               {"heartbeat-ms=0"},
                                               {"linger-ms=1x"},
                                               {"allow-insecure=yes"},
                                               {"curve-secret=short"},
                                               {"curve-allow=" + keys.publicKey.substr(1)},
                                               {"peer=udp://127.0.0.1:1"},
                                               {"peer=tcp://127.0.0.1:1?kex=" + keys.publicKey},
                                               {"peer=tcp://127.0.0.1:1?key=nope"},
                                               {"listen=http://127.0.0.1:80"}}) {
        EXPECT_THROW(Bridge{bad}, std::invalid_argument) << bad[0];
    }
    EXPECT_THROW(Kest::Net::curvePublicKey("not a key"), std::invalid_argument);
    EXPECT_EQ(Kest::Net::curvePublicKey(keys.secretKey), keys.publicKey);
}

TEST(BridgeOptions, StartWithoutDispatcherOrWithInconsistentKeysThrowsClearly) {
    Bridge unattached(std::vector<std::string>{"listen=tcp://127.0.0.1:*"});
    EXPECT_THROW(unattached.start(), std::logic_error);
    auto dispatcher = std::make_shared<MessageDispatcher>();
    const auto keys = Kest::Net::makeCurveKeyPair();
    Bridge keyedPeerWithoutCurve({"listen=tcp://127.0.0.1:*", "peer=tcp://127.0.0.1:1?key=" + keys.publicKey});
    keyedPeerWithoutCurve.attach(dispatcher);
    EXPECT_THROW(keyedPeerWithoutCurve.start(), std::invalid_argument);
    Bridge curvePeerWithoutKey({"listen=tcp://127.0.0.1:*", "curve-secret=" + keys.secretKey,
                                "curve-allow=" + keys.publicKey, "peer=tcp://127.0.0.1:1"});
    curvePeerWithoutKey.attach(dispatcher);
    EXPECT_THROW(curvePeerWithoutKey.start(), std::invalid_argument);
    Bridge curveWithoutAllowList({"listen=tcp://127.0.0.1:*", "curve-secret=" + keys.secretKey});
    curveWithoutAllowList.attach(dispatcher);
    EXPECT_THROW(curveWithoutAllowList.start(), std::invalid_argument);
    Bridge noListen(dispatcher, BridgeOptions());
    EXPECT_THROW(noListen.start(), std::invalid_argument);
}

}  // namespace
