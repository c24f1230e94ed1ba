// A process of a bridged mesh, driven by the multi-process tests: a
// dispatcher, its bridge, and receivers that record what they get.
//
//   bridge_node --name N --listen EP [--peer EP]... [--advertise EP]
//               [--curve-secret KEY] [--curve-allow KEY]... [--send-buffer N]
//               [--heartbeat-ms N] [--peer-timeout-ms N] [--linger-ms N]
//
// It reads one command per line on standard input and answers on standard
// output with lines that begin with "KN " (the dispatcher's own drop
// warnings share standard output; readers skip them). Messages are of
// identifier (0x0100, TYPE) and carry the poster's name and a running number.
//
//   subscribe TYPE [SENDER...]          subscribe the recorder of TYPE     -> ok
//   unsubscribe TYPE [SENDER...]                                            -> ok
//   serve TYPE RANK DEST...             register the service recorder      -> ok | refused
//   unserve TYPE DEST...                                                    -> ok
//   post TYPE COUNT [DEST...]           post COUNT messages                -> posted TRUE FALSE
//   flood TYPE COUNT BYTES              post COUNT messages of BYTES payload -> posted TRUE FALSE
//   synced MS                           waitSynced                          -> synced 0|1
//   wait-sub TYPE present|absent MS     until the subscriptions table shows the key or not -> wait 0|1
//   wait-rank TYPE RANK|none MS DEST... until the services table shows that lowest rank -> wait 0|1
//   wait-received sub|svc TYPE ORIGIN N MS  until N messages of ORIGIN arrived -> wait 0|1
//   received sub|svc TYPE              per origin: origin NAME COUNT DUPLICATES DISORDERED, then end
//   stats                               peer ID EPOCH CONNECTED SYNCED SENT RECEIVED REFUSED DROPPED
//                                       RECONNECTS HANDSHAKEFAILURES per peer, then
//                                       bridge REJECTED MALFORMED STRAY DELIVERYERRORS, then end
//   rss                                 resident memory                     -> rss KIB
//   quit                                stop the bridge                      -> bye
//
// At start it prints "KN ready ENDPOINT EPOCH".

#include <kest/metadata/Element.h>
#include <kest/model/Forwarder.h>
#include <kest/model/Identifier.h>
#include <kest/model/MessageKey.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/net/Bridge.h>
#include <kest/net/GenericMessage.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageKey;

// One line, written whole, so that it is never interleaved with the
// dispatcher's warnings.
void say(const std::string& line) {
    const std::string whole = "KN " + line + "\n";
    std::fwrite(whole.data(), 1, whole.size(), stdout);
    std::fflush(stdout);
}

Identifier typeId(unsigned long type) { return Identifier(0x0100, static_cast<std::uint16_t>(type)); }

// Counts what arrives, per origin, and wakes waiters.
class Recorder {
public:
    Recorder()
        : queue_(std::make_shared<MessageCallback>([this](const std::shared_ptr<const Message>& message) {
              record(*message);
          })) {}

    const std::shared_ptr<MessageCallback>& queue() const { return queue_; }

    bool waitFor(const std::string& origin, std::uint64_t count, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            auto found = origins_.find(origin);
            return found != origins_.end() && found->second.count >= count;
        });
    }

    std::vector<std::string> report() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> lines;
        for (const auto& [name, o] : origins_) {
            lines.push_back("origin " + name + " " + std::to_string(o.count) + " " + std::to_string(o.duplicates) +
                            " " + std::to_string(o.disordered));
        }
        return lines;
    }

