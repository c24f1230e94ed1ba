#pragma once

// What one post needs beyond the public routing functions: the delivery into
// one queue and a served set that does not allocate for the usual handful of
// receivers. Internal to the dispatcher library.

#include <kest/model/Message.h>
#include <kest/model/MessageQueueInterface.h>

#include <array>
#include <cstddef>
#include <memory>
#include <cstdint>
#include <vector>

namespace Kest::Msgs::detail {

// Puts `message` into `queue`; on refusal (or an empty `queue`) prints the
// drop warning and the message's trace and returns false.
bool putOrWarn(const std::shared_ptr<const Message>& message, MessageQueueInterface* queue);

// The queues of one post that hold the message or must never get it, by
// identity. The first few are kept inline and searched linearly; beyond
// that an open-addressing table (one allocation, grown by doubling) keeps a
// post to a hundred subscribers from allocating a node per queue.
class ServedQueues {
public:
    explicit ServedQueues(const MessageQueueInterface* sender) noexcept : count_(1) { inline_[0] = sender; }

    bool contains(const MessageQueueInterface* queue) const noexcept {
        for (std::size_t i = 0; i < count_ && i < inline_.size(); ++i) {
            if (inline_[i] == queue) return true;
        }
        if (table_.empty()) return false;
        for (std::size_t i = slotOf(queue);; i = (i + 1) & (table_.size() - 1)) {
            if (table_[i] == queue) return true;
            if (table_[i] == kEmpty) return false;
        }
    }

    // `queue` must not be in the set yet.
    void insert(const MessageQueueInterface* queue) {
        if (count_ < inline_.size()) {
            inline_[count_++] = queue;
            return;
        }
        if ((count_ - inline_.size() + 1) * 2 > table_.size()) grow();
        place(queue);
        ++count_;
    }

private:
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
    std::vector<const MessageQueueInterface*> table_;  // kEmpty or a queue; size a power of two
};

// dispatchMessage over a ServedQueues.
inline bool deliver(const std::shared_ptr<const Message>& message, MessageQueueInterface* queue,
                    ServedQueues& served) {
    if (served.contains(queue)) return true;
    if (!putOrWarn(message, queue)) return false;
    served.insert(queue);
    return true;
}

}  // namespace Kest::Msgs::detail
