#pragma once

// How the posting path finds the table entries that cover a message, without
// building the message's key or a candidate set where the result cannot show
// the difference. Internal to the dispatcher library: the plug-in builds these
// helpers into itself instead of importing helpers of the message library
// that are not part of its interface.

#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>
#include <kest/model/Reflector.h>
#include <kest/msgs/Routing.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

namespace Kest::Msgs::detail {

// The empty address: any sender (or destination) in a table key.
inline const std::vector<std::string>& noAddress() noexcept {
    static const std::vector<std::string> empty;
    return empty;
}

// A message's address as its key sees it: an unset address is empty.
inline const std::vector<std::string>& addressOf(const ReflectedAddress& address) noexcept {
    return address.initialized() ? address.values() : noAddress();
}

inline bool isPrefix(const std::vector<std::string>& prefix, const std::vector<std::string>& of) noexcept {
    return prefix.size() <= of.size() && std::equal(prefix.begin(), prefix.end(), of.begin());
}

// MessageKey::covers against a message key given by its parts, which spares
// building one: same identifier, and each side of `key` a prefix of the
// message's address on that side.
inline bool covers(const MessageKey& key, unsigned long id, const std::vector<std::string>& sender,
                   const std::vector<std::string>& destination) noexcept {
    return key.id() == id && isPrefix(key.sender(), sender) && isPrefix(key.destination(), destination);
}

// Calls visit(const T&) for each entry of `table` whose key covers the key of
// `message` (on the side `group` names), until visit returns false.
//
// Tables of ScanLookupLimit entries or fewer are scanned in table order.
// Larger ones are visited in the iteration order of the message's candidate
// set, MessageKey::hashMessagesList(MessageKey(message), group). Building
// that set costs a key and a node per candidate, so the candidates are first
// probed one key at a time (MessageKey::visitCandidates): with no covering
// entry, or one, there is no order to keep and the set is never built.
template <class T, class Hasher, class Visit>
void forEachCovering(const Message& message, const std::unordered_map<MessageKey, T, Hasher>& table,
                     MessageKey::HashingGroup group, Visit&& visit) {
    const unsigned long id = message.id();
    const std::vector<std::string>& sender = addressOf(message.sender);
    const std::vector<std::string>& destination = addressOf(message.destination);
    if (table.size() <= ScanLookupLimit) {
        for (const auto& entry : table) {
            if (covers(entry.first, id, sender, destination) && !visit(entry.second)) return;
        }
        return;
    }

    // Only the count matters beyond the first: a second covering entry sends
    // the lookup down the ordered path, which finds every entry again.
    const T* first = nullptr;
    std::size_t found = 0;
    const std::vector<std::string>& side = group == MessageKey::HashingGroup::Sender ? sender : destination;
    MessageKey::visitCandidates(id, side, group, [&](const MessageKey& candidate) {
        auto entry = table.find(candidate);
        if (entry == table.end() || !covers(entry->first, id, sender, destination)) return true;
        if (found++ == 0) first = &entry->second;
        return found < 2;
    });
    if (found < 2) {
        if (first != nullptr) visit(*first);
        return;
    }

    const auto candidates = MessageKey::hashMessagesList(MessageKey(message, MessageKey::HashFunction()), group);
    for (const MessageKey& candidate : candidates) {
        auto entry = table.find(candidate);
        if (entry == table.end() || !covers(entry->first, id, sender, destination)) continue;
        if (!visit(entry->second)) return;
    }
}

}  // namespace Kest::Msgs::detail
