// Fuzz target: sequences of table operations and posts on one dispatcher,
// checked step by step against a small reference model of the routing rules.
//
// Queues: two MessageQueues, two MessageQueue_FixedDepth of depth 1 to 3
// (the input chooses), and an observer, a MessageQueue subscribed from the
// start to the four notification kinds as a forwarder would be, never touched
// by the fuzzed operations, so that it sees every notification. Identifiers:
// two ordinary ones and the four notification kinds (queues may subscribe to
// notifications and register services for them too). Addresses: paths of
// depth 0 to 3 over {"a", "b"}, so that prefixes collide. Ranks 0, 1, 2, 5.
//
// The model keeps the tables as plain ordered containers and each queue's
// expected contents, and predicts for every operation its result, which
// queues receive each posted message and each notification (exactly once;
// sender excluded; the lowest accepting rank of every covering service
// entry, equal ranks in registration order; a full fixed-depth queue refuses
// and the next rank is tried), the drop warnings with their trace lines, the
// notifications (kind, key, count, rank; the changed queue excluded), and the
// table snapshots, and which re-posted messages the history still refuses
// (floods of unrouted posts push old identities out of it).
//
// unsubscribeFromAll and unregisterAll visit the table in its hash order,
// which the model cannot know: it takes the order of the keys from the
// observer's notifications, checks that they are exactly the keys expected,
// and predicts everything else in that order.
//
// Every difference aborts, with the operation log on stderr.

#include <kest/model/Forwarder.h>
#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Identifier.h>
#include <kest/model/Message.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/model/MessageKey.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include "FuzzSupport.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageDispatcherInterface;
using Kest::Msgs::MessageKey;
using Kest::Msgs::MessageQueue;
using Kest::Msgs::MessageQueue_FixedDepth;
using Kest::Msgs::MessageQueueInterface;
using KestFuzz::FuzzInput;

namespace Forwarder = Kest::Msgs::Communications::Forwarder;

using Address = std::vector<std::string>;
using MessagePtr = std::shared_ptr<const Message>;
using QueuePtr = std::shared_ptr<MessageQueueInterface>;

constexpr int kFuzzedQueues = 4;  // 0, 1 unbounded; 2, 3 fixed depth
constexpr int kObserver = 4;
constexpr int kQueueCount = 5;
constexpr int kNoQueue = -1;  // an empty queue pointer
constexpr int kMaxOperations = 300;
constexpr std::uint64_t kHistoryLength = 10000;
constexpr unsigned long kAllOnes = std::numeric_limits<unsigned long>::max();

const std::string kDropWarning = "PLOX!!!! Warning ---- dropping msg\n";

unsigned long noticeId(unsigned short kind) { return Identifier(Forwarder::Category, kind); }

const unsigned long kIdentifiers[] = {Identifier(1, 1), Identifier(1, 2), noticeId(5),
                                      noticeId(6),      noticeId(9),      noticeId(10)};
const unsigned long kRanks[] = {0, 1, 2, 5};
const unsigned long kUnrouted = Identifier(2, 2);  // in no table, ever

bool isPrefix(const Address& prefix, const Address& address) {
    return prefix.size() <= address.size() && std::equal(prefix.begin(), prefix.end(), address.begin());
}

std::string describe(const Address& address) {
    std::string out;
    for (const std::string& part : address) out += "[" + part + "]";
    return out.empty() ? "<root>" : out;
}

std::string describeId(unsigned long id) {
    return std::to_string(Identifier(id).category()) + ":" + std::to_string(Identifier(id).type());
}

std::string queueName(int q) {
    if (q == kNoQueue) return "null";
    if (q == kObserver) return "observer";
    return "q" + std::to_string(q);
}

// A message as the trace prints it, and as routing sees it.
struct Post {
    unsigned long id = 0;
    bool senderSet = false;
    Address sender;
    bool destinationSet = false;
    Address destination;
};

