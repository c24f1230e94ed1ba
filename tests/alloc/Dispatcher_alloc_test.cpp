// The dispatcher when memory runs out: the ten operations of its interface,
// unprotected_postMessage, findCovering and dispatchMessage.
//
// The queues are real queues filled to one message short of a new block of
// their storage, so that every put allocates, each behind a thin wrapper
// that notes the order in which the dispatcher tries them. A forwarder
// queue subscribed to the four notifications sees what the table operations
// announce.
//
// After each failure, in this order: another thread can take the
// dispatcher's lock; the tables hold, key by key, either what they held or
// what the complete call leaves; the notifications delivered are the first
// ones of the complete call's, and a post's deliveries are the first ones
// it tried; then the call made again (a table operation) or a repeat of the
// post and a fresh post behave as the guarantee says, and the dispatcher
// routes a probe message exactly as after a call that never failed.
//
// Guarantees (the dispatcher's header states none yet; docs/bad-inputs.md
// lists them): a table operation gives the basic guarantee, its change
// made or not, key by key, and the notifications of one key possibly lost;
// a post gives the basic one, its identity recorded, the queues it tried
// before the failure served and no other; getSubscriptionsTable and
// getServicesTable leave the dispatcher unchanged and may have added some
// correct entries to the caller's map.

#include "AllocHarness.h"
#include "Describe.h"

#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/PostScope.h>
#include <kest/msgs/Routing.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

using namespace KestAlloc;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageKey;
using Kest::Msgs::MessageQueue;
using Kest::Msgs::MessageQueue_FixedDepth;
using Kest::Msgs::MessageQueueInterface;
using QueuePtr = std::shared_ptr<MessageQueueInterface>;
using MessagePtr = std::shared_ptr<const Message>;
using Address = std::vector<std::string>;
using std::chrono::milliseconds;

namespace {

using KestAlloc::describe;

const std::string kLong = "a part of an address beyond the inline buffer of a string";
const Identifier kReading(0x0100, 1);
const Identifier kRequest(0x0100, 2);
const Identifier kOther(0x0100, 3);
constexpr int kFill = 31;  // one short of a new block of a MessageQueue's storage

Identifier noticeId(std::uint16_t type) { return Identifier(Kest::Msgs::Communications::Forwarder::Category, type); }

// The order in which the dispatcher tried the queues. Fixed storage: noting
// an attempt never allocates.
struct DeliveryLog {
    std::array<int, 1024> entries{};
    std::size_t count = 0;
    void add(int index) noexcept {
        if (count < entries.size()) entries[count++] = index;
    }
    std::vector<int> list() const { return std::vector<int>(entries.begin(), entries.begin() + count); }
};

// A real queue behind a wrapper that notes each put before passing it on.
class LoggingQueue : public MessageQueueInterface {
public:
    LoggingQueue(int index, std::shared_ptr<DeliveryLog> log, std::shared_ptr<MessageQueue> inner)
        : index(index), inner(std::move(inner)), log_(std::move(log)) {}
    MessagePtr getMessage(milliseconds timeout) override { return inner->getMessage(timeout); }
    using MessageQueueInterface::getMessage;
    bool putMessage(MessagePtr message) override {
        log_->add(index);
        return inner->putMessage(std::move(message));
    }
    unsigned int getAvailableMessagesCount() const override { return inner->getAvailableMessagesCount(); }

    const int index;
    const std::shared_ptr<MessageQueue> inner;

private:
    std::shared_ptr<DeliveryLog> log_;
};

MessagePtr labelled(const Identifier& id, const Address& sender, std::optional<Address> destination,
                    const std::string& label) {
    auto message = destination ? std::make_shared<Message>(id, sender, *destination)
                               : std::make_shared<Message>(id, sender);
    message->identity.assign(label);
    return message;
}

const MessagePtr& filler() {
    static const MessagePtr message = labelled(Identifier(0x7777, 7), {}, std::nullopt, "filler");
    return message;
}

// A dispatcher, its queues and what one operation needs.
struct World {
    std::shared_ptr<MessageDispatcher> dispatcher = std::make_shared<MessageDispatcher>();
    std::shared_ptr<DeliveryLog> log = std::make_shared<DeliveryLog>();
    std::vector<std::shared_ptr<LoggingQueue>> queues;
    std::set<int> refusing;  // queues that refuse every message (full fixed-depth ones)
    int forwarder = -1;
    MessagePtr message;  // the message the operation posts
    bool result = false;
    MessageDispatcher::SubscriptionsTable subscriptionsOut;
    MessageDispatcher::ServicesTable servicesOut;
    std::size_t size = 0;
    int probes = 0;

