#pragma once

// MessageDispatcher: routes each posted message to every subscribed queue and
// to the lowest-ranked accepting queue of every service entry that covers it,
// and announces each change of its tables with a forwarder notification.
//
// Threads: any number of threads may call one dispatcher. Every public
// operation holds the dispatcher's one, non-recursive mutex from entry to
// return, including the deliveries it causes, so posts are totally ordered.
// Delivery runs on the calling thread; a queue's lock is taken inside the
// dispatcher's.
//
// Calls from inside a delivery: code that runs inside a delivery of this
// dispatcher (a MessageCallback's callback, on the posting thread) must not
// call this dispatcher again, since its mutex is held. Every operation that
// locks it (all below but unprotected_postMessage, and the inherited
// disconnectQueue, which calls unsubscribeFromAll first) checks first whether
// the calling thread holds it already and then throws std::system_error with
// std::errc::resource_deadlock_would_occur, "<operation>: called from inside
// a delivery of this dispatcher", having changed nothing, instead of
// deadlocking. The delivery that was running goes on if the callback catches
// it. subscribe with an empty queue returns false before this check: it
// takes no lock, so it cannot deadlock. Other threads, and other
// dispatchers called from a callback, are not affected; a thread blocked on
// the mutex of a dispatcher whose holder waits for it in turn (two threads
// posting into each other's dispatchers from callbacks) is not detected.
//
// Lifetime: owned through a std::shared_ptr made from this concrete type. The
// dispatcher shares ownership of every queue in its tables. Its destructor
// takes no lock and posts nothing; no other thread may be inside an operation
// when the last owner lets go.

#include <kest/components/Component_Base.h>
#include <kest/model/Identifier.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/model/MessageKey.h>
#include <kest/msgs/Api.h>
#include <kest/msgs/PostScope.h>
#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Kest::Msgs {

class Message;
class MessageQueueInterface;

