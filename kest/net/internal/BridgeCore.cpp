#include <kest/net/internal/BridgeCore.h>

#include <kest/model/Forwarder.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/PostScope.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/net/WireError.h>

#include <arpa/inet.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#endif

namespace Kest::Net::detail {

namespace {

// libzmq hands a frame's buffer from the thread that sends it to the thread
// that receives it (an inproc:// peer, or through its own I/O thread) over
// lock-free pipes built without ThreadSanitizer's instrumentation, so that
// hand-over is invisible to it and every buffer would look raced. Under
// ThreadSanitizer the sender releases the buffer before sending and the
// receiver acquires it after receiving; elsewhere both are nothing.
void handOver(zmq::message_t& frame) noexcept {
#if defined(__SANITIZE_THREAD__)
    __tsan_release(frame.data());
#else
    (void)frame;
#endif
}

void takeOver(zmq::message_t& frame) noexcept {
#if defined(__SANITIZE_THREAD__)
    __tsan_acquire(frame.data());
#else
    (void)frame;
#endif
}

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageKey;
using Kest::Msgs::MessageQueueInterface;
namespace Fwd = Kest::Msgs::Communications::Forwarder;

// The bridge whose loop is posting, on this thread, a message that came from
// another process (or changing its stand-ins): set around every dispatcher
// call the loop makes.
thread_local const BridgeCore* tlPosting = nullptr;

class PostingGuard {
public:
    explicit PostingGuard(const BridgeCore* core) : previous_(tlPosting) { tlPosting = core; }
    ~PostingGuard() { tlPosting = previous_; }
    PostingGuard(const PostingGuard&) = delete;
    PostingGuard& operator=(const PostingGuard&) = delete;

private:
    const BridgeCore* previous_;
};

// Frames the loop reads in one turn before it looks at its timers again.
constexpr int kFramesPerTurn = 2000;
// The longest a turn of the I/O thread waits, so that a stop request that
// found the eventfd full is still seen.
constexpr std::chrono::milliseconds kLongestWait{1000};

constexpr const char* kZapEndpoint = "inproc://zeromq.zap.01";

Kest::Msgs::PostScope toPostScope(Scope scope) {
    switch (scope) {
        case Scope::Subscribers: return Kest::Msgs::PostScope::Subscribers;
        case Scope::Services: return Kest::Msgs::PostScope::Services;
        case Scope::Both: break;
    }
    return Kest::Msgs::PostScope::Both;
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

// The host of "tcp://HOST:PORT", without brackets.
std::string tcpHost(const std::string& endpoint) {
    std::string rest = endpoint.substr(6);
    const std::size_t colon = rest.rfind(':');
    std::string host = colon == std::string::npos ? rest : rest.substr(0, colon);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    return host;
}

void checkTransport(const std::string& endpoint, const char* what) {
    if (startsWith(endpoint, "tcp://") || startsWith(endpoint, "ipc://") || startsWith(endpoint, "inproc://")) {
        if (endpoint.find("://") + 3 < endpoint.size()) return;
    }
    throw std::invalid_argument(std::string("Kest::Net::Bridge: ") + what + " '" + endpoint +
                                "' is not a tcp://, ipc:// or inproc:// endpoint");
}

bool isLoopbackHost(const std::string& host) {
    if (host == "localhost" || host == "lo" || host == "::1") return true;
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
    in6_addr v6{};
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) return IN6_IS_ADDR_LOOPBACK(&v6);
    return false;
}

bool isWildcardHost(const std::string& host) {
    return host == "*" || host == "0.0.0.0" || host == "::" || host.empty();
}

bool isLocalEndpoint(const std::string& endpoint) {
    if (startsWith(endpoint, "ipc://") || startsWith(endpoint, "inproc://")) return true;
    return startsWith(endpoint, "tcp://") && isLoopbackHost(tcpHost(endpoint));
}

std::string z85Of(const unsigned char* key32) {
    char text[41];
    if (zmq_z85_encode(text, key32, 32) == nullptr) return std::string();
    return std::string(text, 40);
}

// Sockets of bridges that listen on inproc:// share one context, the only
// way inproc:// endpoints reach each other; it lives while such a bridge does.
std::shared_ptr<zmq::context_t> sharedInprocContext() {
    static std::mutex mutex;
    static std::weak_ptr<zmq::context_t> shared;
    std::lock_guard<std::mutex> lock(mutex);
    std::shared_ptr<zmq::context_t> context = shared.lock();
    if (!context) {
        context = std::make_shared<zmq::context_t>();
        shared = context;
    }
    return context;
}

std::uint64_t uniqueNumber() {
    static std::atomic<std::uint64_t> next{0};
    return next.fetch_add(1, std::memory_order_relaxed);
}

void setNonZeroKeyOptions(zmq::socket_t& socket, const BridgeOptions& options, const std::string& publicKey) {
    socket.set(zmq::sockopt::curve_publickey, publicKey);
    socket.set(zmq::sockopt::curve_secretkey, options.curveSecretKey);
}

int clampToInt(long long value) {
    return static_cast<int>(std::clamp<long long>(value, 0, std::numeric_limits<int>::max()));
}

// Starts monitoring `socket` for `events` and returns the connected PAIR
// socket that receives them.
zmq::socket_t monitorSocket(zmq::context_t& context, zmq::socket_t& socket, const std::string& endpoint,
                            int events) {
    if (zmq_socket_monitor(socket.handle(), endpoint.c_str(), events) != 0) throw zmq::error_t();
    zmq::socket_t monitor(context, zmq::socket_type::pair);
    monitor.set(zmq::sockopt::linger, 0);
    monitor.connect(endpoint);
    return monitor;
}

constexpr int kHandshakeFailures = ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL | ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
                                   ZMQ_EVENT_HANDSHAKE_FAILED_AUTH;

}  // namespace

// ---- Parsing ---------------------------------------------------------------

void checkCurveKey(const std::string& key, const char* what) {
    std::uint8_t binary[32];
    if (key.size() != 40 || zmq_z85_decode(binary, key.c_str()) == nullptr) {
        throw std::invalid_argument(std::string("Kest::Net::Bridge: ") + what +
                                    " is not a CURVE key (40 characters of Z85)");
    }
}

PeerAddress parsePeerAddress(const std::string& text) {
    PeerAddress address;
    const std::size_t query = text.find('?');
    address.endpoint = text.substr(0, query);
    checkTransport(address.endpoint, "peer");
    if (query != std::string::npos) {
        const std::string rest = text.substr(query + 1);
        if (!startsWith(rest, "key=")) {
            throw std::invalid_argument("Kest::Net::Bridge: peer '" + text +
                                        "': only ?key=<Z85 server key> may follow the endpoint");
        }
        address.key = rest.substr(4);
        checkCurveKey(address.key, "the key of a peer");
    }
    return address;
}

// ---- Wake ------------------------------------------------------------------

Wake::Wake() : fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "Kest::Net::Bridge: eventfd");
}