std::string traceAddress(bool set, const Address& address) {
    if (!set) return "<None>";
    std::string out;
    for (const std::string& part : address) out += "[" + part + "]";
    return out;
}

std::string traceLine(const Post& post) {
    return "PLOX message is - : sender = " + traceAddress(post.senderSet, post.sender) +
           ", dest = " + traceAddress(post.destinationSet, post.destination) +
           ", cat = " + std::to_string(Identifier(post.id).category()) +
           ", id = " + std::to_string(Identifier(post.id).type()) + "\n";
}

// What a queue is expected to hold: an ordinary message (that very object),
// or a notification described by its contents.
struct Expected {
    MessagePtr message;
    unsigned short kind = 0;
    unsigned long keyId = 0;
    Address keySender;
    Address keyDestination;
    unsigned long rank = 0;
};

std::string describe(const Expected& e) {
    if (e.message) {
        return "message " + describeId(e.message->id()) + " " + e.message->identity();
    }
    return "notice " + std::to_string(e.kind) + " key " + describeId(e.keyId) + " " +
           describe(e.keySender) + " -> " + describe(e.keyDestination) + " rank " +
           std::to_string(e.rank);
}

std::string describe(const MessagePtr& m) {
    if (!m) return "null";
    std::string out = "message " + describeId(m->id());
    try {
        if (const Forwarder::ServiceData* p = Forwarder::notificationPayload(*m)) {
            out += " notice key " + describeId(p->key().id()) + " " + describe(p->key().sender()) +
                   " -> " + describe(p->key().destination()) + " count " +
                   std::to_string(p->count()) + " rank " + std::to_string(p->rank());
        } else {
            out += " " + m->identity();
        }
    } catch (const std::exception& e) {
        out += std::string(" (unreadable: ") + e.what() + ")";
    }
    return out;
}

bool matches(const MessagePtr& actual, const Expected& expected) {
    if (!actual) return false;
    if (expected.message) return actual.get() == expected.message.get();
    try {
        if (actual->id() != Identifier(noticeId(expected.kind))) return false;
        if (!actual->sender.initialized() || !actual->sender().empty()) return false;
        if (!actual->destination.initialized() || !actual->destination().empty()) return false;
        if (!actual->identity.initialized()) return false;
        const Forwarder::ServiceData* payload = Forwarder::notificationPayload(*actual);
        if (payload == nullptr) return false;
        const Kest::Msgs::Structs::MessageKeyData& key = payload->key();
        return static_cast<unsigned long>(key.id()) == expected.keyId &&
               key.sender() == expected.keySender && key.destination() == expected.keyDestination &&
               payload->count() == 1 && payload->rank() == expected.rank;
    } catch (const std::exception&) {
        return false;  // an unset field where one must be set
    }
}

// ---------------------------------------------------------------------------
// The reference model.

using Key = std::pair<unsigned long, Address>;  // identifier and the address of its side

struct ModelQueue {
    bool bounded = false;
    unsigned depth = 0;
    std::deque<Expected> held;

    bool accepts() const { return !bounded || held.size() < depth; }
};

class Model {
public:
    std::map<Key, std::set<int>> subscriptions;
    std::map<Key, std::vector<std::pair<unsigned long, int>>> services;  // in delivery order
    ModelQueue queues[kQueueCount];
    std::uint64_t handled = 0;  // identities accepted so far
    std::string output;         // the lines expected on std::cout

    // An accepted post (its identity new): delivers and returns the result.
    bool deliver(const Post& post, int excluded, const Expected& item) {
        ++handled;
        std::set<int> served;
        if (excluded != kNoQueue) served.insert(excluded);
        auto offer = [&](int q) {
            if (served.count(q) != 0) return true;
            if (queues[q].accepts()) {
                queues[q].held.push_back(item);
                served.insert(q);
                return true;
            }
            output += kDropWarning + traceLine(post);
            return false;
        };
        const Address& sender = post.sender;  // empty when unset
        for (const auto& [key, members] : subscriptions) {
            if (key.first != post.id || !isPrefix(key.second, sender)) continue;
            for (int q : members) offer(q);
        }
        if (!post.destinationSet) return true;
        bool covered = false;
        bool ok = true;
        for (const auto& [key, ranked] : services) {
            if (key.first != post.id || !isPrefix(key.second, post.destination)) continue;
            covered = true;
            bool taken = false;
            for (const auto& entry : ranked) {
                if (offer(entry.second)) {
                    taken = true;
                    break;
                }
            }
            if (!taken) ok = false;
        }
        return covered && ok;
    }