    QueuePtr queue(int i) const { return queues.at(static_cast<std::size_t>(i)); }
};

int addQueue(World& w, bool refusing = false) {
    const int index = static_cast<int>(w.queues.size());
    std::shared_ptr<MessageQueue> inner;
    if (refusing) {
        auto full = std::make_shared<MessageQueue_FixedDepth>(1u);
        full->putMessage(filler());
        inner = full;
        w.refusing.insert(index);
    } else {
        inner = std::make_shared<MessageQueue>();
    }
    w.queues.push_back(std::make_shared<LoggingQueue>(index, w.log, inner));
    return index;
}

void attachForwarder(World& w) {
    w.forwarder = addQueue(w);
    for (std::uint16_t type : {9, 10, 5, 6}) w.dispatcher->subscribe(w.queue(w.forwarder), {}, noticeId(type));
}

// Empties every queue and fills the accepting ones to the edge of a block,
// forgets the log and the output: the state every attempt starts from.
void settle(World& w) {
    for (const auto& q : w.queues) {
        while (q->inner->getMessage(milliseconds(0))) {
        }
        const int count = w.refusing.count(q->index) ? 1 : kFill;
        for (int i = 0; i < count; ++i) q->inner->putMessage(filler());
    }
    w.log->count = 0;
    Output::instance().clear();
}

// ---- Descriptions ----------------------------------------------------------

std::string row(const MessageKey& key) { return std::to_string(key.id()) + describe(key.sender()) + describe(key.destination()); }

std::map<std::string, std::string> tableRows(MessageDispatcher& d) {
    std::map<std::string, std::string> rows;
    MessageDispatcher::SubscriptionsTable subscriptions;
    d.getSubscriptionsTable(subscriptions);
    for (const auto& e : subscriptions) rows["subscription " + row(e.first)] = std::to_string(e.second);
    MessageDispatcher::ServicesTable services;
    d.getServicesTable(services);
    for (const auto& e : services) {
        rows["service " + row(e.first)] = std::to_string(e.second.queueCount) + "/" + std::to_string(e.second.lowestRank);
    }
    return rows;
}

std::string describe(const std::map<std::string, std::string>& rows) {
    std::string text;
    for (const auto& r : rows) text += r.first + " = " + r.second + "\n";
    return text;
}

std::string label(const Message& m) {
    if (m.id().category() == Kest::Msgs::Communications::Forwarder::Category) {
        const KestTest::Notice n = KestTest::readNotice(m);
        return "notice" + std::to_string(n.type) + " " + std::to_string(n.keyId) + describe(n.keySender) +
               describe(n.keyDestination) + " rank " + std::to_string(n.rank);
    }
    return m.identity();
}

// What each queue received beyond its filling, oldest first. Takes it out.
std::vector<std::vector<std::string>> takeReceived(World& w) {
    std::vector<std::vector<std::string>> received;
    for (const auto& q : w.queues) {
        std::vector<std::string> labels;
        while (MessagePtr m = q->inner->getMessage(milliseconds(0))) {
            if (m != filler()) labels.push_back(label(*m));
        }
        received.push_back(labels);
    }
    return received;
}

std::string describe(const std::vector<std::string>& labels, const char* separator) {
    std::string text;
    for (const std::string& l : labels) text += l + separator;
    return text;
}

// What a complete call leaves: tables, notifications, the receivers of the
// post, the result, and where a probe message goes afterwards.
struct Outcome {
    std::map<std::string, std::string> rows;
    std::vector<std::vector<std::string>> received;
    std::vector<int> tried;
    std::string output;
    bool result = false;
    std::string probe;
};

using Probe = std::function<std::string(World&)>;

Outcome outcome(World& w, const Probe& probe) {
    Outcome o;
    o.rows = tableRows(*w.dispatcher);
    o.tried = w.log->list();
    o.output = output();
    o.received = takeReceived(w);
    o.result = w.result;
    w.log->count = 0;
    o.probe = probe ? probe(w) : "";
    return o;
}

// Posts a fresh message like `shape` and describes who received it.
std::string probeWith(World& w, const Identifier& id, const Address& sender, std::optional<Address> destination) {
    w.log->count = 0;
    const bool posted = w.dispatcher->postMessage(
        labelled(id, sender, destination, "probe" + std::to_string(++w.probes)), nullptr);
    std::string text = posted ? "true:" : "false:";
    const auto received = takeReceived(w);
    for (std::size_t i = 0; i < received.size(); ++i) {
        if (!received[i].empty()) text += " q" + std::to_string(i) + "(" + describe(received[i], ",") + ")";
    }
    return text;
}

void checkLockFree(const World& w) {
    check(answersFromAnotherThread([d = w.dispatcher] {
              MessageDispatcher::SubscriptionsTable t;
              d->getSubscriptionsTable(t);
          }),
          "another thread cannot take the dispatcher's lock");
}

// Each table row holds what it held or what the complete call leaves.
void checkRowsBetween(const std::map<std::string, std::string>& now, const std::map<std::string, std::string>& before,
                      const std::map<std::string, std::string>& after) {
    std::set<std::string> keys;
    for (const auto& r : now) keys.insert(r.first);
    for (const auto& r : before) keys.insert(r.first);
    for (const auto& r : after) keys.insert(r.first);
    for (const std::string& key : keys) {
        const auto value = [&key](const std::map<std::string, std::string>& rows) {
            auto it = rows.find(key);
            return it == rows.end() ? std::string("absent") : it->second;
        };
        check(value(now) == value(before) || value(now) == value(after),
              "table row " + key + " is " + value(now) + ", neither " + value(before) + " (before) nor " +
                  value(after) + " (after)\n  now:\n" + describe(now) + "  before:\n" + describe(before) +
                  "  after:\n" + describe(after));
    }
}

// The key a notification label names.
std::string noticeKey(const std::string& notice) {
    const auto space = notice.find(' ');
    const auto rank = notice.rfind(" rank ");
    return notice.substr(space + 1, rank - space - 1);
}

// ---- Table operations -----------------------------------------------------

struct TableOp {
    std::string name;
    std::function<std::shared_ptr<World>()> setup;  // ends with settle()
    std::function<void(World&)> op;                 // sets w.result
    Probe probe;
    // A failure that leaves the tables as they were must leave the call to
    // be made again in full: it announces everything the complete call does.
    bool strict = true;
};

void coverTableOp(const TableOp& t) {
    struct Reference {
        bool known = false;
        Outcome before;
        Outcome after;
    };
    auto reference = std::make_shared<Reference>();
    auto setup = [t, reference] {
        if (!reference->known) {
            auto model = t.setup();
            reference->before = outcome(*model, nullptr);
            model = t.setup();
            t.op(*model);
            reference->after = outcome(*model, t.probe);
            reference->known = true;
        }
        return t.setup();
    };
    cover<World>(
        t.name, setup, t.op,
        [t, reference](World& w, std::size_t, bool) {
            const Outcome& before = reference->before;
            const Outcome& after = reference->after;
            checkLockFree(w);
            const auto rows = tableRows(*w.dispatcher);
            checkRowsBetween(rows, before.rows, after.rows);
            const auto received = takeReceived(w);
            const std::vector<std::string> none;
            const auto noticesIn = [&w, &none](const std::vector<std::vector<std::string>>& r) -> const auto& {
                return w.forwarder < 0 ? none : r.at(static_cast<std::size_t>(w.forwarder));
            };
            const auto& fullNotices = noticesIn(after.received);
            const auto& firstNotices = noticesIn(received);
            check(firstNotices.size() <= fullNotices.size() &&
                      std::equal(firstNotices.begin(), firstNotices.end(), fullNotices.begin()),
                  "the notifications delivered are not the first ones of the call's: " + describe(firstNotices, "; ") +
                      " of " + describe(fullNotices, "; "));
            for (std::size_t i = 0; i < received.size(); ++i) {
                if (static_cast<int>(i) != w.forwarder) {
                    check(received[i].empty(), "queue " + std::to_string(i) + " received " + describe(received[i], "; "));
                }
            }
            // The call made again completes the change.
            w.log->count = 0;
            t.op(w);
            check(w.result == after.result, "the call made after the failure returned " + std::to_string(w.result));
            checkEqual(describe(tableRows(*w.dispatcher)), describe(after.rows),
                       "the tables after the call made again");
            const auto retried = noticesIn(takeReceived(w));
            // Announced, in order: what the failed call delivered, then what
            // the call made again announced; missing in between only the
            // last notifications of the one key whose change failed.
            check(retried.size() + firstNotices.size() <= fullNotices.size() &&
                      std::equal(retried.rbegin(), retried.rend(), fullNotices.rbegin()),
                  "the call made again announced " + describe(retried, "; ") + ", not the last ones of " +
                      describe(fullNotices, "; ") + " (the failed call delivered " + describe(firstNotices, "; ") + ")");
            std::set<std::string> lostKeys;
            for (std::size_t i = firstNotices.size(); i < fullNotices.size() - retried.size(); ++i) {
                lostKeys.insert(noticeKey(fullNotices[i]));
            }
            check(lostKeys.size() <= 1, "notifications of more than one key were lost");
            if (t.strict && rows == before.rows) {
                check(lostKeys.empty(), "the failed call changed nothing visible, yet the call made again did not "
                                        "announce everything: " + describe(retried, "; ") + " instead of " +
                                            describe(fullNotices, "; "));
            }
            checkEqual(t.probe ? t.probe(w) : std::string(), after.probe, "a probe message after the failure");
        },
        [reference, t](World& w) {
            const Outcome now = outcome(w, t.probe);
            checkEqual(describe(now.rows), describe(reference->after.rows), "the tables");
            checkEqual(now.received, reference->after.received, "the notifications");
            checkEqual(now.result, reference->after.result, "the result");
            checkEqual(now.probe, reference->after.probe, "a probe message");
        });
}

// The forwarder, queue 1 subscribed to readings from {plant} and registered
// as the rank-5 service for requests to {kLong, line}, queue 2 subscribed
// to readings from {plant} too; queues 3 and 4 for the operations to use.
std::shared_ptr<World> tables() {
    auto w = std::make_shared<World>();
    attachForwarder(*w);
    const int one = addQueue(*w);
    const int two = addQueue(*w);
    addQueue(*w);
    addQueue(*w);
    w->dispatcher->subscribe(w->queue(one), {"plant"}, kReading);
    w->dispatcher->subscribe(w->queue(two), {"plant"}, kReading);
    w->dispatcher->registerService(w->queue(one), {kLong, "line"}, kRequest, 5);
    settle(*w);
    return w;
}

// Queue 1 subscribed under three keys and registered under three.
std::shared_ptr<World> spread() {
    auto w = tables();
    for (const Address& a : {Address{"plant", kLong}, Address{kLong}}) {
        w->dispatcher->subscribe(w->queue(1), a, kReading);
        w->dispatcher->registerService(w->queue(1), a, kRequest, 3);
    }
    w->dispatcher->registerService(w->queue(2), {kLong}, kRequest, 1);
    settle(*w);
    return w;
}

std::string probeReadings(World& w) { return probeWith(w, kReading, {"plant", kLong, "press"}, std::nullopt); }
std::string probeRequests(World& w) { return probeWith(w, kRequest, {"x"}, Address{kLong, "line", "press"}); }
std::string probeBoth(World& w) { return probeReadings(w) + " | " + probeRequests(w); }

// ---- Posts -----------------------------------------------------------------

struct PostOp {
    std::string name;
    std::function<std::shared_ptr<World>()> setup;  // sets w.message, ends with settle()
    std::function<void(World&)> op;                 // posts w.message, sets w.result
    std::function<std::shared_ptr<const Message>(World&)> fresh;  // a message like w.message, new identity
    // A post that failed before any queue received it can be made again.
    bool strictIdentity = false;
};

void coverPost(const PostOp& p) {
    struct Reference {
        bool known = false;
        Outcome before;
        Outcome after;
    };
    auto reference = std::make_shared<Reference>();
    auto setup = [p, reference] {
        if (!reference->known) {
            auto model = p.setup();
            reference->before = outcome(*model, nullptr);
            model = p.setup();
            p.op(*model);
            reference->after = outcome(*model, nullptr);
            reference->known = true;
        }
        return p.setup();
    };
    cover<World>(
        p.name, setup, p.op,
        [p, reference](World& w, std::size_t, bool) {
            const Outcome& after = reference->after;
            checkLockFree(w);
            checkEqual(describe(tableRows(*w.dispatcher)), describe(reference->before.rows), "the tables changed");
            const std::vector<int> tried = w.log->list();
            check(tried.size() <= after.tried.size() && std::equal(tried.begin(), tried.end(), after.tried.begin()),
                  "the queues tried are not the first ones the complete post tries");
            const std::string text = output();
            const auto received = takeReceived(w);
            const std::string identity = w.message->identity();
            bool anyReceived = false;
            std::size_t refusals = 0;
            for (std::size_t k = 0; k < tried.size(); ++k) {
                if (w.refusing.count(tried[k])) ++refusals;
            }
            for (std::size_t i = 0; i < received.size(); ++i) {
                const int q = static_cast<int>(i);
                const auto holds = static_cast<std::size_t>(std::count(received[i].begin(), received[i].end(), identity));
                check(holds == received[i].size(), "queue " + std::to_string(i) + " received something else");
                const auto attempts = std::find(tried.begin(), tried.end(), q);
                const bool triedBeforeTheLast = attempts != tried.end() && attempts + 1 != tried.end();
                if (w.refusing.count(q) || attempts == tried.end()) {
                    check(holds == 0, "queue " + std::to_string(i) + " holds the message though it was not given it");
                } else if (triedBeforeTheLast) {
                    check(holds == 1, "queue " + std::to_string(i) + " was served before the failure but holds the "
                                      "message " + std::to_string(holds) + " times");
                } else {
                    check(holds <= 1, "queue " + std::to_string(i) + " holds the message twice");
                }
                anyReceived = anyReceived || holds > 0;
            }
            // Each refusal printed its warning and the message's trace, whole.
            std::size_t warnings = 0;
            for (std::size_t at = text.find("PLOX!!!! Warning ---- dropping msg\nPLOX message is - : sender = ");
                 at != std::string::npos;
                 at = text.find("PLOX!!!! Warning ---- dropping msg\nPLOX message is - : sender = ", at + 1)) {
                ++warnings;
            }
            check(warnings == refusals, "the output does not hold one warning and trace per refusal: " + text);
            // The identity: recorded whenever a queue received the message.
            // Refilled first, so that the full queues refuse again as they
            // did in the complete post.
            settle(w);
            const std::uint64_t repeatsBefore = w.dispatcher->counters().repeats;
            p.op(w);
            // Taken as new, not refused as a repeat (a post that reached its
            // subscribers but no service returns false all the same).
            const bool takenAsNew = w.dispatcher->counters().repeats == repeatsBefore;
            const auto receivedAgain = takeReceived(w);
            if (takenAsNew) {
                check(!anyReceived, "a repeat of a message queues already received was accepted");
                checkEqual(receivedAgain, after.received, "the post made again");
            } else {
                bool none = true;
                for (const auto& r : receivedAgain) none = none && r.empty();
                check(none, "a refused repeat reached a queue");
                if (p.strictIdentity) {
                    check(anyReceived, "the post failed before any queue received the message, yet the message "
                                       "cannot be posted again: it is lost for good");
                }
            }
            // A fresh message is routed as if nothing had failed.
            settle(w);
            w.message = p.fresh(w);
            p.op(w);
            const Outcome now = outcome(w, nullptr);
            checkEqual(now.result, after.result, "a fresh post after the failure returned");
            checkEqual(now.tried, after.tried, "a fresh post after the failure tried the queues");
            checkEqual(now.received.size(), after.received.size(), "queues");
            for (std::size_t i = 0; i < now.received.size(); ++i) {
                checkEqual(now.received[i].size(), after.received[i].size(),
                           "messages received by queue " + std::to_string(i) + " from a fresh post");
            }
        },
        [reference](World& w) {
            const Outcome now = outcome(w, nullptr);
            checkEqual(now.result, reference->after.result, "the result");
            checkEqual(now.tried, reference->after.tried, "the queues tried");
            checkEqual(now.received, reference->after.received, "the receivers");
            checkEqual(now.output, reference->after.output, "the output");
        });
}

// Four subscribers of readings, from any sender and from three prefixes of
// the message's sender, and the forwarder.
std::shared_ptr<World> subscribers() {
    auto w = std::make_shared<World>();
    attachForwarder(*w);
    const Address sender{"plant", kLong, "press"};
    for (std::size_t n = 0; n <= sender.size(); ++n) {
        const int q = addQueue(*w);
        w->dispatcher->subscribe(w->queue(q), Address(sender.begin(), sender.begin() + static_cast<long>(n)), kReading);
    }
    w->message = labelled(kReading, sender, std::nullopt, "message");
    settle(*w);
    return w;
}

// More than a scan's worth of keys on both sides; the message is covered by
// three subscription keys and by two service keys, each of whose first
// service refuses (a full queue: warning and trace) and whose second takes it.
std::shared_ptr<World> largeTables() {
    auto w = std::make_shared<World>();
    const Address sender{"plant", kLong, "press"};
    const Address destination{kLong, "line", "cell"};
    for (int n = 0; n < 14; ++n) {
        const int q = addQueue(*w);
        w->dispatcher->subscribe(w->queue(q), {"elsewhere", std::to_string(n)}, kReading);
        w->dispatcher->registerService(w->queue(q), {"nowhere", std::to_string(n)}, kReading, 1);
    }
    for (std::size_t n : {0u, 1u, 3u}) {
        const int q = addQueue(*w);
        w->dispatcher->subscribe(w->queue(q), Address(sender.begin(), sender.begin() + static_cast<long>(n)), kReading);
    }
    for (std::size_t n : {1u, 2u}) {
        const Address prefix(destination.begin(), destination.begin() + static_cast<long>(n));
        w->dispatcher->registerService(w->queue(addQueue(*w, true)), prefix, kReading, 1);
        w->dispatcher->registerService(w->queue(addQueue(*w)), prefix, kReading, 2);
    }
    w->message = labelled(kReading, sender, destination, "message");
    settle(*w);
    return w;
}

// A dispatcher that has posted nothing yet: its history is still unused.
std::shared_ptr<World> untouched() {
    auto w = std::make_shared<World>();
    w->message = labelled(kReading, {"plant"}, std::nullopt, "message");
    return w;
}

void post(World& w) { w.result = w.dispatcher->postMessage(w.message, nullptr); }

std::function<MessagePtr(World&)> like(const Identifier& id, Address sender, std::optional<Address> destination) {
    return [id, sender, destination](World& w) {
        return labelled(id, sender, destination, "fresh" + std::to_string(++w.probes));
    };
}

}  // namespace

