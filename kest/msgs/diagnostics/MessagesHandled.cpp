#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <functional>
#include <utility>

namespace Kest::Msgs {

namespace {

// The index holds every position of a full ring at most half full.
std::size_t indexSizeFor(unsigned int historyLength) {
    std::size_t size = 64;
    while (size < 2 * static_cast<std::size_t>(historyLength)) size *= 2;
    return size;
}

}  // namespace

MessagesHandled::MessagesHandled() noexcept : historyLength_(DefaultHistoryLength) {}

MessagesHandled::MessagesHandled(const MessagesHandled& other)
    : oldest_(other.oldest_), historyLength_(other.historyLength_) {
    if (other.index_.empty()) return;
    // Reserved as the original is, so that the copy never grows either.
    ring_.reserve(historyLength_);
    ring_.assign(other.ring_.begin(), other.ring_.end());
    hashes_.reserve(historyLength_);
    hashes_.assign(other.hashes_.begin(), other.hashes_.end());
    scopes_.reserve(historyLength_);
    scopes_.assign(other.scopes_.begin(), other.scopes_.end());
    index_ = other.index_;
}

MessagesHandled& MessagesHandled::operator=(const MessagesHandled& other) {
    if (this != &other) {
        MessagesHandled copy(other);
        swap(copy);
    }
    return *this;
}

MessagesHandled::MessagesHandled(MessagesHandled&& other) noexcept : historyLength_(other.historyLength_) {
    swap(other);
}

MessagesHandled& MessagesHandled::operator=(MessagesHandled&& other) noexcept {
    if (this != &other) {
        // Our old history leaves with `taken`; `other` is left empty.
        MessagesHandled taken(std::move(other));
        swap(taken);
    }
    return *this;
}

MessagesHandled::~MessagesHandled() = default;

void MessagesHandled::swap(MessagesHandled& other) noexcept {
    ring_.swap(other.ring_);
    hashes_.swap(other.hashes_);
    scopes_.swap(other.scopes_);
    std::swap(oldest_, other.oldest_);
    index_.swap(other.index_);
    std::swap(historyLength_, other.historyLength_);
}

std::uint32_t MessagesHandled::positionOf(const std::string& id, std::uint64_t hash) const noexcept {
    if (index_.empty()) return kFree;
    const std::size_t mask = index_.size() - 1;
    const auto tag = static_cast<std::uint32_t>(hash >> 32);
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
        const Slot& slot = index_[i];
        if (slot.position == kFree) return kFree;
        if (slot.hashTag == tag && ring_[slot.position] == id) return slot.position;
    }
}

bool MessagesHandled::isMessageHandled(const std::string& id) const {
    return positionOf(id, std::hash<std::string>()(id)) != kFree;
}

bool MessagesHandled::isMessageHandled(const std::string& id) {
    return static_cast<const MessagesHandled&>(*this).isMessageHandled(id);
}

void MessagesHandled::reserveStorage() {
    // Built aside and swapped in, so that a failure leaves the history unused.
    std::vector<std::string> ring;
    ring.reserve(historyLength_);
    std::vector<std::uint64_t> hashes;
    hashes.reserve(historyLength_);
    std::vector<std::uint8_t> scopes;
    scopes.reserve(historyLength_);
    std::vector<Slot> index(indexSizeFor(historyLength_), Slot{kFree, 0});
    ring_.swap(ring);
    hashes_.swap(hashes);
    scopes_.swap(scopes);
    index_.swap(index);
    oldest_ = 0;
}

bool MessagesHandled::handleMessage(const std::string& id) { return handleMessage(id, PostScope::Both); }

bool MessagesHandled::handleMessage(const std::string& id, PostScope scope) {
    const auto bits = static_cast<std::uint8_t>(scope);
    if (bits == 0 || (bits & ~static_cast<std::uint8_t>(PostScope::Both)) != 0) return false;
    const std::uint64_t hash = std::hash<std::string>()(id);
    const std::uint32_t found = positionOf(id, hash);
    if (found != kFree) {
        // A repeat in this half is refused; the other half is handled now.
        // Either way the string keeps its place.
        if ((scopes_[found] & bits) != 0) return false;
        scopes_[found] = static_cast<std::uint8_t>(scopes_[found] | bits);
        return true;
    }
    if (index_.empty()) reserveStorage();

    // Everything that can throw happens before the first change.
    if (ring_.size() < historyLength_) {
        std::string copy(id);
        const auto position = static_cast<std::uint32_t>(ring_.size());
        // Within the reserved capacity: neither push_back allocates.
        ring_.push_back(std::move(copy));
        hashes_.push_back(hash);
        scopes_.push_back(bits);
        insertIndex(position, hash);
        return true;
    }

    // Full: the newest takes the place of the oldest, which is forgotten.
    const auto position = static_cast<std::uint32_t>(oldest_);
    std::string& slot = ring_[position];
    if (id.size() <= slot.capacity()) {
        eraseIndex(position);
        slot.assign(id.data(), id.size());  // fits the slot's buffer: no allocation
    } else {
        std::string copy(id);
        eraseIndex(position);
        slot.swap(copy);
    }
    hashes_[position] = hash;
    scopes_[position] = bits;
    insertIndex(position, hash);
    oldest_ = (oldest_ + 1) % ring_.size();
    return true;
}

void MessagesHandled::insertIndex(std::uint32_t position, std::uint64_t hash) noexcept {
    const std::size_t mask = index_.size() - 1;
    std::size_t i = hash & mask;
    while (index_[i].position != kFree) i = (i + 1) & mask;
    index_[i] = Slot{position, static_cast<std::uint32_t>(hash >> 32)};
}

void MessagesHandled::eraseIndex(std::uint32_t position) noexcept {
    // Backward-shift deletion keeps every probe sequence unbroken without tombstones.
    const std::size_t mask = index_.size() - 1;
    std::size_t hole = hashes_[position] & mask;
    while (index_[hole].position != position) hole = (hole + 1) & mask;
    for (std::size_t next = (hole + 1) & mask; index_[next].position != kFree; next = (next + 1) & mask) {
        const std::size_t home = hashes_[index_[next].position] & mask;
        // Move `next` into the hole unless its home lies cyclically in (hole, next].
        const bool homeAfterHole = hole <= next ? (hole < home && home <= next) : (hole < home || home <= next);
        if (homeAfterHole) continue;
        index_[hole] = index_[next];
        hole = next;
    }
    index_[hole] = Slot{kFree, 0};
}

}  // namespace Kest::Msgs
