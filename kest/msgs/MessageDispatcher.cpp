#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/Routing.h>
#include <kest/msgs/internal/Counter.h>
#include <kest/msgs/internal/Delivery.h>
#include <kest/msgs/internal/Lookup.h>
#include <kest/msgs/internal/OwnedLock.h>

#include <limits>

namespace Kest::Msgs {

namespace Fwd = Communications::Forwarder;

namespace {

constexpr unsigned long kChangeRank = std::numeric_limits<unsigned long>::max();

constexpr const char* kInsideDelivery = "a delivery of this dispatcher";

}  // namespace

MessageDispatcher::MessageDispatcher() = default;

MessageDispatcher::MessageDispatcher(const std::vector<std::string>& /*args*/) {}

template <class Notification>
void MessageDispatcher::announce(const MessageKey& key, unsigned long rank, const QueuePtr& changed) {
    // A separate control block, as for every message the library makes.
    const std::shared_ptr<const Message> notice(new Notification(Fwd::ServiceData(key, 1, rank)));
    post(notice, changed, PostScope::Both, false);
}

// A rank notification with the key's new lowest rank, then a change notification.
void MessageDispatcher::announceRankChange(const MessageKey& key, const RankedQueues& queues,
                                           const QueuePtr& changed) {
    if (!queues.empty()) announce<Fwd::ServiceRankNotification>(key, queues.begin()->first, changed);
    announce<Fwd::ServiceChangeNotification>(key, kChangeRank, changed);
}

bool MessageDispatcher::removeFirst(RankedQueues& queues, const QueuePtr& queue) {
    for (auto it = queues.begin(); it != queues.end(); ++it) {
        if (it->second == queue) {
            queues.erase(it);
            return true;
        }
    }
    return false;
}

// ---- Subscriptions -------------------------------------------------------

bool MessageDispatcher::subscribe(QueuePtr queue, const std::vector<std::string>& address,
                                  const Identifier& id) {
    if (!queue) return false;
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::subscribe", kInsideDelivery);
    MessageKey key(static_cast<unsigned long>(id), address, detail::noAddress(), MessageKey::HasherWithSender());
    const auto entry = subscriptions.try_emplace(key).first;
    try {
        if (!entry->second.insert(queue).second) return true;
    } catch (...) {
        // A key is never left in the table without a queue.
        if (entry->second.empty()) subscriptions.erase(entry);
        throw;
    }
    announce<Fwd::SubscriptionAddedNotification>(key, 0, queue);
    return true;
}

bool MessageDispatcher::unsubscribe(QueuePtr queue, const std::vector<std::string>& address,
                                    const Identifier& id) {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::unsubscribe", kInsideDelivery);
    const MessageKey key(static_cast<unsigned long>(id), address, detail::noAddress(), MessageKey::HashFunction());
    auto entry = subscriptions.find(key);
    if (entry == subscriptions.end()) return true;
    const bool removed = entry->second.erase(queue) != 0;
    // The emptied key leaves the table before the notice is posted: a notice
    // that fails (out of memory) must not leave an empty entry behind.
    if (entry->second.empty()) subscriptions.erase(entry);
    if (removed) announce<Fwd::SubscriptionRemovedNotification>(key, 0, queue);
    return true;
}

bool MessageDispatcher::unsubscribeFromAll(QueuePtr queue) {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::unsubscribeFromAll", kInsideDelivery);
    for (auto entry = subscriptions.begin(); entry != subscriptions.end();) {
        if (entry->second.erase(queue) == 0) {
            ++entry;
            continue;
        }
        if (!entry->second.empty()) {
            announce<Fwd::SubscriptionRemovedNotification>(entry->first, 0, queue);
            ++entry;
            continue;
        }
        // The emptied key leaves the table before its notice, which names
        // the key from the extracted node (no copy, nothing to allocate).
        const auto next = std::next(entry);
        const auto removed = subscriptions.extract(entry);
        entry = next;
        announce<Fwd::SubscriptionRemovedNotification>(removed.key(), 0, queue);
    }
    return true;
}

std::size_t MessageDispatcher::getSubscriptionsTable(SubscriptionsTable& out) const {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::getSubscriptionsTable", kInsideDelivery);
    for (const auto& entry : subscriptions) {
        if (entry.second.empty()) continue;
        out.emplace(entry.first, static_cast<unsigned int>(entry.second.size()));
    }
    return out.size();
}

// ---- Services ------------------------------------------------------------

bool MessageDispatcher::registerService(QueuePtr queue, const std::vector<std::string>& destination,
                                        const Identifier& id, unsigned long rank) {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::registerService", kInsideDelivery);
    MessageKey key(static_cast<unsigned long>(id), detail::noAddress(), destination,
                   MessageKey::HasherWithDestination());
    auto entry = services.find(key);
    if (entry == services.end()) {
        const auto added = services.emplace(key, RankedQueues()).first;
        try {
            added->second.emplace(rank, queue);
        } catch (...) {
            // A key is never left in the table without a queue.
            services.erase(added);
            throw;
        }
        announce<Fwd::ServiceRankNotification>(key, rank, queue);
        return true;
    }

    RankedQueues& queues = entry->second;
    if (!queues.empty() && queues.begin()->first == 0) return false;  // rank 0 is exclusive

    bool changed = !queues.empty() && rank < queues.begin()->first;
    auto previous = queues.end();
    for (auto it = queues.begin(); it != queues.end(); ++it) {
        if (it->second != queue) continue;
        if (it->first == rank) return true;  // already registered so
        previous = it;
        break;
    }
    // The new entry first (after the entries of equal rank), then the old one
    // goes: if the insertion runs out of memory, the queue keeps its rank.
    queues.emplace(rank, queue);
    if (previous != queues.end()) {
        queues.erase(previous);
        changed = true;
    }
    if (changed) announceRankChange(key, queues, queue);
    return true;
}

bool MessageDispatcher::unregisterService(QueuePtr queue, const std::vector<std::string>& destination,
                                          const Identifier& id) {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::unregisterService", kInsideDelivery);
    const MessageKey key(static_cast<unsigned long>(id), detail::noAddress(), destination,
                         MessageKey::HashFunction());
    auto entry = services.find(key);
    if (entry == services.end()) return true;
    if (!removeFirst(entry->second, queue)) return true;
    if (!entry->second.empty()) {
        announceRankChange(key, entry->second, queue);
        return true;
    }
    // The emptied key leaves the table before its notice: a notice that
    // fails (out of memory) must not leave an empty entry behind.
    services.erase(entry);
    announce<Fwd::ServiceChangeNotification>(key, kChangeRank, queue);
    return true;
}

bool MessageDispatcher::unregisterAll(QueuePtr queue) {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::unregisterAll", kInsideDelivery);
    for (auto entry = services.begin(); entry != services.end();) {
        if (!removeFirst(entry->second, queue)) {
            ++entry;
            continue;
        }
        if (!entry->second.empty()) {
            announceRankChange(entry->first, entry->second, queue);
            ++entry;
            continue;
        }
        // The emptied key leaves the table before its notice, which names
        // the key from the extracted node (no copy, nothing to allocate).
        const auto next = std::next(entry);
        const auto removed = services.extract(entry);
        entry = next;
        announce<Fwd::ServiceChangeNotification>(removed.key(), kChangeRank, queue);
    }
    return true;
}

std::size_t MessageDispatcher::getServicesTable(ServicesTable& out) const {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::getServicesTable", kInsideDelivery);
    for (const auto& entry : services) {
        if (entry.second.empty()) continue;
        out.emplace(entry.first, ServiceInfo{entry.second.size(), entry.second.begin()->first});
    }
    return out.size();
}

// ---- Posting -------------------------------------------------------------

bool MessageDispatcher::postMessage(std::shared_ptr<const Message> message, const QueuePtr& sender) {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::postMessage", kInsideDelivery);
    // `message` outlives the lock (a parameter ends after the function's
    // locals), so a message that no queue took is released outside it.
    return post(message, sender, PostScope::Both, true);
}

bool MessageDispatcher::unprotected_postMessage(std::shared_ptr<const Message> message,
                                                const QueuePtr& sender) {
    return post(message, sender, PostScope::Both, true);
}

bool MessageDispatcher::postMessage(std::shared_ptr<const Message> message, const QueuePtr& sender,
                                    PostScope scope) {
    detail::OwnedLock lock(mutex, owner, "MessageDispatcher::postMessage", kInsideDelivery);
    if (scope != PostScope::Subscribers && scope != PostScope::Services && scope != PostScope::Both) return false;
    return post(message, sender, scope, true);
}

bool MessageDispatcher::post(const std::shared_ptr<const Message>& message, const QueuePtr& sender, PostScope scope,
                             bool countServiceRefusal) {
    if (!message) {
        detail::countOne(tally.emptyMessages);
        return false;
    }
    if (!handled.handleMessage(message->identity(), scope)) {
        detail::countOne(tally.repeats);
        return false;
    }
    detail::countOne(tally.posts);

    detail::ServedQueues served(sender.get());
    try {
        const auto half = [scope](PostScope wanted) {
            return (static_cast<std::uint8_t>(scope) & static_cast<std::uint8_t>(wanted)) != 0;
        };

        // Deliveries cannot change the tables (a call back into this dispatcher
        // throws before touching them), so the entries are visited while they
        // are found.
        if (half(PostScope::Subscribers)) {
            detail::forEachCovering(*message, subscriptions, MessageKey::HashingGroup::Sender,
                                    [&](const Subscribers& subscribers) {
                                        if (served.onlySender()) {
                                            // The first entry: its queues are distinct and none has
                                            // the message yet, so they are recorded as one set.
                                            served.takeWhole(subscribers);
                                            for (const QueuePtr& queue : subscribers) {
                                                if (queue.get() == served.sender()) continue;
                                                if (detail::putOrWarn(message, queue.get())) {
                                                    served.notePut();
                                                } else {
                                                    served.refused(queue.get());
                                                    detail::countOne(tally.drops);
                                                }
                                            }
                                            return true;
                                        }
                                        for (const QueuePtr& queue : subscribers) {
                                            if (!detail::deliver(message, queue.get(), served)) {
                                                detail::countOne(tally.drops);
                                            }
                                        }
                                        return true;
                                    });
        }

        if (!half(PostScope::Services) || !message->destination.initialized()) return true;

        // Each covering entry: its queues from the lowest rank up, until one takes it.
        bool covered = false;
        bool ok = true;
        detail::forEachCovering(*message, services, MessageKey::HashingGroup::Destination,
                                [&](const RankedQueues& queues) {
                                    covered = true;
                                    bool taken = false;
                                    for (const auto& ranked : queues) {
                                        if (detail::deliver(message, ranked.second.get(), served)) {
                                            taken = true;
                                            break;
                                        }
                                        detail::countOne(tally.drops);
                                    }
                                    ok = ok && taken;
                                    return true;
                                });
        if (covered && ok) return true;
        if (countServiceRefusal) detail::countOne(tally.serviceRefusals);
        return false;
    } catch (...) {
        // Out of memory (or a queue that threw) before any queue took the
        // message: take the post back whole, so that it can be made again.
        if (!served.anyPut()) {
            handled.forgetMessage(message->identity(), scope);
            tally.posts.store(tally.posts.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
        }
        throw;
    }
}

MessageDispatcher::Counters MessageDispatcher::counters() const noexcept {
    Counters now;
    now.posts = tally.posts.load(std::memory_order_relaxed);
    now.repeats = tally.repeats.load(std::memory_order_relaxed);
    now.emptyMessages = tally.emptyMessages.load(std::memory_order_relaxed);
    now.serviceRefusals = tally.serviceRefusals.load(std::memory_order_relaxed);
    now.drops = tally.drops.load(std::memory_order_relaxed);
    return now;
}

}  // namespace Kest::Msgs
