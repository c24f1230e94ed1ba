#include "Commands.h"

#include "Names.h"
#include "Output.h"
#include "Signals.h"

#include <kest/metadata/Element.h>
#include <kest/model/Forwarder.h>
#include <kest/model/MessageKey.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/net/Bridge.h>
#include <kest/net/GenericMessage.h>
#include <kest/net/Json.h>
#include <kest/net/WireError.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>

namespace KestTool {

namespace {

using Clock = std::chrono::steady_clock;
using Kest::MetaData::Element;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageKey;
using Kest::Msgs::MessageQueue;

// ---- Output ------------------------------------------------------------------

std::string oneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

// A status line on standard error, written whole so that it is never
// interleaved with another thread's output.
void tell(const char* command, const std::string& text) {
    const std::string line = std::string("kest ") + command + ": " + oneLine(text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

// A line on standard output, flushed at once. False when it could not be
// written (the reader went away): the command then ends.
bool emit(const std::string& text) {
    const std::string line = text + "\n";
    return std::fwrite(line.data(), 1, line.size(), stdout) == line.size() && std::fflush(stdout) == 0;
}

Element number(std::uint64_t value) { return Element(static_cast<unsigned long>(value)); }

Element addressElement(const std::vector<std::string>& address) {
    Element array{Kest::MetaData::Array()};
    for (const std::string& part : address) static_cast<Kest::MetaData::Array&>(array).push_back(Element(part));
    return array;
}

Element countersElement(const Kest::Net::PeerCounters& c) {
    Element counters{Kest::MetaData::Object()};
    counters["sent"] = number(c.sent);
    counters["received"] = number(c.received);
    counters["refused"] = number(c.refused);
    counters["dropped"] = number(c.dropped);
    counters["reconnects"] = number(c.reconnects);
    counters["handshakeFailures"] = number(c.handshakeFailures);
    return counters;
}

// Per peer: its endpoint, whether it is connected, and its counters.
Element peersSummary(const std::vector<Kest::Net::PeerStatus>& peers) {
    Element list{Kest::MetaData::Array()};
    for (const auto& peer : peers) {
        Element entry{Kest::MetaData::Object()};
        entry["peer"] = Element(peer.id);
        entry["connected"] = Element(peer.connected);
        entry["counters"] = countersElement(peer.counters);
        static_cast<Kest::MetaData::Array&>(list).push_back(std::move(entry));
    }
    return list;
}

// ---- The bridge ----------------------------------------------------------------

std::string readSecretFile(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw UsageError("--curve-secret-file: cannot read '" + path + "'");
    // The file `kest keygen` writes ("public KEY", "secret KEY"), or the key
    // alone on its first line.
    std::string line;
    std::string first;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string word;
        std::string value;
        words >> word >> value;
        if (word == "secret" && !value.empty()) return value;
        if (first.empty() && !word.empty() && value.empty()) first = word;
    }
    if (first.empty()) throw UsageError("--curve-secret-file: no key in '" + path + "'");
    return first;
}

Kest::Net::BridgeOptions makeOptions(const BridgeArgs& args) {
    try {
        checkEndpoint(args.listen, "--listen", false);
        for (const std::string& peer : args.peers) checkEndpoint(peer, "--peer", true);
        if (!args.advertise.empty()) checkEndpoint(args.advertise, "--advertise", false);
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
    Kest::Net::BridgeOptions options;
    options.listen = args.listen;
    options.peers = args.peers;
    options.advertise = args.advertise;
    if (!args.curveSecret.empty() && !args.curveSecretFile.empty()) {
        throw UsageError("give --curve-secret or --curve-secret-file, not both");
    }
    options.curveSecretKey = args.curveSecretFile.empty() ? args.curveSecret : readSecretFile(args.curveSecretFile);
    if (!options.curveSecretKey.empty()) {
        try {
            Kest::Net::curvePublicKey(options.curveSecretKey);
        } catch (const std::invalid_argument&) {
            throw UsageError("the CURVE secret key is not 40 characters of Z85 (see kest keygen)");
        }
    }
    options.curveAllow = args.curveAllow;
    options.allowInsecure = args.allowInsecure;
    options.sendBuffer = args.sendBuffer;
    options.heartbeatInterval = std::chrono::milliseconds(args.heartbeatMs);
    options.peerTimeout = std::chrono::milliseconds(args.peerTimeoutMs);
    options.linger = std::chrono::milliseconds(args.lingerMs);
    return options;
}

// Starts `bridge`; what keeps it from starting (an option that cannot work,
// an endpoint that cannot be bound) is the user's to fix.
void startBridge(Kest::Net::Bridge& bridge) {
    try {
        bridge.start();
    } catch (const std::logic_error& e) {
        throw UsageError(std::string("cannot start the bridge: ") + e.what());
    } catch (const std::exception& e) {
        throw UsageError(std::string("cannot start the bridge on that endpoint: ") + e.what());
    }
}

std::unique_ptr<Kest::Net::Bridge> makeBridge(const std::shared_ptr<MessageDispatcher>& dispatcher,
                                              const BridgeArgs& args) {
    Kest::Net::BridgeOptions options = makeOptions(args);
    try {
        return std::make_unique<Kest::Net::Bridge>(dispatcher, std::move(options));
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
}

Identifier identifierArg(const std::string& text) {
    try {
        return parseIdentifier(text);
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
}

std::vector<std::string> addressArg(const std::string& text, const char* what) {
    try {
        return parseAddress(text);
    } catch (const std::invalid_argument& e) {
        throw UsageError(std::string(what) + ": " + e.what());
    }
}

std::optional<Clock::time_point> deadlineAfter(long timeoutMs) {
    if (timeoutMs <= 0) return std::nullopt;
    return Clock::now() + std::chrono::milliseconds(timeoutMs);
}

// Wakes waiters on every change of the dispatcher's tables (the bridge's
// stand-ins coming and going) and on wake().
class TableWatch {
public:
    explicit TableWatch(const std::shared_ptr<MessageDispatcher>& dispatcher)
        : dispatcher_(dispatcher), queue_(std::make_shared<MessageCallback>([this](const std::shared_ptr<const Message>&) {
              wake();
          })) {
        namespace Fwd = Kest::Msgs::Communications::Forwarder;
        for (std::uint16_t type : {5, 6, 9, 10}) dispatcher_->subscribe(queue_, {}, Identifier(Fwd::Category, type));
    }

    ~TableWatch() { dispatcher_->unsubscribeFromAll(queue_); }

    TableWatch(const TableWatch&) = delete;
    TableWatch& operator=(const TableWatch&) = delete;

    void wake() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++changes_;
        changed_.notify_all();
    }

    // Waits until `condition` holds (true), `stop` holds or `deadline`
    // passes (false). `condition` runs without the watch's lock, so it may
    // read the dispatcher.
    template <class Condition, class Stop>
    bool waitUntil(Condition condition, Stop stop, std::optional<Clock::time_point> deadline) {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            const std::uint64_t seen = changes_;
            lock.unlock();
            if (condition()) return true;
            if (stop()) return false;
            lock.lock();
            const auto changed = [&] { return changes_ != seen; };
            if (deadline) {
                if (!changed_.wait_until(lock, *deadline, changed)) return false;
            } else {
                changed_.wait(lock, changed);
            }
        }
    }

    // Waits for `duration` unless `stop` holds first; false when stopped.
    template <class Stop>
    bool pause(std::chrono::milliseconds duration, Stop stop) {
        const auto until = Clock::now() + duration;
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop()) {
            if (changed_.wait_until(lock, until) == std::cv_status::timeout) return !stop();
        }
        return false;
    }

private:
    std::shared_ptr<MessageDispatcher> dispatcher_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t changes_ = 0;  // guarded by mutex_
    std::shared_ptr<MessageCallback> queue_;
};

// Whether a stand-in of some peer would take a message of `key`: one
// subscribed under a covering sender prefix, or, for a message with a
// destination, one registered under a covering destination prefix. The tool
// has no local receivers, so every entry of the tables is a peer's.
bool peerInterested(MessageDispatcher& dispatcher, const MessageKey& key, bool hasDestination) {
    if (hasDestination) {
        MessageDispatcher::ServicesTable services;
        dispatcher.getServicesTable(services);
        const MessageKey wanted(key.id(), {}, key.destination(), MessageKey::HashFunction());
        return std::any_of(services.begin(), services.end(), [&](const auto& entry) {
            return entry.second.queueCount > 0 && entry.first.covers(wanted);
        });
    }
    MessageDispatcher::SubscriptionsTable subscriptions;
    dispatcher.getSubscriptionsTable(subscriptions);
    const MessageKey wanted(key.id(), key.sender(), {}, MessageKey::HashFunction());
    return std::any_of(subscriptions.begin(), subscriptions.end(),
                       [&](const auto& entry) { return entry.second > 0 && entry.first.covers(wanted); });
}

struct Totals {
    std::uint64_t sent = 0;
    std::uint64_t refused = 0;
};

Totals totals(const Kest::Net::Bridge& bridge) {
    Totals t;
    for (const auto& peer : bridge.peers()) {
        t.sent += peer.counters.sent;
        t.refused += peer.counters.refused;
    }
    return t;
}

}  // namespace

// ---- echo ----------------------------------------------------------------------

int runEcho(const EchoArgs& args) {
    const Identifier id = identifierArg(args.id);
    const std::vector<std::string> prefix = addressArg(args.prefix, "SENDER/PREFIX");
    const std::vector<std::string> servicePrefix = addressArg(args.service, "--service");
    if (args.serviceSet && !args.prefix.empty()) {
        throw UsageError("--service and SENDER/PREFIX exclude each other: a service is chosen by destination");
    }
    if (args.serviceSet && args.rank >= Kest::Net::Bridge::kRemoteRankBase) {
        throw UsageError("--rank must be below 2^32 (ranks from there up are the bridge's)");
    }

    auto queue = std::make_shared<MessageQueue>();
    // Put by the signal watch to wake the reader: never posted, so it never
    // reaches the dispatcher or its history.
    const auto interrupt = std::make_shared<const Message>(Identifier(0));
    SignalWatch signals([&] { queue->putMessage(interrupt); });

    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto bridge = makeBridge(dispatcher, args.bridge);
    if (args.serviceSet) {
        dispatcher->registerService(queue, servicePrefix, id, args.rank);
    } else {
        dispatcher->subscribe(queue, prefix, id);
    }
    startBridge(*bridge);
    tell("echo", "listening on " + bridge->endpoint());

    const auto deadline = deadlineAfter(args.timeoutMs);
    std::uint64_t received = 0;
    std::uint64_t unprintable = 0;
    std::uint64_t duplicates = 0;
    std::set<std::string> identities;
    std::map<std::string, std::uint64_t> dropped;  // per peer, as last told
    auto nextCheck = Clock::now();
    const char* ending = nullptr;  // why it ends short of the count

    while (args.count == 0 || received < args.count) {
        const auto now = Clock::now();
        if (deadline && now >= *deadline) {
            ending = "time-out";
            break;
        }
        // Wake at least every 100 ms to report losses the bridge counted.
        auto wait = std::chrono::milliseconds(100);
        if (deadline) {
            wait = std::min(wait, std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - now) +
                                      std::chrono::milliseconds(1));
        }
        const std::shared_ptr<const Message> message = queue->getMessage(wait);
        if (message == interrupt || signals.signal() != 0) {
            ending = "signal";
            break;
        }
        if (message) {
            ++received;
            if (!identities.insert(message->identity()).second) ++duplicates;
            std::string line;
            try {
                line = messageLine(*message);
            } catch (const Kest::Net::WireError& e) {
                ++unprintable;
                tell("echo", "message " + message->identity() + " cannot be shown as JSON: " + e.what());
                continue;
            }
            if (!emit(line)) {
                ending = "standard output closed";
                break;
            }
        }
        if (Clock::now() >= nextCheck) {
            nextCheck = Clock::now() + std::chrono::milliseconds(100);
            for (const auto& peer : bridge->peers()) {
                std::uint64_t& told = dropped[peer.id];
                if (peer.counters.dropped > told) {
                    told = peer.counters.dropped;
                    tell("echo", "peer " + peer.id + ": " + std::to_string(told) + " messages lost on the way in all");
                }
            }
        }
    }