    void notify(unsigned short kind, const Key& key, bool serviceKey, unsigned long rank, int changed) {
        Post post;
        post.id = noticeId(kind);
        post.senderSet = true;
        post.destinationSet = true;
        Expected item;
        item.kind = kind;
        item.keyId = key.first;
        (serviceKey ? item.keyDestination : item.keySender) = key.second;
        item.rank = rank;
        deliver(post, changed, item);
    }

    bool subscribe(int q, const Key& key) {
        if (q == kNoQueue) return false;
        std::set<int>& members = subscriptions[key];
        if (!members.insert(q).second) return true;
        notify(9, key, false, 0, q);
        return true;
    }

    bool unsubscribe(int q, const Key& key) {
        auto found = subscriptions.find(key);
        if (found == subscriptions.end()) return true;
        if (found->second.erase(q) != 0) notify(10, key, false, 0, q);
        if (found->second.empty()) subscriptions.erase(found);
        return true;
    }

    std::vector<Key> subscriptionKeysOf(int q) const {
        std::vector<Key> keys;
        for (const auto& [key, members] : subscriptions) {
            if (members.count(q) != 0) keys.push_back(key);
        }
        return keys;
    }

    // `order`: the keys in the order the dispatcher visited them.
    bool unsubscribeFromAll(int q, const std::vector<Key>& order) {
        for (const Key& key : order) unsubscribe(q, key);
        return true;
    }

    bool registerService(int q, const Key& key, unsigned long rank) {
        auto found = services.find(key);
        if (found == services.end()) {
            services[key].push_back({rank, q});
            notify(5, key, true, rank, q);
            return true;
        }
        auto& ranked = found->second;
        if (!ranked.empty() && ranked.front().first == 0) return false;
        bool changed = !ranked.empty() && rank < ranked.front().first;
        for (auto it = ranked.begin(); it != ranked.end(); ++it) {
            if (it->second != q) continue;
            if (it->first == rank) return true;
            ranked.erase(it);
            changed = true;
            break;
        }
        auto place = std::find_if(ranked.begin(), ranked.end(),
                                  [&](const std::pair<unsigned long, int>& e) { return e.first > rank; });
        ranked.insert(place, {rank, q});
        if (changed) {
            notify(5, key, true, ranked.front().first, q);
            notify(6, key, true, kAllOnes, q);
        }
        return true;
    }

    bool unregisterService(int q, const Key& key) {
        auto found = services.find(key);
        if (found == services.end()) return true;
        auto& ranked = found->second;
        for (auto it = ranked.begin(); it != ranked.end(); ++it) {
            if (it->second != q) continue;
            ranked.erase(it);
            if (!ranked.empty()) notify(5, key, true, ranked.front().first, q);
            notify(6, key, true, kAllOnes, q);
            break;
        }
        if (ranked.empty()) services.erase(found);
        return true;
    }

    std::vector<Key> serviceKeysOf(int q) const {
        std::vector<Key> keys;
        for (const auto& [key, ranked] : services) {
            for (const auto& entry : ranked) {
                if (entry.second == q) {
                    keys.push_back(key);
                    break;
                }
            }
        }
        return keys;
    }

    bool unregisterAll(int q, const std::vector<Key>& order) {
        for (const Key& key : order) unregisterService(q, key);
        return true;
    }

    std::map<Key, unsigned> subscriptionCounts() const {
        std::map<Key, unsigned> counts;
        for (const auto& [key, members] : subscriptions) {
            if (!members.empty()) counts[key] = static_cast<unsigned>(members.size());
        }
        return counts;
    }