class KEST_DISPATCHER_API MessageDispatcher : public MessageDispatcherInterface,
                                              public Component_Base {
public:
    using QueuePtr = std::shared_ptr<MessageQueueInterface>;
    using Subscribers = std::unordered_set<QueuePtr>;
    using RankedQueues = std::multimap<unsigned long, QueuePtr>;

    MessageDispatcher();
    // The arguments are ignored: the form the factory's creators use.
    // Strong guarantee (both constructors): std::bad_alloc makes nothing.
    explicit MessageDispatcher(const std::vector<std::string>& args);

    MessageDispatcher(const MessageDispatcher&) = delete;
    MessageDispatcher& operator=(const MessageDispatcher&) = delete;

    // Subscribes `queue` to messages of `id` whose sender address starts with
    // `address` (empty: any sender). False only for an empty `queue`; true
    // also when it was subscribed already (then nothing is announced).
    // Announces a new subscription with a SubscriptionAddedNotification.
    // Basic guarantee: on std::bad_alloc the subscription may have been made
    // with its notification lost; a call made again returns true.
    bool subscribe(QueuePtr queue, const std::vector<std::string>& address,
                   const Identifier& id) override;
    // Removes that subscription; announces a removal with a
    // SubscriptionRemovedNotification. Always true. Basic guarantee: on
    // std::bad_alloc the removal may have been made with its notification lost.
    bool unsubscribe(QueuePtr queue, const std::vector<std::string>& address,
                     const Identifier& id) override;
    // Removes every subscription of `queue`, one notification per key. Always
    // true. Basic guarantee: on std::bad_alloc the keys visited before the
    // failure may have lost the queue (the last one its notification); a
    // call made again finishes.
    bool unsubscribeFromAll(QueuePtr queue) override;

    // Registers `queue` as a service for messages of `id` addressed to
    // `destination` (or below it), with `rank` (lower is preferred; 0 is
    // exclusive). Registering again moves the entry to the new rank. False
    // only when the key has a rank-0 entry. Empty queue pointers are accepted.
    // Basic guarantee: on std::bad_alloc the registration is made or not
    // (a queue moved to another rank keeps its old one), and when made its
    // last notifications may be lost; no key is left without a queue.
    bool registerService(QueuePtr queue, const std::vector<std::string>& destination,
                         const Identifier& id, unsigned long rank) override;
    // Removes that registration. Always true. Basic guarantee: on
    // std::bad_alloc the removal may have been made with its notifications lost.
    bool unregisterService(QueuePtr queue, const std::vector<std::string>& destination,
                           const Identifier& id) override;
    // Removes `queue` from every service key; subscriptions stay. Always true.
    // Basic guarantee: on std::bad_alloc the keys visited before the failure
    // may have lost the queue; a call made again finishes.
    bool unregisterAll(QueuePtr queue) override;

    // Adds (key, number of subscribed queues) for each subscription key to
    // `out`, keeping entries already there; returns out.size(). On
    // std::bad_alloc the dispatcher is unchanged; basic guarantee for `out`:
    // some entries may have been added, each with its right value.
    std::size_t getSubscriptionsTable(SubscriptionsTable& out) const override;
    // Adds (key, {queue count, lowest rank}) for each service key to `out`,
    // keeping entries already there; returns out.size(). On std::bad_alloc
    // the dispatcher is unchanged; basic guarantee for `out` as above.
    std::size_t getServicesTable(ServicesTable& out) const override;

    // Delivers `message` to every covering subscriber and, when it has a
    // destination, to one queue of every covering service entry, never to
    // `sender`. False for an empty or repeated message, for a destination no
    // service covers, and when some covering service entry had no queue that
    // accepted. Throws MetaDataException for a message without identity,
    // and std::system_error (resource_deadlock_would_occur) when called from
    // inside one of this dispatcher's deliveries. When no queue took the
    // message and the caller gave up its reference, the message is released
    // after the dispatcher's lock, not under it. Basic guarantee: on
    // std::bad_alloc the queues tried before the failure hold the message
    // once and the others not at all, and the lock is free; its identity is
    // recorded (posting it again is refused) only when some queue took it,
    // so a post that reached nobody can be made again.
    bool postMessage(std::shared_ptr<const Message> message, const QueuePtr& sender) override;

    // postMessage for one half of the routing (see PostScope), never to
    // `sender`. Subscribers: the covering subscribers only; true unless the
    // message is empty or a repeat. Services: one queue of every covering
    // service entry only; true for a message without destination (nothing
    // to do), false as postMessage when no service covers the destination
    // or some covering entry had no queue that accepted. Both: exactly
    // postMessage(message, sender) of this class. The history remembers per
    // message which halves were posted: a half already posted is refused as
    // a repeat (false, counted), the other half still goes through once. A
    // queue that is both a covering subscriber and the chosen service gets
    // one copy per half (an ordinary post gives it one). A value that is no
    // PostScope is refused: false, nothing recorded or counted. Locks and
    // throws as postMessage; basic guarantee as postMessage. Not virtual:
    // reached through a MessageDispatcher, not through its interface.
    bool postMessage(std::shared_ptr<const Message> message, const QueuePtr& sender, PostScope scope);

    // postMessage for callers that already hold the dispatcher's mutex. Basic
    // guarantee as postMessage.
    bool unprotected_postMessage(std::shared_ptr<const Message> message, const QueuePtr& sender);

    // What the dispatcher has done since it was made. Every number only grows.
    struct Counters {
        // Messages accepted for delivery: neither empty nor a repeat. The
        // dispatcher's own notifications count too. Counted when accepted,
        // before delivery, so a post whose callback throws counts.
        std::uint64_t posts = 0;
        // Posts refused because the history holds the message's identity.
        std::uint64_t repeats = 0;
        // Posts of an empty message pointer (refused).
        std::uint64_t emptyMessages = 0;
        // Accepted posts that returned false for their service half: no
        // service entry covered the destination, or a covering entry had no
        // queue that took the message. Not counted for the notifications,
        // whose result goes to no caller (they carry a set, empty
        // destination, which few services cover).
        std::uint64_t serviceRefusals = 0;
        // Queue refusals: one per "dropping msg" warning printed (a full or
        // closed queue, an empty service queue pointer), notifications
        // included.
        std::uint64_t drops = 0;
    };
    // The counters, read without the dispatcher's lock: never blocks, and
    // may be called from anywhere, a callback included. Each number is one
    // the counter had during the call; while other threads post, the five
    // may be of slightly different moments (a drop of a post already counted
    // may not be counted yet). Exact once the posts have returned. Allocates
    // nothing.
    Counters counters() const noexcept;

private:
    // One post of `scope` under the lock: unprotected_postMessage, the
    // scoped post, and the notifications (which do not count their service
    // refusals).
    bool post(const std::shared_ptr<const Message>& message, const QueuePtr& sender, PostScope scope,
              bool countServiceRefusal);
    template <class Notification>
    void announce(const MessageKey& key, unsigned long rank, const QueuePtr& changed);
    void announceRankChange(const MessageKey& key, const RankedQueues& queues, const QueuePtr& changed);
    static bool removeFirst(RankedQueues& queues, const QueuePtr& queue);

    std::unordered_map<MessageKey, Subscribers, MessageKey::HasherWithSender> subscriptions;
    std::unordered_map<MessageKey, RankedQueues, MessageKey::HasherWithDestination> services;
    MessagesHandled handled;   // guarded by mutex
    mutable std::mutex mutex;  // guards everything above
    // The thread that holds mutex, or the empty id: written by the holder
    // only, so that a call back into this dispatcher from inside one of its
    // deliveries is refused instead of deadlocking.
    mutable std::atomic<std::thread::id> owner{std::thread::id()};
    // Written under mutex, read by counters() without it.
    struct Tally {
        std::atomic<std::uint64_t> posts{0};
        std::atomic<std::uint64_t> repeats{0};
        std::atomic<std::uint64_t> emptyMessages{0};
        std::atomic<std::uint64_t> serviceRefusals{0};
        std::atomic<std::uint64_t> drops{0};
    };
    Tally tally;
};

}  // namespace Kest::Msgs