class DispatcherAllocation : public AllocTest {};

TEST_F(DispatcherAllocation, ConstructorsMakeNothingWhenMemoryRunsOut) {
    struct Made {
        std::shared_ptr<MessageDispatcher> dispatcher;
        std::vector<std::string> args{kLong, "b"};
    };
    const auto made = [] { return std::make_shared<Made>(); };
    const auto describeMade = [](Made& m) { return std::string(m.dispatcher ? "made" : "nothing"); };
    coverStrong<Made>("MessageDispatcher()", made,
                      [](Made& m) { m.dispatcher = std::make_shared<MessageDispatcher>(); }, describeMade);
    coverStrong<Made>("MessageDispatcher(args)", made,
                      [](Made& m) { m.dispatcher = std::make_shared<MessageDispatcher>(m.args); }, describeMade);
}

TEST_F(DispatcherAllocation, SubscriptionChangesAreMadeOrNotAndAnnouncedOrLost) {
    coverTableOp({"MessageDispatcher::subscribe of a new key", tables,
                  [](World& w) { w.result = w.dispatcher->subscribe(w.queue(3), {"plant", kLong}, kReading); },
                  probeReadings});
    coverTableOp({"MessageDispatcher::subscribe to a key that has subscribers", tables,
                  [](World& w) { w.result = w.dispatcher->subscribe(w.queue(3), {"plant"}, kReading); },
                  probeReadings});
    coverTableOp({"MessageDispatcher::subscribe of a subscribed queue", tables,
                  [](World& w) { w.result = w.dispatcher->subscribe(w.queue(1), {"plant"}, kReading); },
                  probeReadings});
    coverTableOp({"MessageDispatcher::subscribe on a dispatcher that has posted nothing",
                  [] {
                      auto w = std::make_shared<World>();
                      addQueue(*w);
                      settle(*w);
                      return w;
                  },
                  [](World& w) { w.result = w.dispatcher->subscribe(w.queue(0), {"plant", kLong}, kReading); },
                  probeReadings});
    coverTableOp({"MessageDispatcher::unsubscribe one of two queues", tables,
                  [](World& w) { w.result = w.dispatcher->unsubscribe(w.queue(1), {"plant"}, kReading); },
                  probeReadings});
    coverTableOp({"MessageDispatcher::unsubscribe the last queue of a key",
                  [] {
                      auto w = tables();
                      w->dispatcher->unsubscribe(w->queue(2), {"plant"}, kReading);
                      settle(*w);
                      return w;
                  },
                  [](World& w) { w.result = w.dispatcher->unsubscribe(w.queue(1), {"plant"}, kReading); },
                  probeReadings});
    coverTableOp({"MessageDispatcher::unsubscribe of a key without entry", tables,
                  [](World& w) { w.result = w.dispatcher->unsubscribe(w.queue(1), {"plant", kLong}, kOther); },
                  probeReadings});
    coverTableOp({"MessageDispatcher::unsubscribeFromAll", spread,
                  [](World& w) { w.result = w.dispatcher->unsubscribeFromAll(w.queue(1)); }, probeBoth});
}