    std::map<Key, std::pair<std::uint64_t, std::uint64_t>> serviceInfos() const {
        std::map<Key, std::pair<std::uint64_t, std::uint64_t>> infos;
        for (const auto& [key, ranked] : services) {
            if (!ranked.empty()) infos[key] = {ranked.size(), ranked.front().first};
        }
        return infos;
    }
};

// ---------------------------------------------------------------------------
// The run: decodes operations, applies them to the dispatcher and the model,
// and compares after each one.

class Run {
public:
    explicit Run(FuzzInput& input) : input_(input) {
        const std::uint8_t depths = input_.byte();
        for (int q = 0; q < kQueueCount; ++q) {
            if (q == 2 || q == 3) {
                const unsigned depth = 1 + ((q == 2 ? depths : depths >> 4) & 0xF) % 3;
                fixed_[q - 2] = std::make_shared<MessageQueue_FixedDepth>(depth);
                queues_[q] = fixed_[q - 2];
                model_.queues[q].bounded = true;
                model_.queues[q].depth = depth;
            } else {
                queues_[q] = std::make_shared<MessageQueue>();
            }
            log("queue " + queueName(q) +
                (model_.queues[q].bounded ? " depth " + std::to_string(model_.queues[q].depth) : ""));
        }
        for (int q = 0; q < kQueueCount; ++q) baseUseCount_[q] = queues_[q].use_count();

        dispatcher_ = std::make_shared<MessageDispatcher>();
        for (unsigned short kind : {9, 10, 5, 6}) {
            const Key key{noticeId(kind), {}};
            const bool result = dispatcher_->subscribe(queues_[kObserver], {}, Identifier(key.first));
            compare("observer subscribes", result, model_.subscribe(kObserver, key));
        }
    }

    void operations() {
        for (int n = 0; n < kMaxOperations && !input_.exhausted(); ++n) operation();
        finish();
        // For reading what an input does: KEST_FUZZ_TRACE=1 <target>_replay FILE
        if (std::getenv("KEST_FUZZ_TRACE") != nullptr) std::fprintf(stderr, "%s", log_.c_str());
    }

private:
    // --- decoding -----------------------------------------------------------

    int anyQueue() {  // a fuzzed queue or the empty pointer
        const unsigned choice = input_.pick(kFuzzedQueues + 1);
        return choice == kFuzzedQueues ? kNoQueue : static_cast<int>(choice);
    }
    int fuzzedQueue() { return static_cast<int>(input_.pick(kFuzzedQueues)); }
    unsigned long identifier() { return kIdentifiers[input_.pick(6)]; }
    unsigned long rank() { return kRanks[input_.pick(4)]; }
    Address address() {
        const std::uint8_t bits = input_.byte();
        Address a;
        for (unsigned i = 0; i < bits % 4u; ++i) a.push_back(((bits >> (2 + i)) & 1) != 0 ? "b" : "a");
        return a;
    }
    QueuePtr pointer(int q) const { return q == kNoQueue ? QueuePtr() : queues_[q]; }

    // --- checking -----------------------------------------------------------

    void log(const std::string& line) { log_ += line + "\n"; }

    [[noreturn]] void fail(const std::string& what) const {
        KestFuzz::fail("routing model disagrees: " + what + "\noperations so far:\n" + log_);
    }

    void compare(const std::string& what, bool actual, bool expected) const {
        if (actual != expected) {
            fail(what + ": result " + (actual ? "true" : "false") + ", expected " +
                 (expected ? "true" : "false"));
        }
    }

    void compareMessages(const std::string& what, const std::list<MessagePtr>& actual,
                         std::deque<Expected>& expected) const {
        bool same = actual.size() == expected.size();
        auto e = expected.begin();
        for (auto a = actual.begin(); same && a != actual.end(); ++a, ++e) same = matches(*a, *e);
        if (!same) {
            std::string text = what + ": queue content differs\n  got:\n";
            for (const MessagePtr& m : actual) text += "    " + describe(m) + "\n";
            text += "  expected:\n";
            for (const Expected& x : expected) text += "    " + describe(x) + "\n";
            fail(text);
        }
        expected.clear();
    }

