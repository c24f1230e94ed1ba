#pragma once

// BridgeCore: everything a Bridge does; Bridge is its public handle.
//
// Threads. The loop (turn()) runs on the bridge's I/O thread after start(),
// or on the threads that call poll(), one turn at a time (loopMutex_). It
// owns the ROUTER, the ZAP socket, the monitors and every Peer record, and is
// the only code that calls the dispatcher (subscribing, registering and
// disconnecting stand-ins, posting what arrived). Posting threads reach the
// bridge only through the stand-ins, which send on their peer's Link under
// the link's own mutex; the loop takes the same mutex for its own frames on
// that link. The notification callback only counts a generation and writes
// an eventfd. What other threads read (peers(), waitSynced()) is published by
// the loop under statusMutex_, plus the counters, which are atomics.
//
// Private to libKestNet: not installed, nothing of it exported.

#include <kest/net/Bridge.h>
#include <kest/net/Wire.h>
#include <kest/net/internal/BridgeProtocol.h>

#include <zmq.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Kest::Msgs {
class MessageCallback;
class MessageDispatcher;
}  // namespace Kest::Msgs

namespace Kest::Net::detail {

using Clock = std::chrono::steady_clock;

// A configured peer: its endpoint and, with CURVE, its server key.
struct PeerAddress {
    std::string endpoint;
    std::string key;
};

// Parses "ENDPOINT" or "ENDPOINT?key=KEY". Throws std::invalid_argument.
PeerAddress parsePeerAddress(const std::string& text);
// Throws std::invalid_argument unless `key` is a Z85 CURVE key.
void checkCurveKey(const std::string& key, const char* what);

// Counters of one peer, shared by its Link (sent, refused) and the loop.
struct Tally {
    std::atomic<std::uint64_t> sent{0};
    std::atomic<std::uint64_t> received{0};
    std::atomic<std::uint64_t> refused{0};
    std::atomic<std::uint64_t> dropped{0};
    std::atomic<std::uint64_t> reconnects{0};
    std::atomic<std::uint64_t> handshakeFailures{0};
};

// Our DEALER to one peer: the only way anything reaches that peer.
class Link {
public:
    Link(zmq::context_t& context, const std::string& endpoint, const std::string& serverKey,
         const BridgeOptions& options, const std::string& publicKey, std::uint64_t token,
         const std::string& monitorEndpoint, std::shared_ptr<Tally> tally, Envelope envelope);

    // A message from a stand-in, on the posting thread: encoded and sent
    // without waiting. True when the link took it (counted sent), false when
    // it is closed, not connected, full or the message cannot be encoded
    // (counted refused).
    bool sendData(const Kest::Msgs::Message& message, Scope scope);
    // A control frame from the loop; false when refused.
    bool sendFrame(const std::string& frame);
    // A Hello, with the count of data messages sent so far filled in.
    bool sendHello(Hello hello);
    // Closes the socket (its linger applies). Later sends refuse.
    void close();

    const std::string& endpoint() const { return endpoint_; }
    std::uint64_t token() const { return token_; }
    zmq::socket_t& monitor() { return monitor_; }  // loop only

private:
    bool sendLocked(const char* data, std::size_t size);

    const std::string endpoint_;
    const std::uint64_t token_;
    const std::shared_ptr<Tally> tally_;
    std::mutex mutex_;
    zmq::socket_t socket_;          // guarded by mutex_; closed by close()
    bool open_ = true;              // guarded by mutex_
    std::string buffer_;            // guarded by mutex_: the encoding of the message being sent
    Envelope envelope_;             // guarded by mutex_: ours, with the next data sequence
    zmq::socket_t monitor_;         // the loop's: the DEALER's connection events
};

class StandIn;

// What the loop knows of one remote process.
struct Peer {
    std::string id;          // its advertised endpoint; the configured endpoint until bound
    bool bound = false;      // id learned from the peer itself
    bool configured = false;
    std::string key;         // its CURVE public key, empty without CURVE
    std::shared_ptr<Tally> tally;
    std::shared_ptr<Link> link;
    std::shared_ptr<StandIn> subscriber;  // subscribed here under its subscription keys
    std::shared_ptr<StandIn> service;     // registered here under its service keys

    std::uint64_t epoch = 0;        // 0: not known yet
    std::uint64_t theirToken = 0;   // the token of the last Hello it sent us
    bool helloAcked = false;        // it knows our epoch
    bool alive = false;             // heard from within peerTimeout
    bool departed = false;          // said BYE
    Clock::time_point lastHeard{};

    bool dataBaseline = false;      // expectedData is known
    std::uint64_t expectedData = 0; // sequence of the next data message from it

    bool haveRouting = false;       // its routing applied here ...
    std::uint64_t routingSequence = 0;  // ... as of this sequence
    std::uint64_t announcedSequence = 0;  // the newest sequence it said it has
    bool resyncPending = false;
    Clock::time_point resyncAt{};
    Routing routing;                    // what its stand-ins are subscribed and registered under
    std::set<RouteKey> pendingServices; // registrations the dispatcher refused (a local rank 0)

    bool ackValid = false;          // it holds our routing ...
    std::uint64_t ackedSequence = 0;  // ... as of this sequence

    bool removed = false;           // erased at the end of the turn
};

// The eventfd the loop polls, and the generation of local routing changes.
struct Wake {
    Wake();
    ~Wake();
    Wake(const Wake&) = delete;
    Wake& operator=(const Wake&) = delete;
    void signal() const noexcept;
    void drain() const noexcept;