TEST_F(DispatcherAllocation, ServiceChangesAreMadeOrNotAndAnnouncedOrLost) {
    coverTableOp({"MessageDispatcher::registerService of a new key", tables,
                  [](World& w) { w.result = w.dispatcher->registerService(w.queue(3), {kLong}, kRequest, 4); },
                  probeRequests, true});
    coverTableOp({"MessageDispatcher::registerService with a lower rank", tables,
                  [](World& w) { w.result = w.dispatcher->registerService(w.queue(3), {kLong, "line"}, kRequest, 2); },
                  probeRequests});
    coverTableOp({"MessageDispatcher::registerService with a higher rank", tables,
                  [](World& w) { w.result = w.dispatcher->registerService(w.queue(3), {kLong, "line"}, kRequest, 9); },
                  probeRequests});
    coverTableOp({"MessageDispatcher::registerService again with the same rank", tables,
                  [](World& w) { w.result = w.dispatcher->registerService(w.queue(1), {kLong, "line"}, kRequest, 5); },
                  probeRequests});
    coverTableOp({"MessageDispatcher::registerService refused by a rank-0 entry",
                  [] {
                      auto w = tables();
                      w->dispatcher->registerService(w->queue(2), {kLong}, kRequest, 0);
                      settle(*w);
                      return w;
                  },
                  [](World& w) { w.result = w.dispatcher->registerService(w.queue(3), {kLong}, kRequest, 7); },
                  probeRequests});
    coverTableOp({"MessageDispatcher::unregisterService one of two queues",
                  [] {
                      auto w = tables();
                      w->dispatcher->registerService(w->queue(2), {kLong, "line"}, kRequest, 8);
                      settle(*w);
                      return w;
                  },
                  [](World& w) { w.result = w.dispatcher->unregisterService(w.queue(1), {kLong, "line"}, kRequest); },
                  probeRequests});
    coverTableOp({"MessageDispatcher::unregisterService the last queue of a key", tables,
                  [](World& w) { w.result = w.dispatcher->unregisterService(w.queue(1), {kLong, "line"}, kRequest); },
                  probeRequests});
    coverTableOp({"MessageDispatcher::unregisterService of a key without entry", tables,
                  [](World& w) { w.result = w.dispatcher->unregisterService(w.queue(1), {kLong}, kOther); },
                  probeRequests});
    coverTableOp({"MessageDispatcher::unregisterAll", spread,
                  [](World& w) { w.result = w.dispatcher->unregisterAll(w.queue(1)); }, probeBoth});
    coverTableOp({"MessageDispatcherInterface::disconnectQueue", spread,
                  [](World& w) { w.result = w.dispatcher->disconnectQueue(w.queue(1)); }, probeBoth});
}

