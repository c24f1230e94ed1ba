#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>

#include <algorithm>

namespace Kest::Msgs {

namespace {

const std::vector<std::string> kNoAddress;

inline unsigned long mix(unsigned long seed, unsigned long value) noexcept {
    // The 64-bit combine of boost::hash_combine's later versions.
    seed ^= value + 0x9e3779b97f4a7c15UL + (seed << 12) + (seed >> 4);
    return seed;
}

unsigned long hashAddress(unsigned long seed, const std::vector<std::string>& address) noexcept {
    std::hash<std::string> hashString;
    seed = mix(seed, address.size());
    for (const std::string& part : address) seed = mix(seed, hashString(part));
    return seed;
}

bool isPrefix(const std::vector<std::string>& prefix, const std::vector<std::string>& of) noexcept {
    return prefix.size() <= of.size() && std::equal(prefix.begin(), prefix.end(), of.begin());
}

// A message's address as its key sees it: an unset address is empty.
const std::vector<std::string>& addressOf(const ReflectedAddress& address) noexcept {
    return address.initialized() ? address.values() : kNoAddress;
}

}  // namespace

unsigned long MessageKey::HasherWithSender::operator()(const MessageKey& key) const noexcept {
    return hashAddress(mix(0x51, key.id_), key.sender_);
}

unsigned long MessageKey::HasherWithDestination::operator()(const MessageKey& key) const noexcept {
    return hashAddress(mix(0xD5, key.id_), key.destination_);
}

unsigned long MessageKey::Hasher::operator()(const MessageKey& key) const noexcept {
    return hashAddress(hashAddress(mix(0xA1, key.id_), key.sender_), key.destination_);
}

MessageKey::MessageKey(unsigned long id, const std::vector<std::string>& sender,
                       const std::vector<std::string>& destination, HashFunction hasher)
    : id_(id), sender_(sender), destination_(destination), hasher_(std::move(hasher)) {}

MessageKey::MessageKey(const Message& message, HashFunction hasher)
    : id_(message.id()),
      sender_(addressOf(message.sender)),
      destination_(addressOf(message.destination)),
      hasher_(std::move(hasher)) {}

bool MessageKey::operator==(const MessageKey& other) const noexcept {
    return id_ == other.id_ && sender_ == other.sender_ && destination_ == other.destination_;
}

bool MessageKey::covers(const MessageKey& other) const noexcept {
    return id_ == other.id_ && isPrefix(sender_, other.sender_) && isPrefix(destination_, other.destination_);
}

std::unordered_set<MessageKey, MessageKey::Hasher> MessageKey::hashMessagesList(
    const MessageKey& key, HashingGroup group) {
    const std::vector<std::string>& address =
        group == HashingGroup::Sender ? key.sender_ : key.destination_;
    std::unordered_set<MessageKey, Hasher> candidates;
    candidates.reserve(address.size() + 1);
    std::vector<std::string> prefix;
    prefix.reserve(address.size());
    for (std::size_t length = 0;; ++length) {
        if (group == HashingGroup::Sender) {
            candidates.emplace(key.id_, prefix, kNoAddress, HashFunction());
        } else {
            candidates.emplace(key.id_, kNoAddress, prefix, HashFunction());
        }
        if (length == address.size()) break;
        prefix.push_back(address[length]);
    }
    return candidates;
}

}  // namespace Kest::Msgs