    int fd;
    std::atomic<std::uint64_t> generation{0};
    const void* owner = nullptr;  // the BridgeCore whose own changes are ignored
};

class BridgeCore : public std::enable_shared_from_this<BridgeCore> {
public:
    explicit BridgeCore(BridgeOptions options);
    ~BridgeCore();

    void attach(std::shared_ptr<Kest::Msgs::MessageDispatcher> dispatcher);
    void start();
    void stop();
    bool poll(std::chrono::milliseconds timeout);
    bool waitSynced(std::chrono::milliseconds timeout);
    void release() noexcept;  // ~Bridge
    std::string endpoint() const;
    std::uint64_t epoch() const;
    std::vector<PeerStatus> peers() const;
    BridgeCounters counters() const;

    // Whether the calling thread is posting, for this bridge, a message that
    // came from another process (the stand-ins' and the callback's test).
    bool postingHere() const noexcept;

private:
    enum class Mode { Idle, Thread, Poll };

    // Setup and teardown (loop side).
    void checkStartable() const;
    void setUp();
    void shutDown();
    void throwIfInsideDelivery(const char* operation) const;
    void eraseRemovedPeers();

    // The loop.
    void run();
    bool turn(std::chrono::milliseconds timeout);
    bool drainRouter();
    void handleFrame(zmq::message_t& frame);
    void handleData(std::string_view body);
    void handleHello(const Hello& hello, const char* userId);
    void handleBye(const Bye& bye);
    void handleResync(const Resync& resync);
    void handleRoutingUpdate(FrameKind kind, const RoutingUpdate& update);
    void handleAck(const Ack& ack);
    void handleZap();
    void handleMonitor(zmq::socket_t& monitor, Peer* peer);
    void tick(Clock::time_point now);

    // Peers.
    Peer* addPeer(const std::string& id, bool bound, bool configured, const std::string& endpoint,
                  const std::string& key);
    void removePeer(Peer* peer);
    Peer* peerById(const std::string& id) const;
    Peer* peerByToken(std::uint64_t token) const;
    void heard(Peer& peer);
    void sendHello(Peer& peer);
    void requestResync(Peer& peer);
    void dropRouting(Peer& peer);

    // Routing.
    Routing localRouting() const;
    void exportRouting();
    void applyRouting(Peer& peer, const Routing& routing);
    void retryPendingServices();

    void publish();
    std::uint64_t randomNumber();

    const BridgeOptions options_;
    std::vector<PeerAddress> configuredPeers_;
    std::set<std::string> allowedKeys_;
    std::shared_ptr<Kest::Msgs::MessageDispatcher> dispatcher_;  // set before the loop starts

    // Life cycle, guarded by lifecycleMutex_.
    mutable std::mutex lifecycleMutex_;
    Mode mode_ = Mode::Idle;
    bool stopped_ = false;
    bool stopDone_ = false;
    std::condition_variable stopFinished_;
    std::thread thread_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> finishOnExit_{false};  // the I/O thread shuts down itself (destroyed in a delivery)

    // The loop's own state: touched only inside a turn, setUp and shutDown,
    // which loopMutex_ serialises.
    std::mutex loopMutex_;
    bool setUp_ = false;
    bool shutDown_ = false;
    std::shared_ptr<zmq::context_t> context_;
    bool ownContext_ = true;
    zmq::socket_t router_;
    zmq::socket_t routerMonitor_;
    zmq::socket_t zap_;
    std::shared_ptr<Wake> wake_;
    std::shared_ptr<Kest::Msgs::MessageCallback> notifier_;
    std::string id_;
    std::uint64_t epoch_ = 0;
    std::string publicKey_;
    std::mt19937_64 random_;
    std::vector<std::unique_ptr<Peer>> peers_;  // in the order they became known
    std::unordered_map<std::string, Peer*> peersById_;  // bound peers only
    std::uint64_t processedGeneration_ = 0;
    bool exportDue_ = true;
    Routing exported_;
    std::uint64_t routingSequence_ = 0;
    std::map<RouteKey, unsigned> standInSubscriptions_;  // how many of our stand-ins are under each key
    Clock::time_point nextTick_{};
    bool statusDirty_ = true;

    // Bridge-wide counters.
    std::atomic<std::uint64_t> rejectedConnections_{0};
    std::atomic<std::uint64_t> malformed_{0};
    std::atomic<std::uint64_t> deliveryErrors_{0};
    std::atomic<std::uint64_t> strayMessages_{0};
    std::atomic<std::uint64_t> loopErrors_{0};

    // Published by the loop for other threads.
    struct Published {
        std::string id;
        std::uint64_t epoch = 0;
        bool connected = false;
        bool synced = false;
        bool departed = false;
        Routing routing;
        std::shared_ptr<Tally> tally;
    };
    mutable std::mutex statusMutex_;
    std::condition_variable statusChanged_;
    std::vector<Published> published_;          // guarded by statusMutex_
    bool allSynced_ = false;                    // guarded by statusMutex_
    std::uint64_t publishedGeneration_ = ~std::uint64_t{0};  // guarded by statusMutex_
    std::string publishedId_;                   // guarded by statusMutex_
    std::uint64_t publishedEpoch_ = 0;          // guarded by statusMutex_
    bool publishedStopped_ = false;             // guarded by statusMutex_
};

}  // namespace Kest::Net::detail