TEST_F(DispatcherAllocation, TableSnapshotsLeaveTheDispatcherUnchanged) {
    const auto snapshots = [] {
        auto w = spread();
        // An entry the caller's map holds already keeps its value.
        w->subscriptionsOut.emplace(MessageKey(kReading, {"plant"}, {}, {}), 99u);
        w->servicesOut.emplace(MessageKey(kRequest, {}, {kLong}, {}), MessageDispatcher::ServiceInfo{99, 99});
        return w;
    };
    const auto subscriptionsOut = [](World& w) {
        std::map<std::string, std::string> rows;
        for (const auto& e : w.subscriptionsOut) rows[row(e.first)] = std::to_string(e.second);
        return rows;
    };
    const auto servicesOut = [](World& w) {
        std::map<std::string, std::string> rows;
        for (const auto& e : w.servicesOut) {
            rows[row(e.first)] = std::to_string(e.second.queueCount) + "/" + std::to_string(e.second.lowestRank);
        }
        return rows;
    };
    const auto coverSnapshot = [snapshots](const std::string& name, std::function<void(World&)> op,
                                           std::function<std::map<std::string, std::string>(World&)> out) {
        auto complete = std::make_shared<std::map<std::string, std::string>>();
        auto before = std::make_shared<std::map<std::string, std::string>>();
        cover<World>(
            name,
            [snapshots, op, out, complete, before] {
                if (complete->empty()) {
                    auto model = snapshots();
                    *before = out(*model);
                    op(*model);
                    *complete = out(*model);
                }
                return snapshots();
            },
            op,
            [op, out, complete, before](World& w, std::size_t, bool) {
                checkLockFree(w);
                // What the caller's map holds is right, entry by entry.
                checkRowsBetween(out(w), *before, *complete);
                op(w);
                checkEqual(describe(out(w)), describe(*complete), "the call made again");
                checkEqual(w.size, complete->size(), "the size returned");
            },
            [out, complete](World& w) {
                checkEqual(describe(out(w)), describe(*complete), "the map");
                checkEqual(w.size, complete->size(), "the size returned");
            });
    };
    coverSnapshot("MessageDispatcher::getSubscriptionsTable",
                  [](World& w) { w.size = w.dispatcher->getSubscriptionsTable(w.subscriptionsOut); }, subscriptionsOut);
    coverSnapshot("MessageDispatcher::getServicesTable",
                  [](World& w) { w.size = w.dispatcher->getServicesTable(w.servicesOut); }, servicesOut);
}