    std::list<MessagePtr> drain(int q) {
        std::list<MessagePtr> taken;
        queues_[q]->takeAllAvailableMessages(taken);
        return taken;
    }

    // The keys named by the observer's notices, each once, in order of appearance.
    std::vector<Key> noticedKeys(const std::list<MessagePtr>& notices, bool serviceSide) const {
        std::vector<Key> keys;
        for (const MessagePtr& m : notices) {
            const Forwarder::ServiceData* payload = m ? Forwarder::notificationPayload(*m) : nullptr;
            if (payload == nullptr) fail("the observer got a non-notice: " + describe(m));
            Key key;
            try {
                key = {payload->key().id(),
                       serviceSide ? payload->key().destination() : payload->key().sender()};
            } catch (const std::exception& e) {
                fail(std::string("notice with an unset key: ") + e.what());
            }
            if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
        }
        return keys;
    }

    void checkSameKeys(const std::string& what, std::vector<Key> noticed, std::vector<Key> expected) const {
        std::sort(noticed.begin(), noticed.end());
        std::sort(expected.begin(), expected.end());
        if (noticed != expected) {
            std::string text = what + ": notices name the keys";
            for (const Key& k : noticed) text += " " + describeId(k.first) + describe(k.second);
            text += ", expected";
            for (const Key& k : expected) text += " " + describeId(k.first) + describe(k.second);
            fail(text);
        }
    }

    void checkTables(const std::string& what) const {
        MessageDispatcherInterface::SubscriptionsTable subscriptions;
        const std::size_t subscriptionCount = dispatcher_->getSubscriptionsTable(subscriptions);
        std::map<Key, unsigned> actualCounts;
        for (const auto& [key, count] : subscriptions) {
            if (!key.destination().empty()) fail(what + ": a subscription key with a destination");
            actualCounts[{key.id(), key.sender()}] = count;
        }
        if (subscriptionCount != subscriptions.size() || actualCounts.size() != subscriptions.size() ||
            actualCounts != model_.subscriptionCounts()) {
            fail(what + ": subscriptions table differs");
        }

        MessageDispatcherInterface::ServicesTable services;
        const std::size_t serviceCount = dispatcher_->getServicesTable(services);
        std::map<Key, std::pair<std::uint64_t, std::uint64_t>> actualInfos;
        for (const auto& [key, info] : services) {
            if (!key.sender().empty()) fail(what + ": a service key with a sender");
            actualInfos[{key.id(), key.destination()}] = {info.queueCount, info.lowestRank};
        }
        if (serviceCount != services.size() || actualInfos.size() != services.size() ||
            actualInfos != model_.serviceInfos()) {
            std::string text = what + ": services table differs; got";
            for (const auto& [k, v] : actualInfos) {
                text += " " + describeId(k.first) + describe(k.second) + "=" + std::to_string(v.first) +
                        "/" + std::to_string(v.second);
            }
            text += "; expected";
            for (const auto& [k, v] : model_.serviceInfos()) {
                text += " " + describeId(k.first) + describe(k.second) + "=" + std::to_string(v.first) +
                        "/" + std::to_string(v.second);
            }
            fail(text);
        }
    }

    // After every operation: printed lines, the observer's notices, the
    // other queues' counts; after those that change tables, the tables.
    void checkAfter(const std::string& what, std::string printed, const std::list<MessagePtr>* noticed,
                    bool tablesChanged) {
        if (printed != model_.output) {
            fail(what + ": printed\n" + printed + "expected\n" + model_.output);
        }
        model_.output.clear();
        if (noticed != nullptr) {
            compareMessages(what + ", observer", *noticed, model_.queues[kObserver].held);
        } else {
            compareMessages(what + ", observer", drain(kObserver), model_.queues[kObserver].held);
        }
        for (int q = 0; q < kFuzzedQueues; ++q) {
            const unsigned count = queues_[q]->getAvailableMessagesCount();
            if (count != model_.queues[q].held.size()) {
                fail(what + ": " + queueName(q) + " holds " + std::to_string(count) + ", expected " +
                     std::to_string(model_.queues[q].held.size()));
            }
        }
        if (tablesChanged) checkTables(what);
    }

