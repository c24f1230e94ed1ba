#pragma once

// MessageKey: the routing key of a message or of a table entry.
//
// A key holds a message identifier (packed), a sender address and a
// destination address, each a path with its most general part first, plus an
// optional hash function given at construction. Keys are values. Equality and
// the hasher classes look at identifier and addresses only, never at the
// stored hash function.
//
// Routing is by prefix: a table key covers a message key when the identifiers
// are equal and each of the table key's addresses is a prefix of the message
// key's address on the same side. An empty address is a prefix of every
// address, so an empty sender in a subscription means "from any sender".
//
// Memory: constructors and copies allocate the addresses; if memory runs out
// they throw std::bad_alloc and make nothing, and copy assignment leaves the
// key unchanged (strong guarantee). Comparison, covers, the hashers, the
// accessors and moves allocate nothing.

#include <kest/model/Api.h>

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

namespace Kest::Msgs {

class Message;

class KEST_MESSAGES_API MessageKey {
public:
    using HashFunction = std::function<unsigned long(const MessageKey&)>;

    // Which side of a key a candidate list is built for.
    enum class HashingGroup : std::uint8_t {
        Sender = 1,       // subscriptions: identifier and sender address
        Destination = 2,  // services: identifier and destination address
    };

    // Hashes identifier and sender address: the subscriptions table's hasher.
    struct KEST_MESSAGES_API HasherWithSender {
        unsigned long operator()(const MessageKey& key) const noexcept;
    };
    // Hashes identifier and destination address: the services table's hasher.
    struct KEST_MESSAGES_API HasherWithDestination {
        unsigned long operator()(const MessageKey& key) const noexcept;
    };
    // Hashes identifier and both addresses: the hasher of candidate sets.
    struct KEST_MESSAGES_API Hasher {
        unsigned long operator()(const MessageKey& key) const noexcept;
    };

    // A key from parts.
    MessageKey(unsigned long id, const std::vector<std::string>& sender,
               const std::vector<std::string>& destination, HashFunction hasher);
    // The key of a message: its identifier and its two addresses; an unset
    // address counts as an empty one.
    MessageKey(const Message& message, HashFunction hasher);

    MessageKey(const MessageKey& other) = default;
    MessageKey(MessageKey&& other) noexcept = default;
    // Strong guarantee: if memory runs out, this key is unchanged (copied
    // member by member it could be left with the new sender and the old
    // destination).
    MessageKey& operator=(const MessageKey& other) {
        if (this != &other) *this = MessageKey(other);
        return *this;
    }
    MessageKey& operator=(MessageKey&& other) noexcept = default;
    ~MessageKey() = default;

    unsigned long id() const noexcept { return id_; }
    const std::vector<std::string>& sender() const noexcept { return sender_; }
    const std::vector<std::string>& destination() const noexcept { return destination_; }
    // The function given at construction; may be empty.
    const HashFunction& hashFunction() const noexcept { return hasher_; }

    // Equal identifier, sender and destination.
    bool operator==(const MessageKey& other) const noexcept;
    bool operator!=(const MessageKey& other) const noexcept { return !(*this == other); }

    // True when this key, as a table entry, accepts a message whose key is `other`.
    bool covers(const MessageKey& other) const noexcept;

    // Every table key that could cover `key` on the side `group` selects:
    // group Sender gives (identifier, each prefix of the sender, empty
    // destination), from the empty prefix to the whole address; group
    // Destination gives (identifier, empty sender, each prefix of the
    // destination). Keys are built with an empty hash function. Throws
    // std::bad_alloc when memory runs out; `key` is unchanged.
    static std::unordered_set<MessageKey, Hasher> hashMessagesList(const MessageKey& key,
                                                                   HashingGroup group);

    // Calls visit(const MessageKey&) for each key that hashMessagesList would
    // return for a key with identifier `id` and `address` on the side `group`
    // names, longest prefix first, until visit returns false. The set is not
    // built: the candidates are one key whose address is shortened in place
    // between calls, so nothing is allocated beyond one copy of `address`
    // (std::bad_alloc before the first call of `visit` if that fails).
    template <class Visit>
    static void visitCandidates(unsigned long id, const std::vector<std::string>& address,
                                HashingGroup group, Visit&& visit) {
        const bool senderSide = group == HashingGroup::Sender;
        const std::vector<std::string> none;  // the other side; an empty vector allocates nothing
        MessageKey candidate(id, senderSide ? address : none, senderSide ? none : address, HashFunction());
        std::vector<std::string>& prefix = senderSide ? candidate.sender_ : candidate.destination_;
        for (;;) {
            if (!visit(static_cast<const MessageKey&>(candidate)) || prefix.empty()) break;
            prefix.pop_back();
        }
    }

private:
    unsigned long id_;
    std::vector<std::string> sender_;
    std::vector<std::string> destination_;
    HashFunction hasher_;
};

}  // namespace Kest::Msgs
