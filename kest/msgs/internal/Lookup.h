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
#include <cstdint>
#include <cstring>
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

// Equal strings. Address parts are short: they are compared 8 bytes at a
// time in place, without a call into the C library's memcmp per part.
inline bool sameText(const std::string& a, const std::string& b) noexcept {
    const std::size_t n = a.size();
    if (n != b.size()) return false;
    const char* p = a.data();
    const char* q = b.data();
    const auto word = [](const char* at) {
        std::uint64_t v;
        std::memcpy(&v, at, sizeof v);
        return v;
    };
    if (n < 8) {
        if (n >= 4) {
            // The first 4 and the last 4, which may overlap.
            std::uint32_t a[2];
            std::uint32_t b[2];
            std::memcpy(&a[0], p, 4);
            std::memcpy(&a[1], p + n - 4, 4);
            std::memcpy(&b[0], q, 4);
            std::memcpy(&b[1], q + n - 4, 4);
            return a[0] == b[0] && a[1] == b[1];
        }
        for (std::size_t i = 0; i < n; ++i) {
            if (p[i] != q[i]) return false;
        }
        return true;
    }
    for (std::size_t i = 0; i + 8 < n; i += 8) {
        if (word(p + i) != word(q + i)) return false;
    }
    return word(p + n - 8) == word(q + n - 8);  // the last 8, overlapping what was compared
}

inline bool isPrefix(const std::vector<std::string>& prefix, const std::vector<std::string>& of) noexcept {
    return prefix.size() <= of.size() && std::equal(prefix.begin(), prefix.end(), of.begin(), sameText);
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
