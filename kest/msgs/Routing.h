#pragma once

// The two steps of a post that the dispatcher applies to each table:
// findCovering finds the entries whose keys cover a message, dispatchMessage
// hands the message to one queue. Neither takes a lock: the dispatcher calls
// them under its mutex.

#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/Api.h>

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Kest::Msgs {

// Tables of at most this many entries are scanned with covers(); larger ones
// are probed with the message's candidate keys.
inline constexpr std::size_t ScanLookupLimit = 12;

// The queues that already hold the message of one post (or must never get it).
using ServedSet = std::unordered_set<std::shared_ptr<MessageQueueInterface>>;

namespace detail {

// Calls visit(const T&) for each entry of `table` whose key covers the key of
// `message` (on the side `group` names), until visit returns false. Small
// tables (ScanLookupLimit entries or fewer) are scanned in table order;
// larger ones are probed with the message's candidate keys. Both ways find
// the same entries; neither builds the message's key.
template <class T, class Hasher, class Visit>
void forEachCovering(const Message& message, const std::unordered_map<MessageKey, T, Hasher>& table,
                     MessageKey::HashingGroup group, Visit&& visit) {
    const unsigned long id = message.id();
    const std::vector<std::string>& sender = MessageKey::addressOf(message.sender);
    const std::vector<std::string>& destination = MessageKey::addressOf(message.destination);
    if (table.size() > ScanLookupLimit) {
        const std::vector<std::string>& side = group == MessageKey::HashingGroup::Sender ? sender : destination;
        MessageKey::visitCandidates(id, side, group, [&](const MessageKey& candidate) {
            auto entry = table.find(candidate);
            if (entry == table.end() || !entry->first.covers(id, sender, destination)) return true;
            return visit(entry->second);
        });
    } else {
        for (const auto& entry : table) {
            if (entry.first.covers(id, sender, destination) && !visit(entry.second)) break;
        }
    }
}

}  // namespace detail

// Pointers to the mapped values of the entries of `table` whose keys cover
// the key of `*message` (on the side `group` names), valid while the table is
// unchanged. With `firstOnly`, at most one. Small tables (ScanLookupLimit
// entries or fewer) are scanned in table order; larger ones are probed with
// the message's candidate keys (MessageKey::hashMessagesList). Both find the
// same entries.
template <class T, class Hasher>
std::vector<T*> findCovering(const std::shared_ptr<const Message>& message,
                             const std::unordered_map<MessageKey, T, Hasher>& table,
                             bool firstOnly, MessageKey::HashingGroup group) {
    std::vector<T*> found;
    found.reserve(20);
    detail::forEachCovering(*message, table, group, [&](const T& value) {
        found.push_back(const_cast<T*>(&value));
        return !firstOnly;
    });
    return found;
}

// Puts `message` into `queue` unless `queue` is in `served`. Returns true when
// the queue holds the message now or already did; a queue that took it joins
// `served`. A refusal prints "PLOX!!!! Warning ---- dropping msg" and the
// message's trace to standard output and returns false; an empty `queue` not
// in `served` counts as a refusal.
KEST_DISPATCHER_API bool dispatchMessage(const std::shared_ptr<const Message>& message,
                                         const std::shared_ptr<MessageQueueInterface>& queue,
                                         ServedSet& served);

}  // namespace Kest::Msgs