TEST_F(DispatcherAllocation, PostServesTheQueuesTriedBeforeTheFailureAndNoOthers) {
    const Address sender{"plant", kLong, "press"};
    coverPost({"MessageDispatcher::postMessage to subscribers", subscribers, post,
               like(kReading, sender, std::nullopt)});
    coverPost({"MessageDispatcher::unprotected_postMessage to subscribers", subscribers,
               [](World& w) { w.result = w.dispatcher->unprotected_postMessage(w.message, nullptr); },
               like(kReading, sender, std::nullopt)});
    coverPost({"MessageDispatcher::postMessage to subscribers and services of large tables", largeTables, post,
               like(kReading, sender, Address{kLong, "line", "cell"})});
    coverPost({"MessageDispatcher::postMessage to a destination no service covers",
               [] {
                   auto w = subscribers();
                   w->message = labelled(kReading, {"plant", kLong, "press"}, Address{"nobody"}, "message");
                   return w;
               },
               post, like(kReading, sender, Address{"nobody"})});
    coverPost({"MessageDispatcher::postMessage, the first post (reserves the history)", untouched, post,
               like(kReading, {"plant"}, std::nullopt)});
    // With a scope: the subscriber half, the service half, or both.
    for (const auto& [scope, label] : {std::pair{Kest::Msgs::PostScope::Subscribers, "Subscribers"},
                                       std::pair{Kest::Msgs::PostScope::Services, "Services"},
                                       std::pair{Kest::Msgs::PostScope::Both, "Both"}}) {
        coverPost({std::string("MessageDispatcher::postMessage with PostScope::") + label + " to large tables",
                   largeTables,
                   [scope = scope](World& w) { w.result = w.dispatcher->postMessage(w.message, nullptr, scope); },
                   like(kReading, sender, Address{kLong, "line", "cell"})});
    }
    coverNoAllocation<World>("MessageDispatcher::counters", subscribers, [](World& w) {
        const MessageDispatcher::Counters c = w.dispatcher->counters();
        w.result = c.posts + c.repeats + c.emptyMessages > 0;
    });
    coverNoAllocation<World>("MessageDispatcher::postMessage of a repeat and of an empty message",
                             [] {
                                 auto w = subscribers();
                                 post(*w);
                                 settle(*w);
                                 return w;
                             },
                             [](World& w) {
                                 w.result = w.dispatcher->postMessage(w.message, nullptr) ||
                                            w.dispatcher->postMessage(nullptr, nullptr);
                             });
}