Wake::~Wake() { ::close(fd); }

void Wake::signal() const noexcept {
    const std::uint64_t one = 1;
    // EAGAIN only when the counter is about to overflow: it is readable then.
    [[maybe_unused]] const ssize_t written = ::write(fd, &one, sizeof one);
}

void Wake::drain() const noexcept {
    std::uint64_t count;
    [[maybe_unused]] const ssize_t read = ::read(fd, &count, sizeof count);
}

// ---- Link ------------------------------------------------------------------

Link::Link(zmq::context_t& context, const std::string& endpoint, const std::string& serverKey,
           const BridgeOptions& options, const std::string& publicKey, std::uint64_t token,
           const std::string& monitorEndpoint, std::shared_ptr<Tally> tally, Envelope envelope)
    : endpoint_(endpoint),
      token_(token),
      tally_(std::move(tally)),
      socket_(context, zmq::socket_type::dealer),
      envelope_(std::move(envelope)) {
    // Queue only to a completed connection: a link that is down refuses at once.
    socket_.set(zmq::sockopt::immediate, 1);
    socket_.set(zmq::sockopt::sndhwm, clampToInt(static_cast<long long>(options.sendBuffer)));
    socket_.set(zmq::sockopt::linger, clampToInt(options.linger.count()));
    // No ZMTP heartbeat time-out: a receiver that is merely slow stops
    // reading its socket when its queue is full, would miss the pings and
    // lose its connection with everything queued on it. Liveness is the
    // bridge's own heartbeat; a silent peer's stand-ins go after peerTimeout.
    if (!options.curveSecretKey.empty()) {
        socket_.set(zmq::sockopt::curve_serverkey, serverKey);
        setNonZeroKeyOptions(socket_, options, publicKey);
    }
    monitor_ = monitorSocket(context, socket_, monitorEndpoint, ZMQ_EVENT_HANDSHAKE_SUCCEEDED | kHandshakeFailures);
    socket_.connect(endpoint);
}

bool Link::sendLocked(const char* data, std::size_t size) {
    if (!open_) return false;
    try {
        zmq::message_t frame(data, size);
        handOver(frame);
        return socket_.send(frame, zmq::send_flags::dontwait).has_value();
    } catch (const zmq::error_t&) {
        return false;
    }
}

bool Link::sendData(const Kest::Msgs::Message& message, Scope scope) {
    std::lock_guard<std::mutex> lock(mutex_);
    bool accepted = false;
    if (open_) {
        try {
            envelope_.scope = scope;
            encodeTo(buffer_, message, envelope_);
            zmq::message_t frame(buffer_.size() + 1);
            auto* bytes = static_cast<char*>(frame.data());
            bytes[0] = static_cast<char>(FrameKind::Data);
            std::memcpy(bytes + 1, buffer_.data(), buffer_.size());
            handOver(frame);
            accepted = socket_.send(frame, zmq::send_flags::dontwait).has_value();
        } catch (const std::exception&) {
            // Not encodable (WireError), no memory, or the socket failed: the
            // message is refused like one the link cannot take.
            accepted = false;
        }
    }
    if (!accepted) {
        tally_->refused.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    ++envelope_.sequence;
    tally_->sent.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool Link::sendFrame(const std::string& frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    return sendLocked(frame.data(), frame.size());
}

bool Link::sendHello(Hello hello) {
    std::lock_guard<std::mutex> lock(mutex_);
    hello.token = token_;
    hello.dataSequence = envelope_.sequence;
    const std::string frame = encodeHello(hello);
    return sendLocked(frame.data(), frame.size());
}

void Link::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open_) return;
    open_ = false;
    socket_.close();
}

// ---- Stand-ins -------------------------------------------------------------

// Stands in the local dispatcher for one remote process: subscribed under
// its subscription keys (Scope::Subscribers) or registered under its service
// keys (Scope::Services). putMessage runs on the posting thread under the
// dispatcher's lock, and never blocks.
class StandIn final : public MessageQueueInterface {
public:
    StandIn(std::shared_ptr<Link> link, Scope scope, const BridgeCore* owner)
        : link_(std::move(link)), scope_(scope), owner_(owner) {}

    std::shared_ptr<const Message> getMessage(std::chrono::milliseconds /*timeout*/) override { return {}; }
    using MessageQueueInterface::getMessage;

    bool putMessage(std::shared_ptr<const Message> message) override {
        if (!message) return false;
        if (tlPosting == owner_) {
            // It came from another process: never sent on. As a subscriber
            // the stand-in has nothing to do; as a service it refuses, so
            // that a local service of a higher rank is tried, and the drop is
            // reported here if none takes it.
            return scope_ == Scope::Subscribers;
        }
        return link_->sendData(*message, scope_);
    }

    unsigned int getAvailableMessagesCount() const override { return 0; }

private:
    const std::shared_ptr<Link> link_;
    const Scope scope_;
    const BridgeCore* const owner_;
};

// ---- Construction ----------------------------------------------------------

BridgeCore::BridgeCore(BridgeOptions options) : options_(std::move(options)), random_(std::random_device()()) {
    if (options_.sendBuffer == 0) throw std::invalid_argument("Kest::Net::Bridge: sendBuffer must be at least 1");
    if (options_.sendBuffer > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw std::invalid_argument("Kest::Net::Bridge: sendBuffer is too large");
    }
    if (options_.heartbeatInterval.count() < 1) {
        throw std::invalid_argument("Kest::Net::Bridge: heartbeatInterval must be at least 1 ms");
    }
    if (options_.peerTimeout <= options_.heartbeatInterval) {
        throw std::invalid_argument("Kest::Net::Bridge: peerTimeout must be longer than heartbeatInterval");
    }
    if (options_.linger.count() < 0) throw std::invalid_argument("Kest::Net::Bridge: linger must not be negative");
    if (!options_.listen.empty()) checkTransport(options_.listen, "listen endpoint");
    if (!options_.advertise.empty()) checkTransport(options_.advertise, "advertised endpoint");
    if (!options_.curveSecretKey.empty()) checkCurveKey(options_.curveSecretKey, "curveSecretKey");
    for (const std::string& key : options_.curveAllow) {
        checkCurveKey(key, "a key of curveAllow");
        allowedKeys_.insert(key);
    }
    for (const std::string& peer : options_.peers) configuredPeers_.push_back(parsePeerAddress(peer));
}

BridgeCore::~BridgeCore() = default;

void BridgeCore::attach(std::shared_ptr<MessageDispatcher> dispatcher) {
    if (!dispatcher) throw std::invalid_argument("Kest::Net::Bridge::attach: no dispatcher");
    std::lock_guard<std::mutex> lock(lifecycleMutex_);
    if (mode_ != Mode::Idle || stopped_) {
        throw std::logic_error("Kest::Net::Bridge::attach: the bridge has already run");
    }
    dispatcher_ = std::move(dispatcher);
}

bool BridgeCore::postingHere() const noexcept { return tlPosting == this; }