    // --- operations ---------------------------------------------------------

    void operation() {
        KestFuzz::CapturedOutput output;
        const std::list<MessagePtr>* noticed = nullptr;
        std::list<MessagePtr> notices;
        std::string what;

        const unsigned kind = input_.pick(16);
        switch (kind) {
            case 0:
            case 1: {
                const int q = anyQueue();
                const Key key{identifier(), address()};
                what = "subscribe " + queueName(q) + " " + describeId(key.first) + describe(key.second);
                log(what);
                compare(what, dispatcher_->subscribe(pointer(q), key.second, Identifier(key.first)),
                        model_.subscribe(q, key));
                break;
            }
            case 2: {
                const int q = anyQueue();
                const Key key{identifier(), address()};
                what = "unsubscribe " + queueName(q) + " " + describeId(key.first) + describe(key.second);
                log(what);
                compare(what, dispatcher_->unsubscribe(pointer(q), key.second, Identifier(key.first)),
                        model_.unsubscribe(q, key));
                break;
            }
            case 3: {
                const int q = anyQueue();
                what = "unsubscribeFromAll " + queueName(q);
                log(what);
                const bool result = dispatcher_->unsubscribeFromAll(pointer(q));
                notices = drain(kObserver);
                const std::vector<Key> order = noticedKeys(notices, false);
                checkSameKeys(what, order, model_.subscriptionKeysOf(q));
                compare(what, result, model_.unsubscribeFromAll(q, order));
                noticed = &notices;
                break;
            }
            case 4:
            case 5: {
                const int q = fuzzedQueue();
                const Key key{identifier(), address()};
                const unsigned long r = rank();
                what = "registerService " + queueName(q) + " " + describeId(key.first) +
                       describe(key.second) + " rank " + std::to_string(r);
                log(what);
                compare(what, dispatcher_->registerService(pointer(q), key.second, Identifier(key.first), r),
                        model_.registerService(q, key, r));
                break;
            }
            case 6: {
                const int q = anyQueue();
                const Key key{identifier(), address()};
                what = "unregisterService " + queueName(q) + " " + describeId(key.first) +
                       describe(key.second);
                log(what);
                compare(what,
                        dispatcher_->unregisterService(pointer(q), key.second, Identifier(key.first)),
                        model_.unregisterService(q, key));
                break;
            }
            case 7: {
                const int q = anyQueue();
                what = "unregisterAll " + queueName(q);
                log(what);
                const bool result = dispatcher_->unregisterAll(pointer(q));
                notices = drain(kObserver);
                const std::vector<Key> order = noticedKeys(notices, true);
                checkSameKeys(what, order, model_.serviceKeysOf(q));
                compare(what, result, model_.unregisterAll(q, order));
                noticed = &notices;
                break;
            }
            case 8:
            case 9:
            case 10:
                what = postNew();
                break;
            case 11:
                what = postAgain();
                break;
            case 12: {
                const int q = fuzzedQueue();
                what = "take one from " + queueName(q);
                log(what);
                std::list<MessagePtr> taken;
                taken.push_back(queues_[q]->getMessage(std::chrono::milliseconds(0)));
                if (!taken.front()) taken.clear();
                std::deque<Expected>& held = model_.queues[q].held;
                std::deque<Expected> front;
                if (!held.empty()) {
                    front.push_back(held.front());
                    held.pop_front();
                }
                compareMessages(what, taken, front);
                break;
            }
            case 13: {
                const int q = fuzzedQueue();
                what = "drain " + queueName(q);
                log(what);
                compareMessages(what, drain(q), model_.queues[q].held);
                break;
            }
            case 14: {
                const int q = anyQueue();
                what = "disconnectQueue " + queueName(q);
                log(what);
                const std::vector<Key> subscribed = model_.subscriptionKeysOf(q);
                const std::vector<Key> registered = model_.serviceKeysOf(q);
                const bool result = dispatcher_->disconnectQueue(pointer(q));
                notices = drain(kObserver);
                // The subscriptions go first, announced by kind 10 alone.
                std::list<MessagePtr> removals;
                std::list<MessagePtr> unregistrations = notices;
                while (!unregistrations.empty() && unregistrations.front() &&
                       unregistrations.front()->id() == Identifier(noticeId(10))) {
                    removals.push_back(unregistrations.front());
                    unregistrations.pop_front();
                }
                const std::vector<Key> subscriptionOrder = noticedKeys(removals, false);
                const std::vector<Key> serviceOrder = noticedKeys(unregistrations, true);
                checkSameKeys(what + " (subscriptions)", subscriptionOrder, subscribed);
                checkSameKeys(what + " (services)", serviceOrder, registered);
                model_.unsubscribeFromAll(q, subscriptionOrder);
                model_.unregisterAll(q, serviceOrder);
                compare(what, result, true);
                noticed = &notices;
                break;
            }
            default:
                what = miscellaneous();
                break;
        }
        // Posts, reads and the rest leave the tables alone; the next table
        // operation compares them anyway.
        checkAfter(what, output.take(), noticed, kind < 8 || kind == 14);
    }