TEST_F(DispatcherAllocation, FindCoveringChangesNothing) {
    struct Lookup {
        std::unordered_map<MessageKey, int, MessageKey::HasherWithSender> small;
        std::unordered_map<MessageKey, int, MessageKey::HasherWithSender> large;
        MessagePtr message = labelled(kReading, {"plant", kLong, "press"}, std::nullopt, "message");
        std::vector<int*> found;
        Lookup() {
            const Address sender{"plant", kLong, "press"};
            for (int n = 0; n <= 3; ++n) {
                const MessageKey key(kReading, Address(sender.begin(), sender.begin() + n), {}, {});
                small.emplace(key, n);
                large.emplace(key, n);
            }
            for (int n = 0; n < 12; ++n) large.emplace(MessageKey(kReading, {"elsewhere", std::to_string(n)}, {}, {}), 10 + n);
        }
    };
    const auto describeLookup = [](Lookup& l) {
        std::vector<int> values;
        for (int* v : l.found) values.push_back(*v);
        std::sort(values.begin(), values.end());
        std::string text = "found";
        for (int v : values) text += " " + std::to_string(v);
        return text + " sizes " + std::to_string(l.small.size()) + " " + std::to_string(l.large.size());
    };
    const auto lookups = [] { return std::make_shared<Lookup>(); };
    coverStrong<Lookup>("findCovering, a table scanned", lookups, [](Lookup& l) {
        l.found = Kest::Msgs::findCovering(l.message, l.small, false, MessageKey::HashingGroup::Sender);
    }, describeLookup);
    coverStrong<Lookup>("findCovering, a table probed by candidate keys", lookups, [](Lookup& l) {
        l.found = Kest::Msgs::findCovering(l.message, l.large, false, MessageKey::HashingGroup::Sender);
    }, describeLookup);
}