    Element summary{Kest::MetaData::Object()};
    summary["received"] = number(received);
    summary["unprintable"] = number(unprintable);
    summary["duplicates"] = number(duplicates);
    summary["peers"] = peersSummary(bridge->peers());
    if (ending != nullptr) summary["ended"] = Element(std::string(ending));
    bridge->stop();
    tell("echo", "summary " + Kest::Net::toJson(summary));
    return ending == nullptr ? 0 : 1;
}

// ---- post ----------------------------------------------------------------------

int runPost(const PostArgs& args) {
    const Identifier id = identifierArg(args.id);
    std::optional<std::vector<std::string>> sender;
    if (args.senderSet) sender = addressArg(args.sender, "--sender");
    std::optional<std::vector<std::string>> destination;
    if (args.destinationSet) destination = addressArg(args.destination, "--destination");
    Element payload;
    try {
        payload = Kest::Net::fromJson(args.data);
    } catch (const Kest::Net::WireError& e) {
        throw UsageError(std::string("--data is not JSON: ") + e.what());
    }
    if (payload.GetElementType() != Element::ObjectType) throw UsageError("--data must be a JSON object");
    // A message made once here checks the payload's member names.
    try {
        Kest::Net::GenericMessage probe(id, sender, destination, payload);
    } catch (const std::invalid_argument& e) {
        throw UsageError(std::string("--data: ") + e.what());
    }
    const MessageKey key(static_cast<unsigned long>(id), sender.value_or(std::vector<std::string>{}),
                         destination.value_or(std::vector<std::string>{}), MessageKey::HashFunction());

    // The dispatcher and the watch start no thread, so they may come before
    // the signal watch, which must outlive neither.
    auto dispatcher = std::make_shared<MessageDispatcher>();
    TableWatch watch(dispatcher);
    std::atomic<bool> interrupted{false};
    SignalWatch signals([&] {
        interrupted.store(true);
        watch.wake();
    });
    auto bridge = makeBridge(dispatcher, args.bridge);
    startBridge(*bridge);
    tell("post", "listening on " + bridge->endpoint());

    const auto deadline = deadlineAfter(args.timeoutMs);
    const auto stop = [&] { return interrupted.load(); };
    const std::string wanted =
        destination ? "a service of " + args.id + " for " + formatAddress(*destination)
                    : "interest in " + args.id + (sender ? " from " + formatAddress(*sender) : std::string());
    std::uint64_t posted = 0;
    std::uint64_t sentMessages = 0;  // handed to at least one peer
    std::uint64_t refusals = 0;      // refusals by peers' links (one message may be refused by several)
    std::uint64_t unrouted = 0;      // posted when no peer took it after all (its interest had just gone)
    const char* ending = nullptr;

    while (posted < args.count) {
        const auto interested = [&] { return peerInterested(*dispatcher, key, destination.has_value()); };
        if (!interested()) {
            tell("post", "waiting for " + wanted + " (" + std::to_string(posted) + " of " +
                             std::to_string(args.count) + " posted)");
            if (!watch.waitUntil(interested, stop, deadline)) {
                ending = stop() ? "signal" : "time-out";
                break;
            }
            tell("post", "posting");
        }
        auto message = std::make_shared<Kest::Net::GenericMessage>(id, sender, destination, payload);
        const Totals before = totals(*bridge);
        dispatcher->postMessage(message, nullptr);
        const Totals after = totals(*bridge);
        ++posted;
        refusals += after.refused - before.refused;
        if (after.sent > before.sent) {
            ++sentMessages;
        } else if (after.refused == before.refused) {
            ++unrouted;
        }
        if (stop()) {
            ending = "signal";
            break;
        }
        if (args.intervalMs > 0 && posted < args.count &&
            !watch.pause(std::chrono::milliseconds(args.intervalMs), stop)) {
            ending = "signal";
            break;
        }
        if (deadline && Clock::now() >= *deadline && posted < args.count) {
            ending = "time-out";
            break;
        }
    }

    Element summary{Kest::MetaData::Object()};
    summary["posted"] = number(posted);
    summary["sent"] = number(sentMessages);
    summary["refused"] = number(refusals);
    summary["unrouted"] = number(unrouted);
    summary["peers"] = peersSummary(bridge->peers());
    if (ending == nullptr && (sentMessages != posted || refusals != 0)) ending = "not all handed to the network";
    if (ending != nullptr) summary["ended"] = Element(std::string(ending));
    // Sends what the links still hold, for up to --linger-ms.
    bridge->stop();
    tell("post", "summary " + Kest::Net::toJson(summary));
    return ending == nullptr ? 0 : 1;
}

// ---- tables --------------------------------------------------------------------

int runTables(const TablesArgs& args) {
    std::atomic<bool> interrupted{false};
    SignalWatch signals([&] { interrupted.store(true); });
    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto bridge = makeBridge(dispatcher, args.bridge);
    startBridge(*bridge);

    // In slices, so that a signal ends the wait within 100 ms.
    const auto deadline = Clock::now() + std::chrono::milliseconds(std::max(0L, args.timeoutMs));
    bool synced = false;
    for (;;) {
        const auto now = Clock::now();
        const auto slice = std::min<Clock::duration>(std::chrono::milliseconds(100), deadline - now);
        synced = bridge->waitSynced(std::chrono::duration_cast<std::chrono::milliseconds>(
            std::max<Clock::duration>(slice, Clock::duration::zero())));
        if (synced || interrupted.load() || Clock::now() >= deadline) break;
    }
    const auto peers = bridge->peers();
    const auto counters = bridge->counters();
    const std::string self = bridge->endpoint();
    const std::uint64_t epoch = bridge->epoch();
    bridge->stop();

    bool written = true;
    if (args.json) {
        Element document{Kest::MetaData::Object()};
        document["self"] = Element(self);
        document["epoch"] = number(epoch);
        document["synced"] = Element(synced);
        Element list{Kest::MetaData::Array()};
        for (const auto& peer : peers) {
            Element entry{Kest::MetaData::Object()};
            entry["peer"] = Element(peer.id);
            entry["epoch"] = number(peer.epoch);
            entry["connected"] = Element(peer.connected);
            entry["synced"] = Element(peer.synced);
            Element subscriptions{Kest::MetaData::Array()};
            for (const auto& key : peer.subscriptions) {
                Element s{Kest::MetaData::Object()};
                s["id"] = Element(formatIdentifier(Identifier(key.id())));
                s["sender"] = addressElement(key.sender());
                static_cast<Kest::MetaData::Array&>(subscriptions).push_back(std::move(s));
            }
            entry["subscriptions"] = std::move(subscriptions);
            Element services{Kest::MetaData::Array()};
            for (const auto& service : peer.services) {
                Element s{Kest::MetaData::Object()};
                s["id"] = Element(formatIdentifier(Identifier(service.key.id())));
                s["destination"] = addressElement(service.key.destination());
                s["rank"] = number(service.rank);
                static_cast<Kest::MetaData::Array&>(services).push_back(std::move(s));
            }
            entry["services"] = std::move(services);
            entry["counters"] = countersElement(peer.counters);
            static_cast<Kest::MetaData::Array&>(list).push_back(std::move(entry));
        }
        document["peers"] = std::move(list);
        Element bridgeCounters{Kest::MetaData::Object()};
        bridgeCounters["rejectedConnections"] = number(counters.rejectedConnections);
        bridgeCounters["malformed"] = number(counters.malformed);
        bridgeCounters["strayMessages"] = number(counters.strayMessages);
        bridgeCounters["deliveryErrors"] = number(counters.deliveryErrors);
        bridgeCounters["loopErrors"] = number(counters.loopErrors);
        document["bridge"] = std::move(bridgeCounters);
        written = emit(Kest::Net::toJson(document));
    } else {
        const auto yesNo = [](bool b) { return b ? "yes" : "no"; };
        const auto addressText = [](const std::vector<std::string>& a, const char* none) {
            return a.empty() ? std::string(none) : formatAddress(a);
        };
        written = emit("self " + self + " epoch " + std::to_string(epoch) + " synced " + yesNo(synced));
        for (const auto& peer : peers) {
            written = written && emit("peer " + peer.id + " epoch " + std::to_string(peer.epoch) + " connected " +
                                      yesNo(peer.connected) + " synced " + yesNo(peer.synced));
            for (const auto& key : peer.subscriptions) {
                written = written && emit("  subscription " + formatIdentifier(Identifier(key.id())) + " from " +
                                          addressText(key.sender(), "(any sender)"));
            }
            for (const auto& service : peer.services) {
                written = written && emit("  service " + formatIdentifier(Identifier(service.key.id())) + " to " +
                                          addressText(service.key.destination(), "(any destination)") +
                                          " rank " + std::to_string(service.rank));
            }
            const auto& c = peer.counters;
            written = written && emit("  counters sent " + std::to_string(c.sent) + " received " +
                                      std::to_string(c.received) + " refused " + std::to_string(c.refused) +
                                      " dropped " + std::to_string(c.dropped) + " reconnects " +
                                      std::to_string(c.reconnects) + " handshake-failures " +
                                      std::to_string(c.handshakeFailures));
        }
        written = written && emit("bridge rejected-connections " + std::to_string(counters.rejectedConnections) +
                                  " malformed " + std::to_string(counters.malformed) + " stray " +
                                  std::to_string(counters.strayMessages) + " delivery-errors " +
                                  std::to_string(counters.deliveryErrors) + " loop-errors " +
                                  std::to_string(counters.loopErrors));
    }
    if (!synced) {
        tell("tables", interrupted.load() ? "interrupted before every peer was synced"
                                          : "not every peer was synced within --timeout-ms");
    }
    return synced && written && !interrupted.load() ? 0 : 1;
}

// ---- keygen --------------------------------------------------------------------

int runKeygen() {
    const Kest::Net::CurveKeyPair pair = Kest::Net::makeCurveKeyPair();
    return emit("public " + pair.publicKey) && emit("secret " + pair.secretKey) ? 0 : 1;
}

}  // namespace KestTool
