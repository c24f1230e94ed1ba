#include <kest/msgs/diagnostics/MessagesHandled.h>

#include <functional>

namespace Kest::Msgs {

MessagesHandled::MessagesHandled() : historyLength_(DefaultHistoryLength) {}

std::size_t MessagesHandled::find(const std::string& id, std::uint64_t hash) const {
    if (index_.empty()) return index_.size();
    const std::size_t mask = index_.size() - 1;
    const auto tag = static_cast<std::uint32_t>(hash >> 32);
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
        const Slot& slot = index_[i];
        if (slot.position == kFree) return index_.size();
        if (slot.hashTag == tag && ring_[slot.position] == id) return i;
    }
}

bool MessagesHandled::isMessageHandled(const std::string& id) const {
    return find(id, std::hash<std::string>()(id)) != index_.size();
}

bool MessagesHandled::handleMessage(const std::string& id) {
    const std::uint64_t hash = std::hash<std::string>()(id);
    if (find(id, hash) != index_.size()) return false;  // a repeat keeps its place

    std::uint32_t position;
    if (ring_.size() < historyLength_) {
        position = static_cast<std::uint32_t>(ring_.size());
        ring_.push_back(id);
        hashes_.push_back(hash);
        if (ring_.size() * 2 > index_.size()) growIndex();
    } else {
        // Full: the newest takes the place of the oldest, which is forgotten.
        position = static_cast<std::uint32_t>(oldest_);
        eraseIndex(position);
        ring_[position] = id;
        hashes_[position] = hash;
        oldest_ = (oldest_ + 1) % ring_.size();
    }
    insertIndex(position, hash);
    return true;
}

void MessagesHandled::insertIndex(std::uint32_t position, std::uint64_t hash) {
    const std::size_t mask = index_.size() - 1;
    std::size_t i = hash & mask;
    while (index_[i].position != kFree) i = (i + 1) & mask;
    index_[i] = Slot{position, static_cast<std::uint32_t>(hash >> 32)};
}

void MessagesHandled::eraseIndex(std::uint32_t position) {
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

void MessagesHandled::growIndex() {
    std::vector<Slot> old(index_.empty() ? 64 : index_.size() * 2, Slot{kFree, 0});
    old.swap(index_);
    for (const Slot& slot : old) {
        if (slot.position != kFree) insertIndex(slot.position, hashes_[slot.position]);
    }
}

}  // namespace Kest::Msgs