TEST_F(DispatcherAllocation, DispatchMessageServesTheQueueWholeOrNotAtAll) {
    struct Dispatch {
        std::shared_ptr<DeliveryLog> log = std::make_shared<DeliveryLog>();
        std::shared_ptr<MessageQueue> accepting = std::make_shared<MessageQueue>();
        std::shared_ptr<MessageQueue_FixedDepth> refusing = std::make_shared<MessageQueue_FixedDepth>(1u);
        QueuePtr sender = std::make_shared<MessageQueue>();
        Kest::Msgs::ServedSet served;
        MessagePtr message = labelled(kReading, {kLong}, Address{kLong, "x"}, "message");
        bool result = false;
        std::unique_ptr<GrowingOutput> growing;
        Dispatch() {
            for (int i = 0; i < kFill; ++i) accepting->putMessage(filler());
            refusing->putMessage(filler());
            served.insert(sender);
        }
    };
    const auto describeDispatch = [](Dispatch& d) {
        std::string text = "served";
        for (const QueuePtr& q : d.served) {
            text += q == d.sender ? " sender" : q.get() == d.accepting.get() ? " accepting" : " other";
        }
        return text + " accepting " + std::to_string(d.accepting->getAvailableMessagesCount()) + " refusing " +
               std::to_string(d.refusing->getAvailableMessagesCount()) + " result " + std::to_string(d.result) +
               " output " + output();
    };
    const auto dispatches = [] { return std::make_shared<Dispatch>(); };
    // A queue that took the message is always in the served set, so that no
    // later entry of the post gives it the message again.
    coverStrong<Dispatch>("dispatchMessage to an accepting queue", dispatches, [](Dispatch& d) {
        d.result = Kest::Msgs::dispatchMessage(d.message, d.accepting, d.served);
    }, describeDispatch);
    coverStrong<Dispatch>("dispatchMessage to a refusing queue (warning and trace)", dispatches, [](Dispatch& d) {
        d.result = Kest::Msgs::dispatchMessage(d.message, d.refusing, d.served);
    }, describeDispatch);
    coverNoAllocation<Dispatch>("dispatchMessage to a queue already served", dispatches, [](Dispatch& d) {
        d.result = Kest::Msgs::dispatchMessage(d.message, d.sender, d.served);
    });
    // The warning line and the trace into a stream that must grow.
    Options absorbing;
    absorbing.mayAbsorb = true;
    const auto refuse = [](Dispatch& d) { d.result = Kest::Msgs::dispatchMessage(d.message, d.refusing, d.served); };
    const auto expected = std::make_shared<std::string>();
    cover<Dispatch>(
        "dispatchMessage to a refusing queue, warning and trace into a growing std::ostringstream",
        [refuse, expected] {
            auto d = std::make_shared<Dispatch>();
            if (expected->empty()) {
                d->growing = std::make_unique<GrowingOutput>();
                refuse(*d);
                *expected = d->growing->stream->str();
                d = std::make_shared<Dispatch>();
            }
            d->growing = std::make_unique<GrowingOutput>();
            return d;
        },
        refuse,
        [refuse, expected](Dispatch& d, std::size_t, bool threw) {
            const std::string text = d.growing->stream->str();
            check(std::cout.good(), "std::cout was left failed: every later diagnostic line would be lost");
            if (!threw) {
                // Two lines, each whole or cut short and ended.
                check(!text.empty() && text.back() == '\n', "the output does not end a line: " + text);
            }
            refuse(d);
            const std::string next = d.growing->stream->str().substr(text.size());
            checkEqual(next, *expected, "the lines of the next refusal");
        },
        [expected](Dispatch& d) { checkEqual(d.growing->stream->str(), *expected, "the warning and the trace"); },
        absorbing);
}

// ---- Failures that once left the dispatcher less than valid ------------------
//
// A key left without a queue, a queue moved to nowhere, a post that reached
// nobody and yet could not be made again.

TEST_F(DispatcherAllocation, RegisteringANewKeyThatFailsInvisiblyIsAnnouncedWhenMadeAgain) {
    // The key is inserted with an empty list of queues before the queue is;
    // when that second insertion fails, the table reads as before, but the
    // empty entry makes the next registration of the key look like a second
    // queue of equal rank: registered without a notification.
    coverTableOp({"MessageDispatcher::registerService of a new key (announced when made again)", tables,
                  [](World& w) { w.result = w.dispatcher->registerService(w.queue(3), {kLong}, kRequest, 4); },
                  probeRequests, true});
}

TEST_F(DispatcherAllocation, MovingAServiceToAnotherRankKeepsItRegisteredWhenMemoryRunsOut) {
    // The old entry is erased before the new one is inserted: when the
    // insertion fails, the queue is no longer registered at all.
    coverTableOp({"MessageDispatcher::registerService moving a queue to another rank", tables,
                  [](World& w) { w.result = w.dispatcher->registerService(w.queue(1), {kLong, "line"}, kRequest, 2); },
                  probeRequests});
}

TEST_F(DispatcherAllocation, RemovingTheLastServiceOfAKeyLeavesNoEmptyEntryWhenTheNoticeFails) {
    // The key's empty entry is erased only after its notification is
    // posted; when that fails, the empty entry stays, and the next
    // registration of the key is taken for a second queue of equal rank:
    // registered without a notification.
    const auto unregister = [](World& w) {
        w.result = w.dispatcher->unregisterService(w.queue(1), {kLong, "line"}, kRequest);
    };
    cover<World>(
        "MessageDispatcher::unregisterService the last queue, then a registration of the key", tables, unregister,
        [](World& w, std::size_t, bool) {
            checkLockFree(w);
            if (tableRows(*w.dispatcher).count("service " + row(MessageKey(kRequest, {}, {kLong, "line"}, {}))) != 0) {
                return;  // the queue is still registered: nothing was removed
            }
            takeReceived(w);
            check(w.dispatcher->registerService(w.queue(4), {kLong, "line"}, kRequest, 6), "registration refused");
            const auto notices = takeReceived(w).at(static_cast<std::size_t>(w.forwarder));
            check(notices.size() == 1 && notices[0].rfind("notice5 ", 0) == 0,
                  "the registration of a key without service was announced by " + describe(notices, "; ") +
                      " instead of one rank notification");
        },
        [](World&) {});
}

TEST_F(DispatcherAllocation, PostThatFailedBeforeAnyDeliveryCanBeMadeAgain) {
    // The identity is recorded before the lookups that allocate: a post that
    // fails there reached nobody, and posting it again is refused as a repeat.
    coverPost({"MessageDispatcher::postMessage, large tables (made again after a failure)", largeTables, post,
               like(kReading, {"plant", kLong, "press"}, Address{kLong, "line", "cell"}), true});
}