void BridgeCore::checkStartable() const {
    const char* const who = "Kest::Net::Bridge::start: ";
    if (!dispatcher_) throw std::logic_error(std::string(who) + "no dispatcher attached");
    if (options_.listen.empty()) throw std::invalid_argument(std::string(who) + "no listen endpoint");
    const bool curve = !options_.curveSecretKey.empty();
    if (!curve && !options_.allowInsecure && !isLocalEndpoint(options_.listen)) {
        throw std::invalid_argument(std::string(who) + "refusing to listen on '" + options_.listen +
                                    "' without encryption: only loopback addresses (127.0.0.0/8, ::1, "
                                    "localhost), ipc:// and inproc:// are allowed without curveSecretKey "
                                    "(or set allowInsecure)");
    }
    if (curve && startsWith(options_.listen, "inproc://")) {
        throw std::invalid_argument(std::string(who) + "CURVE needs a tcp:// or ipc:// listen endpoint");
    }
    if (curve && allowedKeys_.empty()) {
        throw std::invalid_argument(std::string(who) +
                                    "curveAllow is empty: no peer could connect to this process");
    }
    for (const PeerAddress& peer : configuredPeers_) {
        if (curve && peer.key.empty()) {
            throw std::invalid_argument(std::string(who) + "peer '" + peer.endpoint +
                                        "' has no ?key=<server key>, which CURVE needs");
        }
        if (!curve && !peer.key.empty()) {
            throw std::invalid_argument(std::string(who) + "peer '" + peer.endpoint +
                                        "' has a key but this bridge has no curveSecretKey");
        }
    }
    if (startsWith(options_.listen, "tcp://") && options_.advertise.empty() &&
        isWildcardHost(tcpHost(options_.listen))) {
        throw std::invalid_argument(std::string(who) + "listen endpoint '" + options_.listen +
                                    "' binds every interface: set the advertised endpoint that peers reach");
    }
}

void BridgeCore::throwIfInsideDelivery(const char* operation) const {
    if (tlPosting == this) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                                std::string("Kest::Net::Bridge::") + operation +
                                    ": called from inside a delivery of the bridge's dispatcher");
    }
}

std::uint64_t BridgeCore::randomNumber() {
    std::uint64_t value = 0;
    while (value == 0) value = random_();
    return value;
}

void BridgeCore::setUp() {
    epoch_ = randomNumber();
    const bool curve = !options_.curveSecretKey.empty();
    if (startsWith(options_.listen, "inproc://")) {
        context_ = sharedInprocContext();
        ownContext_ = false;
    } else {
        context_ = std::make_shared<zmq::context_t>();
        ownContext_ = true;
    }
    try {
        if (curve) {
            publicKey_ = curvePublicKey(options_.curveSecretKey);
            // The handler must be there before the first connection: without
            // one, CURVE connections would be let in unchecked.
            zap_ = zmq::socket_t(*context_, zmq::socket_type::rep);
            zap_.set(zmq::sockopt::linger, 0);
            zap_.bind(kZapEndpoint);
        }
        router_ = zmq::socket_t(*context_, zmq::socket_type::router);
        router_.set(zmq::sockopt::linger, 0);  // nothing is ever sent on it
        if (curve) {
            router_.set(zmq::sockopt::curve_server, 1);
            router_.set(zmq::sockopt::curve_secretkey, options_.curveSecretKey);
            router_.set(zmq::sockopt::zap_domain, "kest");
        }
        routerMonitor_ = monitorSocket(*context_, router_,
                                       "inproc://kest-bridge-router-" + std::to_string(uniqueNumber()),
                                       kHandshakeFailures);
        router_.bind(options_.listen);
        const std::string bound = router_.get(zmq::sockopt::last_endpoint);
        id_ = options_.advertise.empty() ? bound : options_.advertise;
    } catch (...) {
        router_.close();
        routerMonitor_.close();
        zap_.close();
        if (ownContext_) context_->close();
        context_.reset();
        throw;
    }

    wake_ = std::make_shared<Wake>();
    wake_->owner = this;
    // Runs under the dispatcher's lock, on whatever thread changed the
    // routing: it only counts and wakes the loop, which reads the tables.
    std::shared_ptr<Wake> wake = wake_;
    notifier_ = std::make_shared<Kest::Msgs::MessageCallback>(
        [wake](const std::shared_ptr<const Message>& /*notification*/) {
            if (tlPosting == wake->owner) return;  // our own stand-ins changed
            wake->generation.fetch_add(1, std::memory_order_acq_rel);
            wake->signal();
        });
    for (std::uint16_t type : {5, 6, 9, 10}) {
        dispatcher_->subscribe(notifier_, {}, Identifier(Fwd::Category, type));
    }
    // The routing there is now, before any peer: so that start() returns
    // with a status that waitSynced can read at once.
    processedGeneration_ = wake_->generation.load(std::memory_order_acquire);
    exportDue_ = false;
    exportRouting();

    for (const PeerAddress& peer : configuredPeers_) addPeer(peer.endpoint, false, true, peer.endpoint, peer.key);
    nextTick_ = Clock::now();
    setUp_ = true;
    {
        std::lock_guard<std::mutex> lock(statusMutex_);
        publishedId_ = id_;
        publishedEpoch_ = epoch_;
    }
    statusDirty_ = true;
    publish();
}

// ---- Life cycle ------------------------------------------------------------

void BridgeCore::start() {
    std::lock_guard<std::mutex> lock(lifecycleMutex_);
    if (stopped_) throw std::logic_error("Kest::Net::Bridge::start: the bridge was stopped");
    if (mode_ != Mode::Idle) throw std::logic_error("Kest::Net::Bridge::start: already running");
    checkStartable();
    {
        std::lock_guard<std::mutex> loop(loopMutex_);
        setUp();
    }
    mode_ = Mode::Thread;
    std::shared_ptr<BridgeCore> self = shared_from_this();
    thread_ = std::thread([self] { self->run(); });
}

void BridgeCore::run() {
    while (!stopRequested_.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> loop(loopMutex_);
        try {
            turn(kLongestWait);
        } catch (const std::exception&) {
            // Out of memory, or a socket error ZeroMQ reports: the turn is
            // abandoned, the next one starts afresh.
            loopErrors_.fetch_add(1, std::memory_order_relaxed);
        }
    }
    if (finishOnExit_.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> loop(loopMutex_);
        shutDown();
    }
}

bool BridgeCore::poll(std::chrono::milliseconds timeout) {
    throwIfInsideDelivery("poll");
    {
        std::lock_guard<std::mutex> lock(lifecycleMutex_);
        if (stopped_) return false;
        if (mode_ == Mode::Thread) throw std::logic_error("Kest::Net::Bridge::poll: the bridge runs its own thread");
        if (mode_ == Mode::Idle) {
            checkStartable();
            std::lock_guard<std::mutex> loop(loopMutex_);
            setUp();
            mode_ = Mode::Poll;
        }
    }
    std::lock_guard<std::mutex> loop(loopMutex_);
    if (shutDown_) return false;
    return turn(std::max(timeout, std::chrono::milliseconds(0)));
}

