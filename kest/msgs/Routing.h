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

// Pointers to the mapped values of the entries of `table` whose keys cover
// the key of `*message` (on the side `group` names), valid while the table is
// unchanged. With `firstOnly`, at most one: the first in the order below.
//
// Tables of ScanLookupLimit entries or fewer are scanned in table order. For
// larger ones each candidate key of the message
// (MessageKey::hashMessagesList) is looked up, in the iteration order of
// the candidate set, and kept when its entry covers the message. Both find
// the same entries; the dispatcher posts in exactly this order. The set is
// built only when it matters: the candidates are first probed one key at a
// time (MessageKey::visitCandidates), and with no covering entry, or one,
// there is no order to keep. Throws std::bad_alloc when memory runs out;
// nothing is changed (the table is only read).
template <class T, class Hasher>
std::vector<T*> findCovering(const std::shared_ptr<const Message>& message,
                             const std::unordered_map<MessageKey, T, Hasher>& table,
                             bool firstOnly, MessageKey::HashingGroup group) {
    std::vector<T*> found;
    found.reserve(20);
    const MessageKey messageKey(*message, MessageKey::HashFunction());
    if (table.size() <= ScanLookupLimit) {
        for (const auto& entry : table) {
            if (!entry.first.covers(messageKey)) continue;
            found.push_back(const_cast<T*>(&entry.second));
            if (firstOnly) break;
        }
        return found;
    }

    T* first = nullptr;
    std::size_t covering = 0;
    const std::vector<std::string>& side =
        group == MessageKey::HashingGroup::Sender ? messageKey.sender() : messageKey.destination();
    MessageKey::visitCandidates(messageKey.id(), side, group, [&](const MessageKey& candidate) {
        auto entry = table.find(candidate);
        if (entry == table.end() || !entry->first.covers(messageKey)) return true;
        if (covering++ == 0) first = const_cast<T*>(&entry->second);
        return covering < 2;
    });
    if (covering < 2) {
        if (first != nullptr) found.push_back(first);
        return found;
    }
    for (const MessageKey& candidate : MessageKey::hashMessagesList(messageKey, group)) {
        auto entry = table.find(candidate);
        if (entry == table.end() || !entry->first.covers(messageKey)) continue;
        found.push_back(const_cast<T*>(&entry->second));
        if (firstOnly) break;
    }
    return found;
}

// Puts `message` into `queue` unless `queue` is in `served`. Returns true when
// the queue holds the message now or already did; a queue that took it joins
// `served`. A refusal prints "PLOX!!!! Warning ---- dropping msg" and the
// message's trace to standard output and returns false; an empty `queue` not
// in `served` counts as a refusal. Strong guarantee: if memory runs out
// (growing `served`, or in the queue's putMessage), `served` and the queue
// are as they were; a queue that holds the message is always in `served`.
// Reporting a refusal allocates nothing of its own and never throws (see
// MessageTrace.h for what a std::cout that cannot grow does to the lines).
KEST_DISPATCHER_API bool dispatchMessage(const std::shared_ptr<const Message>& message,
                                         const std::shared_ptr<MessageQueueInterface>& queue,
                                         ServedSet& served);

}  // namespace Kest::Msgs