private:
    struct Origin {
        std::uint64_t count = 0;
        std::uint64_t duplicates = 0;
        std::uint64_t disordered = 0;
        std::optional<unsigned long> last;
    };

    void record(const Message& message) {
        const auto* generic = dynamic_cast<const Kest::Net::GenericMessage*>(&message);
        std::string from = "?";
        unsigned long n = 0;
        if (generic != nullptr) {
            Kest::MetaData::GetAs(generic->tree()["From"], from);
            Kest::MetaData::GetAs(generic->tree()["N"], n);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        Origin& o = origins_[from];
        if (!identities_.insert(message.identity()).second) ++o.duplicates;
        if (o.last && n <= *o.last) ++o.disordered;
        o.last = n;
        ++o.count;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Origin> origins_;  // guarded by mutex_
    std::set<std::string> identities_;       // guarded by mutex_
    std::shared_ptr<MessageCallback> queue_;
};

// Wakes waiters on every change of the dispatcher's tables.
class TableWatcher {
public:
    explicit TableWatcher(const std::shared_ptr<MessageDispatcher>& dispatcher)
        : dispatcher_(dispatcher),
          queue_(std::make_shared<MessageCallback>([this](const std::shared_ptr<const Message>&) {
              std::lock_guard<std::mutex> lock(mutex_);
              ++changes_;
              changed_.notify_all();
          })) {
        namespace Fwd = Kest::Msgs::Communications::Forwarder;
        for (std::uint16_t type : {5, 6, 9, 10}) dispatcher->subscribe(queue_, {}, Identifier(Fwd::Category, type));
    }

    template <class Condition>
    bool waitUntil(Condition condition, std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            const std::uint64_t seen = changes_;
            lock.unlock();
            if (condition()) return true;
            lock.lock();
            if (!changed_.wait_until(lock, deadline, [&] { return changes_ != seen; })) {
                lock.unlock();
                return condition();
            }
        }
    }

    bool hasSubscribers(unsigned long type) {
        MessageDispatcher::SubscriptionsTable table;
        dispatcher_->getSubscriptionsTable(table);
        auto found = table.find(MessageKey(static_cast<unsigned long>(typeId(type)), {}, {}, MessageKey::HashFunction()));
        return found != table.end() && found->second > 0;
    }

    std::optional<std::uint64_t> lowestRank(unsigned long type, const std::vector<std::string>& destination) {
        MessageDispatcher::ServicesTable table;
        dispatcher_->getServicesTable(table);
        auto found = table.find(
            MessageKey(static_cast<unsigned long>(typeId(type)), {}, destination, MessageKey::HashFunction()));
        if (found == table.end()) return std::nullopt;
        return found->second.lowestRank;
    }

private:
    std::shared_ptr<MessageDispatcher> dispatcher_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t changes_ = 0;  // guarded by mutex_
    std::shared_ptr<MessageCallback> queue_;
};

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

std::vector<std::string> rest(std::istringstream& in) {
    std::vector<std::string> words;
    std::string word;
    while (in >> word) words.push_back(word);
    return words;
}

}  // namespace