void BridgeCore::stop() {
    throwIfInsideDelivery("stop");
    std::shared_ptr<MessageDispatcher> dispatcher;
    {
        std::lock_guard<std::mutex> lock(lifecycleMutex_);
        dispatcher = dispatcher_;
    }
    if (dispatcher) {
        // Any locking call throws resource_deadlock_would_occur from inside a
        // delivery of the dispatcher, before anything here has changed. No
        // lock of ours is held: a callback that calls stop() must not wait
        // for a thread that waits for the dispatcher.
        Kest::Msgs::MessageDispatcherInterface::ServicesTable probe;
        dispatcher->getServicesTable(probe);
    }
    std::unique_lock<std::mutex> lock(lifecycleMutex_);
    if (stopped_) {
        // Another thread is stopping it: return when it has.
        stopFinished_.wait(lock, [this] { return stopDone_; });
        return;
    }
    stopped_ = true;
    stopRequested_.store(true, std::memory_order_release);
    if (wake_) wake_->signal();
    std::thread thread = std::move(thread_);
    lock.unlock();
    if (thread.joinable()) thread.join();
    {
        std::lock_guard<std::mutex> loop(loopMutex_);
        if (setUp_) shutDown();
    }
    {
        std::lock_guard<std::mutex> status(statusMutex_);
        publishedStopped_ = true;
    }
    statusChanged_.notify_all();
    lock.lock();
    stopDone_ = true;
    stopFinished_.notify_all();
}

void BridgeCore::release() noexcept {
    try {
        stop();
        return;
    } catch (const std::system_error& error) {
        if (error.code() != std::errc::resource_deadlock_would_occur) return;
    } catch (...) {
        return;
    }
    // Destroyed inside a delivery of the dispatcher: it cannot be called from
    // here. The I/O thread finishes stopping once that delivery returns; in
    // poll() mode only the connections can be closed (the stand-ins, which
    // then refuse, stay in the dispatcher's tables).
    std::unique_lock<std::mutex> lock(lifecycleMutex_);
    if (stopped_) return;
    stopped_ = true;
    stopDone_ = true;
    if (mode_ == Mode::Thread) {
        finishOnExit_.store(true, std::memory_order_release);
        stopRequested_.store(true, std::memory_order_release);
        if (wake_) wake_->signal();
        thread_.detach();
        return;
    }
    if (mode_ == Mode::Poll) {
        std::unique_lock<std::mutex> loop(loopMutex_, std::try_to_lock);
        if (!loop.owns_lock()) return;  // a poll() of this thread is running: it is left as it is
        for (auto& peer : peers_) peer->link->close();
        router_.close();
        routerMonitor_.close();
        zap_.close();
        for (auto& peer : peers_) peer->link->monitor().close();
        if (ownContext_ && context_) context_->close();
        shutDown_ = true;
    }
}

void BridgeCore::shutDown() {
    if (shutDown_) return;
    shutDown_ = true;
    {
        PostingGuard posting(this);
        try {
            dispatcher_->disconnectQueue(notifier_);
            for (auto& peer : peers_) {
                dispatcher_->disconnectQueue(peer->subscriber);
                dispatcher_->disconnectQueue(peer->service);
            }
        } catch (...) {
            // A dispatcher that throws here (out of memory) still leaves the
            // stand-ins closed below: they refuse from then on.
        }
    }
    const std::string bye = encodeBye(Bye{id_, epoch_});
    for (auto& peer : peers_) {
        if (peer->epoch != 0) peer->link->sendFrame(bye);
    }
    // Closing the links hands what they hold to ZeroMQ's I/O threads, which
    // go on sending for up to `linger`; terminating our own context waits for
    // that.
    for (auto& peer : peers_) peer->link->close();
    router_.close();
    routerMonitor_.close();
    zap_.close();
    for (auto& peer : peers_) peer->link->monitor().close();
    if (ownContext_ && context_) context_->close();
    for (auto& peer : peers_) {
        peer->alive = false;
        peer->helloAcked = false;
    }
    statusDirty_ = true;
    publish();
}

// ---- The loop --------------------------------------------------------------

bool BridgeCore::turn(std::chrono::milliseconds timeout) {
    std::vector<zmq::pollitem_t> items;
    items.reserve(4 + peers_.size());
    items.push_back({router_.handle(), 0, ZMQ_POLLIN, 0});
    items.push_back({routerMonitor_.handle(), 0, ZMQ_POLLIN, 0});
    items.push_back({nullptr, wake_->fd, ZMQ_POLLIN, 0});
    const bool curve = !options_.curveSecretKey.empty();
    if (curve) items.push_back({zap_.handle(), 0, ZMQ_POLLIN, 0});
    const std::size_t firstMonitor = items.size();
    for (auto& peer : peers_) items.push_back({peer->link->monitor().handle(), 0, ZMQ_POLLIN, 0});

    Clock::time_point now = Clock::now();
    const bool exportWaiting = exportDue_ || wake_->generation.load(std::memory_order_acquire) != processedGeneration_;
    std::chrono::milliseconds wait = exportWaiting ? std::chrono::milliseconds(0) : timeout;
    if (nextTick_ <= now) {
        wait = std::chrono::milliseconds(0);
    } else {
        wait = std::min(wait, std::chrono::duration_cast<std::chrono::milliseconds>(nextTick_ - now) +
                                  std::chrono::milliseconds(1));
    }
    try {
        zmq::poll(items.data(), items.size(), wait);
    } catch (const zmq::error_t& error) {
        if (error.num() != EINTR) throw;  // a signal: look again next turn
        return false;
    }

    bool worked = false;
    if (items[2].revents & ZMQ_POLLIN) wake_->drain();
    if (items[0].revents & ZMQ_POLLIN) worked = drainRouter() || worked;
    if (items[1].revents & ZMQ_POLLIN) {
        handleMonitor(routerMonitor_, nullptr);
        worked = true;
    }
    if (curve && (items[3].revents & ZMQ_POLLIN)) {
        handleZap();
        worked = true;
    }
    // Peers added by the frames above come after the polled ones and are
    // polled next turn; removed ones stay in peers_ until the turn ends.
    const std::size_t polledPeers = items.size() - firstMonitor;
    for (std::size_t i = 0; i < polledPeers; ++i) {
        Peer& peer = *peers_[i];
        if (!peer.removed && (items[firstMonitor + i].revents & ZMQ_POLLIN)) {
            handleMonitor(peer.link->monitor(), &peer);
            worked = true;
        }
    }
    const std::uint64_t generation = wake_->generation.load(std::memory_order_acquire);
    if (exportDue_ || generation != processedGeneration_) {
        processedGeneration_ = generation;  // read before the tables, so a later change is seen next turn
        exportDue_ = false;
        exportRouting();
        statusDirty_ = true;
        worked = true;
    }
    now = Clock::now();
    if (nextTick_ <= now) {
        tick(now);
        worked = true;
    }
    eraseRemovedPeers();
    publish();
    return worked;
}