    std::string postNew() {
        Post post;
        post.id = identifier();
        const unsigned form = input_.pick(3);
        const Address sender = address();
        const Address destination = address();
        const int from = senderQueue();
        std::shared_ptr<Message> message;
        if (form == 0) {
            message = std::make_shared<Message>(Identifier(post.id));
        } else if (form == 1) {
            message = std::make_shared<Message>(Identifier(post.id), sender);
        } else {
            message = std::make_shared<Message>(Identifier(post.id), sender, destination);
        }
        if (form >= 1) {
            post.senderSet = true;
            post.sender = sender;
        }
        if (form == 2) {
            post.destinationSet = true;
            post.destination = destination;
        }
        const std::string what = "post " + describeId(post.id) + " from " +
                                 (post.senderSet ? describe(sender) : "<None>") + " to " +
                                 (post.destinationSet ? describe(destination) : "<None>") +
                                 " by " + queueName(from);
        log(what);
        posted_.push_back({message, post, 0});
        return repost(posted_.back(), from, what);
    }

    std::string postAgain() {
        if (posted_.empty()) return "nothing to post again";
        PostedMessage& again = posted_[input_.pick(static_cast<unsigned>(posted_.size()))];
        const int from = senderQueue();
        const std::string what = "post again " + again.message->identity() + " by " + queueName(from);
        log(what);
        return repost(again, from, what);
    }

    struct PostedMessage {
        MessagePtr message;
        Post post;
        std::uint64_t acceptedAs;  // its number in the history when last accepted, 0 if never
    };

    std::string repost(PostedMessage& posted, int from, const std::string& what) {
        const bool remembered =
            posted.acceptedAs != 0 && model_.handled - posted.acceptedAs < kHistoryLength;
        bool expected = false;
        if (!remembered) {
            Expected item;
            item.message = posted.message;
            expected = model_.deliver(posted.post, from, item);
            posted.acceptedAs = model_.handled;
        }
        compare(what, dispatcher_->postMessage(posted.message, pointer(from)), expected);
        return what;
    }

    int senderQueue() {  // a fuzzed queue, the observer, or none
        const unsigned choice = input_.pick(6);
        return choice == 5 ? kNoQueue : static_cast<int>(choice);
    }