int main(int argc, char** argv) {
    Kest::Net::BridgeOptions options;
    std::string name = "node";
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string flag = argv[i];
        const std::string value = argv[i + 1];
        if (flag == "--name") name = value;
        else if (flag == "--listen") options.listen = value;
        else if (flag == "--peer") options.peers.push_back(value);
        else if (flag == "--advertise") options.advertise = value;
        else if (flag == "--curve-secret") options.curveSecretKey = value;
        else if (flag == "--curve-allow") options.curveAllow.push_back(value);
        else if (flag == "--send-buffer") options.sendBuffer = std::stoul(value);
        else if (flag == "--heartbeat-ms") options.heartbeatInterval = std::chrono::milliseconds(std::stol(value));
        else if (flag == "--peer-timeout-ms") options.peerTimeout = std::chrono::milliseconds(std::stol(value));
        else if (flag == "--linger-ms") options.linger = std::chrono::milliseconds(std::stol(value));
        else {
            std::cerr << "bridge_node: unknown flag " << flag << "\n";
            return 2;
        }
    }

    auto dispatcher = std::make_shared<MessageDispatcher>();
    TableWatcher watcher(dispatcher);
    std::map<unsigned long, Recorder> subscribers;
    std::map<unsigned long, Recorder> services;
    Kest::Net::Bridge bridge(dispatcher, options);
    try {
        bridge.start();
    } catch (const std::exception& e) {
        say(std::string("error ") + e.what());
        return 1;
    }
    say("ready " + bridge.endpoint() + " " + std::to_string(bridge.epoch()));

    unsigned long next = 0;  // the running number of this node's messages
    std::string line;
    while (std::getline(std::cin, line)) {
        std::istringstream in(line);
        std::string command;
        in >> command;
        if (command == "subscribe" || command == "unsubscribe") {
            unsigned long type = 0;
            in >> type;
            const auto sender = rest(in);
            if (command == "subscribe") {
                dispatcher->subscribe(subscribers[type].queue(), sender, typeId(type));
            } else {
                dispatcher->unsubscribe(subscribers[type].queue(), sender, typeId(type));
            }
            say("ok");
        } else if (command == "serve") {
            unsigned long type = 0;
            unsigned long rank = 0;
            in >> type >> rank;
            say(dispatcher->registerService(services[type].queue(), rest(in), typeId(type), rank) ? "ok" : "refused");
        } else if (command == "unserve") {
            unsigned long type = 0;
            in >> type;
            dispatcher->unregisterService(services[type].queue(), rest(in), typeId(type));
            say("ok");
        } else if (command == "post" || command == "flood") {
            unsigned long type = 0;
            unsigned long count = 0;
            in >> type >> count;
            std::optional<std::vector<std::string>> destination;
            std::size_t bytes = 0;
            if (command == "post") {
                auto words = rest(in);
                if (!words.empty()) destination = words;
            } else {
                in >> bytes;
            }
            unsigned long accepted = 0;
            unsigned long refused = 0;
            for (unsigned long i = 0; i < count; ++i) {
                Kest::MetaData::Element payload(Kest::MetaData::Object{});
                payload["N"] = Kest::MetaData::Element(next++);
                payload["From"] = Kest::MetaData::Element(name);
                if (bytes > 0) payload["Load"] = Kest::MetaData::Element(std::string(bytes, 'x'));
                auto message = std::make_shared<Kest::Net::GenericMessage>(
                    typeId(type), std::vector<std::string>{name}, destination, std::move(payload));
                (dispatcher->postMessage(message, nullptr) ? accepted : refused) += 1;
            }
            say("posted " + std::to_string(accepted) + " " + std::to_string(refused));
        } else if (command == "synced") {
            long ms = 0;
            in >> ms;
            say(std::string("synced ") + (bridge.waitSynced(std::chrono::milliseconds(ms)) ? "1" : "0"));
        } else if (command == "wait-sub") {
            unsigned long type = 0;
            std::string state;
            long ms = 0;
            in >> type >> state >> ms;
            const bool present = state == "present";
            const bool ok = watcher.waitUntil([&] { return watcher.hasSubscribers(type) == present; },
                                              std::chrono::milliseconds(ms));
            say(std::string("wait ") + (ok ? "1" : "0"));
        } else if (command == "wait-rank") {
            unsigned long type = 0;
            std::string rank;
            long ms = 0;
            in >> type >> rank >> ms;
            const auto destination = rest(in);
            const bool ok = watcher.waitUntil(
                [&] {
                    const auto lowest = watcher.lowestRank(type, destination);
                    return rank == "none" ? !lowest.has_value() : lowest && std::to_string(*lowest) == rank;
                },
                std::chrono::milliseconds(ms));
            say(std::string("wait ") + (ok ? "1" : "0"));
        } else if (command == "wait-received") {
            std::string kind;
            unsigned long type = 0;
            std::string origin;
            std::uint64_t count = 0;
            long ms = 0;
            in >> kind >> type >> origin >> count >> ms;
            Recorder& recorder = kind == "svc" ? services[type] : subscribers[type];
            say(std::string("wait ") + (recorder.waitFor(origin, count, std::chrono::milliseconds(ms)) ? "1" : "0"));
        } else if (command == "received") {
            std::string kind;
            unsigned long type = 0;
            in >> kind >> type;
            Recorder& recorder = kind == "svc" ? services[type] : subscribers[type];
            for (const std::string& l : recorder.report()) say(l);
            say("end");
        } else if (command == "stats") {
            for (const auto& peer : bridge.peers()) {
                const auto& c = peer.counters;
                say("peer " + peer.id + " " + std::to_string(peer.epoch) + " " + (peer.connected ? "1" : "0") + " " +
                    (peer.synced ? "1" : "0") + " " + std::to_string(c.sent) + " " + std::to_string(c.received) +
                    " " + std::to_string(c.refused) + " " + std::to_string(c.dropped) + " " +
                    std::to_string(c.reconnects) + " " + std::to_string(c.handshakeFailures));
            }
            const auto b = bridge.counters();
            say("bridge " + std::to_string(b.rejectedConnections) + " " + std::to_string(b.malformed) + " " +
                std::to_string(b.strayMessages) + " " + std::to_string(b.deliveryErrors));
            say("end");
        } else if (command == "rss") {
            say("rss " + std::to_string(residentKiB()));
        } else if (command == "quit") {
            bridge.stop();
            say("bye");
            break;
        } else if (!command.empty()) {
            say("unknown " + command);
        }
    }
    bridge.stop();
    return 0;
}
