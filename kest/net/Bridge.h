#pragma once

// Bridge: joins the dispatchers of several processes, on one machine or
// several, into one bus over ZeroMQ.
//
// A bridge is attached to one dispatcher. It mirrors into that dispatcher
// what every other process of the mesh subscribed to and serves: per remote
// process one stand-in queue subscribed under each of that process's
// subscription keys, and one registered as a service under each of its
// service keys at rank 2^32 + its rank there (so every local service, whose
// rank must stay below 2^32, is preferred). getSubscriptionsTable and
// getServicesTable therefore show what the bridge has learned. A message
// posted locally that reaches a stand-in is sent to that process and posted
// there, to its subscribers or to its services (never both from one copy).
// Only local routing is exported, a message that arrived from another process
// is never sent on, and every process connects to every other one it learns
// of: a full mesh, without loops.
//
// Guarantees: delivery between processes is at most once, in the order each
// process posted. A stand-in never blocks the posting thread: a peer whose
// buffer of `sendBuffer` messages is full, or that is not connected, refuses
// (the dispatcher then prints its drop warning and tries the next service
// rank). Every message offered to a peer is counted once as sent or refused
// by the sending process; every message sent is counted once as received or
// dropped (lost on a broken connection) by the receiving one. See
// docs/bridge.md for the protocol and its limits.
//
// Threads: start() runs the bridge on an I/O thread of its own; instead, a
// host may call poll() from its own loop. All operations may be called from
// any thread, except that poll() and stop() must not be called from inside a
// delivery of the attached dispatcher (a MessageCallback's callback): they
// throw std::system_error (resource_deadlock_would_occur) there, as the
// dispatcher does, rather than deadlocking. The bridge itself never calls its
// dispatcher from inside a delivery.
//
// Lifetime: owned through a std::shared_ptr (the factory's creator makes
// one) or as a plain object. The dispatcher is kept alive while attached.
// The destructor calls stop(); destroyed inside a delivery of its
// dispatcher, it cannot disconnect from it there, so its I/O thread (if any)
// is left to finish stopping once that delivery has returned.

#include <kest/components/Component_Base.h>
#include <kest/model/MessageKey.h>
#include <kest/net/Api.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Kest::Msgs {
class MessageDispatcher;
}

namespace Kest::Net {

namespace detail {
class BridgeCore;
}

// The type name under which the factory of libKestNet (its own
// getComponentFactory, found with dlsym in the library's dlopen handle)
// creates a Bridge.
inline constexpr const char* kBridgeComponentType = "Kest::Net::Bridge";

struct BridgeOptions {
    // The endpoint to bind: tcp://HOST:PORT (PORT "*" takes a free port),
    // ipc://PATH or inproc://NAME. Without curveSecretKey only a loopback
    // host (127.0.0.0/8, ::1, localhost), ipc:// or inproc:// is accepted,
    // unless allowInsecure is set.
    std::string listen;
    // Endpoints of processes to connect to. With CURVE each is
    // "ENDPOINT?key=<Z85 server public key of that process>". Peers connect
    // back, and every process learns the others from its peers.
    std::vector<std::string> peers;
    // The endpoint other processes connect to, which is also this process's
    // identity in the mesh; empty: the endpoint bound for `listen` (with the
    // port a wildcard took). Required when `listen` binds every interface.
    std::string advertise;
    // This process's CURVE secret key, Z85 (40 characters); empty: no
    // encryption.
    std::string curveSecretKey;
    // Z85 public keys of the processes allowed to connect (CURVE only; each
    // process uses one key pair to listen and to connect).
    std::vector<std::string> curveAllow;
    // Listen on a non-loopback address without CURVE.
    bool allowInsecure = false;
    // Messages buffered per peer before it refuses more (at least 1).
    std::size_t sendBuffer = 10000;
    // How long stop() goes on sending what live peers can still take.
    std::chrono::milliseconds linger{2000};
    // How often the bridge tells each peer it is alive (at least 1 ms).
    std::chrono::milliseconds heartbeatInterval{200};
    // A peer not heard from for this long is dead: its routing is removed
    // (more than heartbeatInterval).
    std::chrono::milliseconds peerTimeout{2000};
};

// Per peer, since the bridge started. Each number only grows.
struct PeerCounters {
    std::uint64_t sent = 0;        // messages to it that its link accepted
    std::uint64_t received = 0;    // messages from it that arrived intact
    std::uint64_t refused = 0;     // messages to it refused: link down or buffer full
    std::uint64_t dropped = 0;     // messages from it lost on the way, or not deliverable here
    std::uint64_t reconnects = 0;  // times it came back with a new epoch (restarted)
    std::uint64_t handshakeFailures = 0;  // our connections to it that failed their handshake
};

struct RemoteService {
    Kest::Msgs::MessageKey key;  // identifier and destination prefix
    std::uint64_t rank;          // its rank in that process (registered here at 2^32 + rank)
};

struct PeerStatus {
    std::string id;                // the peer's advertised endpoint (a configured one until it answers)
    std::uint64_t epoch = 0;       // drawn by the peer at its start; 0 while unknown
    bool connected = false;        // HELLO exchanged both ways and heard from within peerTimeout
    bool synced = false;           // routing exchanged both ways and acknowledged
    PeerCounters counters;
    std::vector<Kest::Msgs::MessageKey> subscriptions;  // the interest it exported (identifier + sender prefix)
    std::vector<RemoteService> services;                // the services it exported, with their ranks
};

// Counters of what the bridge refused before it could tell which peer sent it.
struct BridgeCounters {
    std::uint64_t rejectedConnections = 0;  // incoming connections that failed their handshake (CURVE)
    std::uint64_t malformed = 0;            // frames that were not a valid protocol message
    std::uint64_t strayMessages = 0;        // messages from a process not known here (yet)
    std::uint64_t deliveryErrors = 0;       // received messages whose local delivery threw
    std::uint64_t loopErrors = 0;           // turns of the I/O thread abandoned on an error (out of memory)
};

class KEST_NET_API Bridge : public Kest::Component_Base {
public:
    // A bridge attached to `dispatcher` (not empty). Checks the options:
    // throws std::invalid_argument for a malformed key, endpoint or number.
    Bridge(std::shared_ptr<Kest::Msgs::MessageDispatcher> dispatcher, BridgeOptions options);
    // The factory's form: options as strings, "listen=EP", "peer=EP"
    // (repeatable), "advertise=EP", "curve-secret=KEY", "curve-allow=KEY"
    // (repeatable), "allow-insecure", "send-buffer=N", "linger-ms=N",
    // "heartbeat-ms=N", "peer-timeout-ms=N". Throws std::invalid_argument for
    // an unknown or malformed option. attach() a dispatcher before start().
    explicit Bridge(const std::vector<std::string>& args);
    // Calls stop(); never throws.
    ~Bridge();

    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    // Attaches `dispatcher` (not empty) in place of any attached before.
    // Throws std::logic_error once started or polled.
    void attach(std::shared_ptr<Kest::Msgs::MessageDispatcher> dispatcher);