    std::string miscellaneous() {
        switch (input_.pick(5)) {
            case 0: {
                const int q = 2 + static_cast<int>(input_.pick(2));
                const unsigned depth = 1 + input_.pick(3);
                const std::string what = "set depth of " + queueName(q) + " to " + std::to_string(depth);
                log(what);
                fixed_[q - 2]->setMaxDepth(depth);
                model_.queues[q].depth = depth;
                return what;
            }
            case 1: {
                const int from = senderQueue();
                const std::string what = "post nothing by " + queueName(from);
                log(what);
                compare(what, dispatcher_->postMessage(MessagePtr(), pointer(from)), false);
                return what;
            }
            case 2: {
                // Snapshots add to what the map holds and keep an entry already there.
                const Key key{identifier(), address()};
                const std::string what = "subscriptions snapshot over " + describeId(key.first) +
                                         describe(key.second);
                log(what);
                MessageDispatcherInterface::SubscriptionsTable out;
                out.emplace(MessageKey(key.first, key.second, {}, {}), 777u);
                const std::size_t size = dispatcher_->getSubscriptionsTable(out);
                std::map<Key, unsigned> expected = model_.subscriptionCounts();
                expected[key] = 777u;
                std::map<Key, unsigned> actual;
                for (const auto& [k, count] : out) actual[{k.id(), k.sender()}] = count;
                if (size != out.size() || actual != expected || out.size() != expected.size()) {
                    fail(what + ": differs");
                }
                return what;
            }
            case 3: {
                // Fresh messages that nothing covers push older identities out of the
                // history, so that posting one of those again is accepted anew.
                const unsigned count = 1000 * (1 + input_.pick(4));
                const std::string what = "flood of " + std::to_string(count) + " unrouted posts";
                log(what);
                for (unsigned i = 0; i < count; ++i) {
                    if (!dispatcher_->postMessage(std::make_shared<const Message>(Identifier(kUnrouted)),
                                                  QueuePtr())) {
                        fail(what + ": post " + std::to_string(i) + " refused");
                    }
                }
                model_.handled += count;
                return what;
            }
            default: {
                const Key key{identifier(), address()};
                const std::string what = "services snapshot over " + describeId(key.first) +
                                         describe(key.second);
                log(what);
                MessageDispatcherInterface::ServicesTable out;
                out.emplace(MessageKey(key.first, {}, key.second, {}),
                            MessageDispatcherInterface::ServiceInfo{777, 778});
                const std::size_t size = dispatcher_->getServicesTable(out);
                auto expected = model_.serviceInfos();
                expected[key] = {777, 778};
                std::map<Key, std::pair<std::uint64_t, std::uint64_t>> actual;
                for (const auto& [k, info] : out) {
                    actual[{k.id(), k.destination()}] = {info.queueCount, info.lowestRank};
                }
                if (size != out.size() || actual != expected || out.size() != expected.size()) {
                    fail(what + ": differs");
                }
                return what;
            }
        }
    }

    // Every queue holds exactly what was predicted; the dispatcher, once
    // gone, holds no queue and printed nothing on the way out.
    void finish() {
        checkTables("at the end");
        for (int q = 0; q < kFuzzedQueues; ++q) {
            compareMessages("final content of " + queueName(q), drain(q), model_.queues[q].held);
        }
        KestFuzz::CapturedOutput output;
        dispatcher_.reset();
        if (!output.take().empty()) fail("the dispatcher printed when destroyed");
        for (int q = 0; q < kQueueCount; ++q) {
            if (queues_[q].use_count() != baseUseCount_[q]) {
                fail("the destroyed dispatcher still holds " + queueName(q));
            }
        }
    }

    FuzzInput& input_;
    Model model_;
    std::shared_ptr<MessageDispatcher> dispatcher_;
    QueuePtr queues_[kQueueCount];
    std::shared_ptr<MessageQueue_FixedDepth> fixed_[2];
    long baseUseCount_[kQueueCount] = {};
    std::vector<PostedMessage> posted_;
    std::string log_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    Run run(input);
    run.operations();
    return 0;
}