bool BridgeCore::drainRouter() {
    bool any = false;
    for (int i = 0; i < kFramesPerTurn; ++i) {
        zmq::message_t routingId;
        if (!router_.recv(routingId, zmq::recv_flags::dontwait)) break;
        any = true;
        if (!routingId.more()) {
            malformed_.fetch_add(1, std::memory_order_relaxed);
            continue;
        }
        zmq::message_t frame;
        if (!router_.recv(frame, zmq::recv_flags::dontwait)) break;
        takeOver(frame);
        if (frame.more()) {
            // Ours are one frame each: drop the rest of this one.
            malformed_.fetch_add(1, std::memory_order_relaxed);
            while (frame.more() && router_.recv(frame, zmq::recv_flags::dontwait)) {
            }
            continue;
        }
        handleFrame(frame);
    }
    return any;
}

void BridgeCore::handleFrame(zmq::message_t& frame) {
    if (frame.size() == 0) {
        malformed_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    const auto* bytes = static_cast<const char*>(frame.data());
    const auto kind = static_cast<FrameKind>(static_cast<std::uint8_t>(bytes[0]));
    const std::string_view body(bytes + 1, frame.size() - 1);
    bool ok = true;
    switch (kind) {
        case FrameKind::Data:
            handleData(body);
            return;
        case FrameKind::Hello:
            if (auto hello = decodeHello(body)) {
                const char* userId = nullptr;
                if (!options_.curveSecretKey.empty()) userId = frame.gets("User-Id");
                handleHello(*hello, userId);
            } else {
                ok = false;
            }
            break;
        case FrameKind::Bye:
            if (auto bye = decodeBye(body)) handleBye(*bye); else ok = false;
            break;
        case FrameKind::Resync:
            if (auto resync = decodeResync(body)) handleResync(*resync); else ok = false;
            break;
        case FrameKind::Snapshot:
        case FrameKind::Delta:
            if (auto update = decodeRoutingUpdate(kind, body)) handleRoutingUpdate(kind, *update); else ok = false;
            break;
        case FrameKind::Ack:
            if (auto ack = decodeAck(body)) handleAck(*ack); else ok = false;
            break;
        default:
            ok = false;
    }
    if (!ok) malformed_.fetch_add(1, std::memory_order_relaxed);
    statusDirty_ = true;
}

void BridgeCore::handleData(std::string_view body) {
    Decoded decoded;
    try {
        decoded = decodeWithEnvelope(body);
    } catch (const WireError&) {
        malformed_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    Peer* peer = peerById(decoded.envelope.origin);
    if (peer == nullptr) {
        strayMessages_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    Tally& tally = *peer->tally;
    if (decoded.envelope.epoch != peer->epoch) {
        // From an incarnation of that process that we do not know (yet).
        tally.dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    heard(*peer);
    const std::uint64_t sequence = decoded.envelope.sequence;
    if (peer->dataBaseline && sequence < peer->expectedData) {
        // Behind a later one: possible only when a broken connection's last
        // frames are read after the new connection's first. It was counted
        // lost with the gap that later one opened, and is dropped so that
        // order and the counts hold.
        return;
    }
    if (peer->dataBaseline && sequence > peer->expectedData) {
        // Sent, but lost with a broken connection.
        tally.dropped.fetch_add(sequence - peer->expectedData, std::memory_order_relaxed);
    }
    peer->expectedData = sequence + 1;
    peer->dataBaseline = true;
    if (decoded.envelope.hops > 0 || (decoded.envelope.scope != Scope::Subscribers &&
                                      decoded.envelope.scope != Scope::Services &&
                                      decoded.envelope.scope != Scope::Both)) {
        // Nothing travels two hops; the sender broke the protocol.
        tally.dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    tally.received.fetch_add(1, std::memory_order_relaxed);
    PostingGuard posting(this);
    try {
        // The sender's subscriber stand-in as the sender, also for a copy for
        // services: the dispatcher counts a sender it meets among the
        // services as served, which the service stand-in must not be.
        dispatcher_->postMessage(std::move(decoded.message), peer->subscriber, toPostScope(decoded.envelope.scope));
    } catch (const std::system_error& error) {
        deliveryErrors_.fetch_add(1, std::memory_order_relaxed);
        // poll() called from inside a delivery of the dispatcher: say so.
        if (error.code() == std::errc::resource_deadlock_would_occur && mode_ == Mode::Poll) throw;
    } catch (const std::exception&) {
        // A receiver's callback threw: the message reached the others.
        deliveryErrors_.fetch_add(1, std::memory_order_relaxed);
    }
}

void BridgeCore::handleHello(const Hello& hello, const char* userId) {
    const bool curve = !options_.curveSecretKey.empty();
    if (hello.id.empty() || hello.epoch == 0) {
        malformed_.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    if (hello.id == id_) {
        // One of our own links reached our own endpoint (a configured peer
        // that is this process): that peer is not one.
        if (Peer* self = peerByToken(hello.token); self != nullptr && !self->bound) removePeer(self);
        return;
    }
    std::string key;
    if (curve) {
        // The key the handshake proved, not the one the frame claims.
        if (userId == nullptr || std::strlen(userId) != 40) {
            malformed_.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        key = userId;
    }
    Peer* peer = peerById(hello.id);
    Peer* configured = peerByToken(hello.echo);
    if (configured != nullptr && configured->bound) configured = nullptr;
    if (peer == nullptr && configured == nullptr) {
        // A configured endpoint may be the very id.
        for (auto& candidate : peers_) {
            if (!candidate->bound && candidate->link->endpoint() == hello.id) configured = candidate.get();
        }
    }
    if (peer == nullptr && configured != nullptr) {
        configured->id = hello.id;
        configured->bound = true;
        peersById_[hello.id] = configured;
        peer = configured;
    } else if (peer != nullptr && configured != nullptr && configured != peer) {
        removePeer(configured);  // a second link to a process we already reach
    } else if (peer == nullptr) {
        peer = addPeer(hello.id, true, false, hello.id, key);
    }
    if (curve && peer->key != key) {
        // Connect back with the key the peer proved to have.
        peer->key = key;
    }
    peer->theirToken = hello.token;
    if (peer->epoch != hello.epoch) {
        if (peer->epoch != 0) {
            // Restarted: everything learned from the old one goes.
            dropRouting(*peer);
            peer->tally->reconnects.fetch_add(1, std::memory_order_relaxed);
        }
        peer->epoch = hello.epoch;
        peer->dataBaseline = false;
        peer->haveRouting = false;
        peer->routingSequence = 0;
        peer->announcedSequence = 0;
        peer->resyncPending = false;
        peer->ackValid = false;
        peer->departed = false;
    }
    heard(*peer);
    // Data sent before this Hello and lost on the way shows as a gap.
    if (!peer->dataBaseline) {
        peer->expectedData = hello.dataSequence;
        peer->dataBaseline = true;
    } else if (hello.dataSequence > peer->expectedData) {
        peer->tally->dropped.fetch_add(hello.dataSequence - peer->expectedData, std::memory_order_relaxed);
        peer->expectedData = hello.dataSequence;
    }
    const bool knewUs = peer->helloAcked;
    peer->helloAcked = hello.yourEpoch == epoch_;
    if (!peer->helloAcked || !knewUs) sendHello(*peer);
    if (!hello.haveYourRouting || hello.yourEpoch != epoch_) {
        peer->ackValid = false;
    } else if (!peer->ackValid || hello.yourRoutingSequence > peer->ackedSequence) {
        peer->ackValid = true;
        peer->ackedSequence = hello.yourRoutingSequence;
    }
    peer->announcedSequence = std::max(peer->announcedSequence, hello.routingSequence);
    if (!peer->resyncPending && (!peer->haveRouting || peer->announcedSequence > peer->routingSequence)) {
        requestResync(*peer);
    }
    for (const KnownPeer& known : hello.peers) {
        if (known.id.empty() || known.id == id_ || peerById(known.id) != nullptr) continue;
        if (curve && known.key.size() != 40) continue;
        try {
            checkTransport(known.id, "peer");
            addPeer(known.id, true, false, known.id, curve ? known.key : std::string());
        } catch (const std::exception&) {
            malformed_.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

void BridgeCore::handleBye(const Bye& bye) {
    Peer* peer = peerById(bye.id);
    if (peer == nullptr || bye.epoch != peer->epoch) return;
    peer->alive = false;
    peer->departed = true;
    peer->helloAcked = false;
    peer->ackValid = false;
    // The status first: whoever sees the peer's routing leave the tables
    // then also sees the peer gone.
    statusDirty_ = true;
    publish();
    dropRouting(*peer);
}

void BridgeCore::handleResync(const Resync& resync) {
    Peer* peer = peerById(resync.id);
    if (peer == nullptr || resync.epoch != peer->epoch || resync.yourEpoch != epoch_) return;
    heard(*peer);
    RoutingUpdate snapshot;
    snapshot.id = id_;
    snapshot.epoch = epoch_;
    snapshot.sequence = routingSequence_;
    snapshot.routing = exported_;
    peer->link->sendFrame(encodeRoutingUpdate(FrameKind::Snapshot, snapshot));
}

void BridgeCore::handleRoutingUpdate(FrameKind kind, const RoutingUpdate& update) {
    Peer* peer = peerById(update.id);
    if (peer == nullptr || update.epoch != peer->epoch) return;
    heard(*peer);
    if (kind == FrameKind::Snapshot) {
        applyRouting(*peer, update.routing);
        peer->haveRouting = true;
        peer->routingSequence = update.sequence;
        peer->resyncPending = false;
    } else {
        if (!peer->haveRouting || update.sequence <= peer->routingSequence) return;  // a snapshot is due, or old
        if (update.sequence != peer->routingSequence + 1) {
            // A change was lost: start again from its whole routing.
            if (!peer->resyncPending) requestResync(*peer);
            return;
        }
        Routing next = peer->routing;
        for (const RouteKey& key : update.removedSubscriptions) next.subscriptions.erase(key);
        for (const RouteKey& key : update.removedServices) next.services.erase(key);
        for (const RouteKey& key : update.routing.subscriptions) next.subscriptions.insert(key);
        for (const auto& [key, rank] : update.routing.services) next.services[key] = rank;
        applyRouting(*peer, next);
        peer->routingSequence = update.sequence;
    }
    peer->announcedSequence = std::max(peer->announcedSequence, peer->routingSequence);
    // Published before the acknowledgement, so that a peer that sees it
    // synced finds its routing in our peers() too.
    statusDirty_ = true;
    publish();
    peer->link->sendFrame(encodeAck(Ack{id_, epoch_, peer->epoch, peer->routingSequence}));
}

void BridgeCore::handleAck(const Ack& ack) {
    Peer* peer = peerById(ack.id);
    if (peer == nullptr || ack.epoch != peer->epoch || ack.yourEpoch != epoch_) return;
    heard(*peer);
    if (!peer->ackValid || ack.sequence > peer->ackedSequence) {
        peer->ackValid = true;
        peer->ackedSequence = ack.sequence;
    }
}

void BridgeCore::handleZap() {
    // ZAP request: version, request id, domain, address, routing id,
    // mechanism, then the mechanism's credentials (CURVE: the client key).
    std::vector<zmq::message_t> request;
    for (int i = 0; i < 16; ++i) {
        zmq::message_t part;
        if (!zap_.recv(part, zmq::recv_flags::dontwait)) break;
        const bool more = part.more();
        request.push_back(std::move(part));
        if (!more) break;
    }
    if (request.empty()) return;
    bool allowed = false;
    std::string userId;
    if (request.size() == 7 && request[5].to_string_view() == "CURVE" && request[6].size() == 32) {
        userId = z85Of(static_cast<const unsigned char*>(request[6].data()));
        allowed = allowedKeys_.count(userId) != 0;
    }
    const std::string requestId = request.size() > 1 ? request[1].to_string() : std::string();
    zap_.send(zmq::buffer(std::string("1.0")), zmq::send_flags::sndmore);
    zap_.send(zmq::buffer(requestId), zmq::send_flags::sndmore);
    zap_.send(zmq::buffer(std::string(allowed ? "200" : "400")), zmq::send_flags::sndmore);
    zap_.send(zmq::buffer(std::string(allowed ? "OK" : "key not allowed")), zmq::send_flags::sndmore);
    zap_.send(zmq::buffer(allowed ? userId : std::string()), zmq::send_flags::sndmore);
    zap_.send(zmq::message_t(), zmq::send_flags::none);
}

void BridgeCore::handleMonitor(zmq::socket_t& monitor, Peer* peer) {
    for (int i = 0; i < 64; ++i) {
        zmq::message_t head;
        if (!monitor.recv(head, zmq::recv_flags::dontwait)) return;
        std::uint16_t event = 0;
        if (head.size() >= sizeof event) std::memcpy(&event, head.data(), sizeof event);
        while (head.more()) {
            zmq::message_t rest;
            if (!monitor.recv(rest, zmq::recv_flags::dontwait)) break;
            head = std::move(rest);
        }
        if ((event & kHandshakeFailures) != 0) {
            if (peer == nullptr) {
                rejectedConnections_.fetch_add(1, std::memory_order_relaxed);
            } else {
                peer->tally->handshakeFailures.fetch_add(1, std::memory_order_relaxed);
            }
            statusDirty_ = true;
        } else if (peer != nullptr && (event & ZMQ_EVENT_HANDSHAKE_SUCCEEDED) != 0) {
            // A new connection: introduce ourselves at once rather than at
            // the next heartbeat, and ask again for what was asked before.
            sendHello(*peer);
            if (peer->resyncPending) requestResync(*peer);
        }
    }
}

void BridgeCore::tick(Clock::time_point now) {
    nextTick_ = now + options_.heartbeatInterval;
    for (auto& peer : peers_) {
        if (peer->alive && now - peer->lastHeard > options_.peerTimeout) {
            // Dead: what it subscribed and serves disappears here. Its link
            // stays and keeps trying; hearing from it again brings it back.
            peer->alive = false;
            peer->helloAcked = false;
            peer->ackValid = false;
            // The status first: whoever sees the peer's routing leave the
            // tables then also sees the peer gone.
            statusDirty_ = true;
            publish();
            dropRouting(*peer);
            statusDirty_ = true;
        }
        sendHello(*peer);
        if (peer->resyncPending && now - peer->resyncAt >= 2 * options_.heartbeatInterval) requestResync(*peer);
    }
}

// ---- Peers -----------------------------------------------------------------

Peer* BridgeCore::addPeer(const std::string& id, bool bound, bool configured, const std::string& endpoint,
                          const std::string& key) {
    auto peer = std::make_unique<Peer>();
    peer->id = id;
    peer->bound = bound;
    peer->configured = configured;
    peer->key = key;
    peer->tally = std::make_shared<Tally>();
    Envelope envelope;
    envelope.origin = id_;
    envelope.epoch = epoch_;
    envelope.hops = 0;
    peer->link = std::make_shared<Link>(*context_, endpoint, key, options_, publicKey_, randomNumber(),
                                        "inproc://kest-bridge-link-" + std::to_string(uniqueNumber()),
                                        peer->tally, std::move(envelope));
    peer->subscriber = std::make_shared<StandIn>(peer->link, Scope::Subscribers, this);
    peer->service = std::make_shared<StandIn>(peer->link, Scope::Services, this);
    Peer* raw = peer.get();
    peers_.push_back(std::move(peer));
    if (bound) peersById_[id] = raw;
    // Over inproc:// (and to a process already listening) this goes at once.
    sendHello(*raw);
    statusDirty_ = true;
    return raw;
}

void BridgeCore::removePeer(Peer* peer) {
    // Erased at the end of the turn: the turn may still hold pointers to it.
    dropRouting(*peer);
    peer->link->close();
    if (peer->bound) peersById_.erase(peer->id);
    peer->removed = true;
    statusDirty_ = true;
}

void BridgeCore::eraseRemovedPeers() {
    for (auto& peer : peers_) {
        if (peer->removed) peer->link->monitor().close();
    }
    peers_.erase(std::remove_if(peers_.begin(), peers_.end(),
                                [](const std::unique_ptr<Peer>& p) { return p->removed; }),
                 peers_.end());
}

Peer* BridgeCore::peerById(const std::string& id) const {
    auto found = peersById_.find(id);
    return found == peersById_.end() ? nullptr : found->second;
}

Peer* BridgeCore::peerByToken(std::uint64_t token) const {
    if (token == 0) return nullptr;
    for (const auto& peer : peers_) {
        if (!peer->removed && peer->link->token() == token) return peer.get();
    }
    return nullptr;
}

void BridgeCore::heard(Peer& peer) {
    peer.lastHeard = Clock::now();
    if (!peer.alive) {
        peer.alive = true;
        peer.departed = false;
        statusDirty_ = true;
    }
}

void BridgeCore::sendHello(Peer& peer) {
    Hello hello;
    hello.id = id_;
    hello.epoch = epoch_;
    hello.key = publicKey_;
    hello.echo = peer.theirToken;
    hello.yourEpoch = peer.epoch;
    hello.routingSequence = routingSequence_;
    hello.haveYourRouting = peer.haveRouting;
    hello.yourRoutingSequence = peer.routingSequence;
    for (const auto& other : peers_) {
        if (other.get() != &peer && other->bound && other->alive) hello.peers.push_back({other->id, other->key});
    }
    peer.link->sendHello(std::move(hello));
}

void BridgeCore::requestResync(Peer& peer) {
    if (peer.epoch == 0) return;
    peer.resyncPending = true;
    peer.resyncAt = Clock::now();
    peer.link->sendFrame(encodeResync(Resync{id_, epoch_, peer.epoch}));
}

void BridgeCore::dropRouting(Peer& peer) {
    if (!peer.routing.subscriptions.empty() || !peer.routing.services.empty()) {
        PostingGuard posting(this);
        dispatcher_->disconnectQueue(peer.subscriber);
        dispatcher_->disconnectQueue(peer.service);
        for (const RouteKey& key : peer.routing.subscriptions) {
            auto entry = standInSubscriptions_.find(key);
            if (entry != standInSubscriptions_.end() && --entry->second == 0) standInSubscriptions_.erase(entry);
        }
    }
    peer.routing = Routing();
    peer.pendingServices.clear();
    peer.haveRouting = false;
    peer.routingSequence = 0;
    peer.resyncPending = false;
    statusDirty_ = true;
}

// ---- Routing ---------------------------------------------------------------

Routing BridgeCore::localRouting() const {
    Routing routing;
    Kest::Msgs::MessageDispatcherInterface::SubscriptionsTable subscriptions;
    dispatcher_->getSubscriptionsTable(subscriptions);
    for (const auto& [key, count] : subscriptions) {
        // The notifications tell of this process's own tables: never shared.
        if (Identifier(key.id()).category() == Fwd::Category) continue;
        RouteKey routeKey(key.id(), key.sender());
        auto ours = standInSubscriptions_.find(routeKey);
        const unsigned standIns = ours == standInSubscriptions_.end() ? 0 : ours->second;
        if (count > standIns) routing.subscriptions.insert(std::move(routeKey));
    }
    Kest::Msgs::MessageDispatcherInterface::ServicesTable services;
    dispatcher_->getServicesTable(services);
    for (const auto& [key, info] : services) {
        if (Identifier(key.id()).category() == Fwd::Category) continue;
        // Remote services sit at kRemoteRankBase and above: any lower rank is local.
        if (info.lowestRank < Bridge::kRemoteRankBase) {
            routing.services.emplace(RouteKey(key.id(), key.destination()), info.lowestRank);
        }
    }
    return routing;
}

void BridgeCore::exportRouting() {
    Routing now = localRouting();
    if (!(now == exported_)) {
        RoutingUpdate delta;
        delta.id = id_;
        delta.epoch = epoch_;
        delta.sequence = ++routingSequence_;
        difference(exported_, now, delta);
        exported_ = std::move(now);
        const std::string frame = encodeRoutingUpdate(FrameKind::Delta, delta);
        for (auto& peer : peers_) {
            // A peer that misses this asks for a snapshot when it sees the
            // sequence in our next Hello.
            if (peer->bound && peer->epoch != 0) peer->link->sendFrame(frame);
        }
    }
    retryPendingServices();
}

void BridgeCore::applyRouting(Peer& peer, const Routing& routing) {
    PostingGuard posting(this);
    const Routing& old = peer.routing;
    for (const RouteKey& key : routing.subscriptions) {
        if (old.subscriptions.count(key) != 0) continue;
        dispatcher_->subscribe(peer.subscriber, key.second, Identifier(key.first));
        ++standInSubscriptions_[key];
    }
    for (const RouteKey& key : old.subscriptions) {
        if (routing.subscriptions.count(key) != 0) continue;
        dispatcher_->unsubscribe(peer.subscriber, key.second, Identifier(key.first));
        auto entry = standInSubscriptions_.find(key);
        if (entry != standInSubscriptions_.end() && --entry->second == 0) standInSubscriptions_.erase(entry);
    }
    constexpr std::uint64_t kLargestRemoteRank = std::numeric_limits<std::uint32_t>::max();
    for (const auto& [key, rank] : routing.services) {
        auto before = old.services.find(key);
        if (before != old.services.end() && before->second == rank && peer.pendingServices.count(key) == 0) continue;
        const unsigned long localRank = Bridge::kRemoteRankBase + std::min<std::uint64_t>(rank, kLargestRemoteRank);
        if (dispatcher_->registerService(peer.service, key.second, Identifier(key.first), localRank)) {
            peer.pendingServices.erase(key);
        } else {
            peer.pendingServices.insert(key);  // a local rank 0 holds the key: tried again on the next change
        }
    }
    for (const auto& entry : old.services) {
        if (routing.services.count(entry.first) != 0) continue;
        dispatcher_->unregisterService(peer.service, entry.first.second, Identifier(entry.first.first));
        peer.pendingServices.erase(entry.first);
    }
    peer.routing = routing;
    statusDirty_ = true;
}

void BridgeCore::retryPendingServices() {
    PostingGuard posting(this);
    constexpr std::uint64_t kLargestRemoteRank = std::numeric_limits<std::uint32_t>::max();
    for (auto& peer : peers_) {
        for (auto it = peer->pendingServices.begin(); it != peer->pendingServices.end();) {
            const std::uint64_t rank = peer->routing.services.at(*it);
            const unsigned long localRank = Bridge::kRemoteRankBase + std::min<std::uint64_t>(rank, kLargestRemoteRank);
            if (dispatcher_->registerService(peer->service, it->second, Identifier(it->first), localRank)) {
                it = peer->pendingServices.erase(it);
            } else {
                ++it;
            }
        }
    }
}

// ---- Status ----------------------------------------------------------------

void BridgeCore::publish() {
    if (!statusDirty_) return;
    statusDirty_ = false;
    std::vector<Published> status;
    status.reserve(peers_.size());
    bool allSynced = !shutDown_;
    for (const auto& peer : peers_) {
        Published p;
        p.id = peer->id;
        p.epoch = peer->epoch;
        p.connected = !shutDown_ && peer->bound && peer->alive && peer->helloAcked;
        p.synced = p.connected && peer->haveRouting && !peer->resyncPending &&
                   peer->routingSequence >= peer->announcedSequence && peer->ackValid &&
                   peer->ackedSequence == routingSequence_;
        p.departed = peer->departed;
        p.routing = peer->routing;
        p.tally = peer->tally;
        if (!p.synced && !p.departed) allSynced = false;
        status.push_back(std::move(p));
    }
    {
        std::lock_guard<std::mutex> lock(statusMutex_);
        published_ = std::move(status);
        allSynced_ = allSynced;
        publishedGeneration_ = processedGeneration_;
    }
    statusChanged_.notify_all();
}

bool BridgeCore::waitSynced(std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    Mode mode;
    {
        std::lock_guard<std::mutex> lock(lifecycleMutex_);
        mode = mode_;
        if (stopped_) return false;
    }
    auto reached = [this] {
        return allSynced_ && wake_ && publishedGeneration_ == wake_->generation.load(std::memory_order_acquire);
    };
    if (mode != Mode::Thread) {
        // Nobody else runs the loop: run it here until then.
        for (;;) {
            {
                std::lock_guard<std::mutex> lock(statusMutex_);
                if (publishedStopped_) return false;
                if (mode == Mode::Poll && reached()) return true;
            }
            const Clock::time_point now = Clock::now();
            if (now >= deadline) return false;
            if (!poll(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now)) &&
                mode == Mode::Idle) {
                std::lock_guard<std::mutex> lock(lifecycleMutex_);
                if (mode_ == Mode::Idle || stopped_) return false;
            }
            std::lock_guard<std::mutex> lock(lifecycleMutex_);
            mode = mode_;
        }
    }
    std::unique_lock<std::mutex> lock(statusMutex_);
    return statusChanged_.wait_until(lock, deadline, [&] { return publishedStopped_ || reached(); }) &&
           !publishedStopped_;
}

std::string BridgeCore::endpoint() const {
    std::lock_guard<std::mutex> lock(statusMutex_);
    return publishedId_;
}

std::uint64_t BridgeCore::epoch() const {
    std::lock_guard<std::mutex> lock(statusMutex_);
    return publishedEpoch_;
}

std::vector<PeerStatus> BridgeCore::peers() const {
    std::lock_guard<std::mutex> lock(statusMutex_);
    std::vector<PeerStatus> result;
    result.reserve(published_.size());
    for (const Published& p : published_) {
        PeerStatus status;
        status.id = p.id;
        status.epoch = p.epoch;
        status.connected = p.connected;
        status.synced = p.synced;
        status.counters.sent = p.tally->sent.load(std::memory_order_relaxed);
        status.counters.received = p.tally->received.load(std::memory_order_relaxed);
        status.counters.refused = p.tally->refused.load(std::memory_order_relaxed);
        status.counters.dropped = p.tally->dropped.load(std::memory_order_relaxed);
        status.counters.reconnects = p.tally->reconnects.load(std::memory_order_relaxed);
        status.counters.handshakeFailures = p.tally->handshakeFailures.load(std::memory_order_relaxed);
        for (const RouteKey& key : p.routing.subscriptions) {
            status.subscriptions.emplace_back(key.first, key.second, std::vector<std::string>(),
                                              MessageKey::HashFunction());
        }
        for (const auto& [key, rank] : p.routing.services) {
            status.services.push_back(RemoteService{
                MessageKey(key.first, std::vector<std::string>(), key.second, MessageKey::HashFunction()), rank});
        }
        result.push_back(std::move(status));
    }
    return result;
}

BridgeCounters BridgeCore::counters() const {
    BridgeCounters c;
    c.rejectedConnections = rejectedConnections_.load(std::memory_order_relaxed);
    c.malformed = malformed_.load(std::memory_order_relaxed);
    c.strayMessages = strayMessages_.load(std::memory_order_relaxed);
    c.deliveryErrors = deliveryErrors_.load(std::memory_order_relaxed);
    c.loopErrors = loopErrors_.load(std::memory_order_relaxed);
    return c;
}

}  // namespace Kest::Net::detail