    // Binds, connects to the configured peers and starts the I/O thread.
    // Throws std::invalid_argument for options that cannot work (no listen
    // endpoint, a non-loopback listen endpoint without keys, a peer without
    // its key under CURVE, ...), std::logic_error without a dispatcher or
    // when already started, polled or stopped, and zmq's error (a
    // std::exception) when the endpoint cannot be bound.
    void start();

    // Disconnects the stand-ins and the notification callback from the
    // dispatcher (after that no post reaches the bridge), says BYE to every
    // peer (they drop this process's routing at once), then closes the
    // connections, sending for up to `linger` what live peers can still take,
    // and joins the I/O thread. Idempotent; blocks up to about `linger`.
    // Throws std::system_error (resource_deadlock_would_occur) with nothing
    // changed when called from inside a delivery of the attached dispatcher.
    void stop();

    // One turn of the loop on the calling thread, for a host that runs the
    // bridge without start(): the first call binds and connects. Waits up to
    // `timeout` for something to do. Returns true when it handled something
    // (a message, a routing change, a heartbeat), false when the time-out
    // passed idle or the bridge is stopped. Throws as start() on the first
    // call, std::logic_error after start(), and as stop() from inside a
    // delivery. Calls from several threads are serialised.
    bool poll(std::chrono::milliseconds timeout);

    // Waits up to `timeout` until every known peer is connected, has this
    // process's current routing (acknowledged) and has sent its own, and
    // every local routing change has been sent. Returns whether that was
    // reached; true at once with no peer known. After start() it waits on a
    // condition; in poll() mode it runs poll() itself until then. Never
    // call it from inside a delivery of the attached dispatcher.
    bool waitSynced(std::chrono::milliseconds timeout);

    // The advertised endpoint, this process's identity in the mesh; empty
    // before start() or the first poll().
    std::string endpoint() const;

    // This process's epoch (0 before start() or the first poll()).
    std::uint64_t epoch() const;

    // A snapshot of every peer known, in the order they became known.
    std::vector<PeerStatus> peers() const;

    // A snapshot of the bridge's own counters.
    BridgeCounters counters() const;

    // The lowest rank at which remote services are registered; ranks from
    // here up are reserved for the bridge.
    static constexpr std::uint64_t kRemoteRankBase = std::uint64_t{1} << 32;

private:
    std::shared_ptr<detail::BridgeCore> core_;
};

// A CURVE key pair, both Z85 (40 characters).
struct CurveKeyPair {
    std::string publicKey;
    std::string secretKey;
};

// A new key pair from the system's random source. Throws std::runtime_error
// when ZeroMQ was built without CURVE.
KEST_NET_API CurveKeyPair makeCurveKeyPair();

// The public key (Z85) of `secretKey` (Z85). Throws std::invalid_argument on
// a malformed key.
KEST_NET_API std::string curvePublicKey(const std::string& secretKey);

}  // namespace Kest::Net
