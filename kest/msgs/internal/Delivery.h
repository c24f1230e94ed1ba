#pragma once

// What one post needs beyond the public routing functions: the delivery into
// one queue and a served set that does not allocate for the usual handful of
// receivers. Internal to the dispatcher library.

#include <kest/model/Message.h>
#include <kest/model/MessageQueueInterface.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <cstdint>
#include <unordered_set>
#include <vector>

namespace Kest::Msgs::detail {

// Prints the drop warning and the message's trace; returns false.
bool warnDropped(const Message& message);

// Puts `message` into `queue`; on refusal (or an empty `queue`) prints the
// drop warning and the message's trace and returns false. Inline, so that a
// delivery is one virtual call.
inline bool putOrWarn(const std::shared_ptr<const Message>& message, MessageQueueInterface* queue) {
    // An empty queue pointer (services accept one) cannot take anything: a refusal.
    if (queue != nullptr && queue->putMessage(message)) return true;
    return warnDropped(*message);
}

// The queues of one post that hold the message or must never get it, by
// identity. The first few are kept inline and searched linearly; beyond
// that an open-addressing table (one allocation, grown by doubling) keeps a
// post to a hundred subscribers from allocating a node per queue.
//
// The first set of distinct queues a post delivers to, before any other,
// can be taken as a whole (takeWhole): then its queues are served without
// being inserted one by one, except those that refused the message
// (refused), which are looked up apart. A post with one covering entry so
// never builds a set at all.
class ServedQueues {
public:
    using QueueSet = std::unordered_set<std::shared_ptr<MessageQueueInterface>>;

    explicit ServedQueues(const MessageQueueInterface* sender) noexcept : count_(1) { inline_[0] = sender; }

    const MessageQueueInterface* sender() const noexcept { return inline_[0]; }

    // True when nothing but the sender is served yet, so that a set of
    // distinct queues can be taken whole.
    bool onlySender() const noexcept { return count_ == 1 && whole_ == nullptr; }

    // Counts every queue of `queues` as served from now on, except the ones
    // passed to refused(). `queues` must outlive this object and not change.
    void takeWhole(const QueueSet& queues) noexcept { whole_ = &queues; }

    // `queue`, of the set taken whole, did not take the message.
    void refused(const MessageQueueInterface* queue) { refused_.push_back(queue); }

    bool contains(const MessageQueueInterface* queue) const noexcept {
        for (std::size_t i = 0; i < count_ && i < inline_.size(); ++i) {
            if (inline_[i] == queue) return true;
        }
        if (whole_ != nullptr && inWhole(queue)) return true;
        if (table_.empty()) return false;
        for (std::size_t i = slotOf(queue);; i = (i + 1) & (table_.size() - 1)) {
            if (table_[i] == queue) return true;
            if (table_[i] == kEmpty) return false;
        }
    }

    // Whether some queue took the message in this post; a post that fails
    // before any did can be taken back whole.
    void notePut() noexcept { anyPut_ = true; }
    bool anyPut() const noexcept { return anyPut_; }

    // Makes room for one more queue: the only step of an insertion that can
    // run out of memory, taken before the queue is given the message.
    void reserveOne() {
        if (count_ >= inline_.size() && (count_ - inline_.size() + 1) * 2 > table_.size()) grow();
    }

    // `queue` must not be in the set yet, and reserveOne() must have been
    // called since the last insertion.
    void insert(const MessageQueueInterface* queue) noexcept {
        if (count_ < inline_.size()) {
            inline_[count_++] = queue;
            return;
        }
        place(queue);
        ++count_;
    }

private:
    bool inWhole(const MessageQueueInterface* queue) const noexcept {
        // An aliasing pointer without an owner: a key for the lookup, no count.
        const std::shared_ptr<MessageQueueInterface> key(std::shared_ptr<MessageQueueInterface>(),
                                                         const_cast<MessageQueueInterface*>(queue));
        return whole_->count(key) != 0 && std::find(refused_.begin(), refused_.end(), queue) == refused_.end();
    }

    // Never a queue's address: a queue object is at least pointer-aligned.
    static inline const MessageQueueInterface* const kEmpty =
        reinterpret_cast<const MessageQueueInterface*>(std::uintptr_t{1});

    std::size_t slotOf(const MessageQueueInterface* queue) const noexcept {
        const auto bits = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(queue));
        return static_cast<std::size_t>((bits * 0x9e3779b97f4a7c15ULL) >> 32) & (table_.size() - 1);
    }

    void place(const MessageQueueInterface* queue) noexcept {
        std::size_t i = slotOf(queue);
        while (table_[i] != kEmpty) i = (i + 1) & (table_.size() - 1);
        table_[i] = queue;
    }

    void grow() {
        std::vector<const MessageQueueInterface*> old(table_.empty() ? 64 : table_.size() * 2, kEmpty);
        old.swap(table_);
        for (const MessageQueueInterface* queue : old) {
            if (queue != kEmpty) place(queue);
        }
    }

    std::array<const MessageQueueInterface*, 16> inline_;
    std::size_t count_;
    bool anyPut_ = false;
    std::vector<const MessageQueueInterface*> table_;  // kEmpty or a queue; size a power of two
    const QueueSet* whole_ = nullptr;
    std::vector<const MessageQueueInterface*> refused_;  // of whole_
};

// dispatchMessage over a ServedQueues.
inline bool deliver(const std::shared_ptr<const Message>& message, MessageQueueInterface* queue,
                    ServedQueues& served) {
    if (served.contains(queue)) return true;
    // Room first: a queue that took the message is always recorded as served.
    served.reserveOne();
    if (!putOrWarn(message, queue)) return false;
    served.insert(queue);
    served.notePut();
    return true;
}

}  // namespace Kest::Msgs::detail
