#pragma once

// MessagesHandled: the identity strings of the most recently accepted
// messages, so that a message reaching a dispatcher twice (over two routes,
// say) is delivered once. Remembers the last 10000 distinct strings and
// forgets them strictly in the order in which they were first accepted.
//
// Threads: no lock of its own; the owner serialises every call (a dispatcher
// calls it only under its own mutex).

#include <kest/msgs/Api.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Kest::Msgs {

class KEST_DISPATCHER_API MessagesHandled {
public:
    static constexpr unsigned int DefaultHistoryLength = 10000;

    MessagesHandled();

    // True when `id` is remembered. No change.
    bool isMessageHandled(const std::string& id) const;
    // False for a remembered `id` (a repeat; its place in the history does not
    // change). Otherwise remembers it, forgets the oldest string when more
    // than the history length are held, and returns true.
    bool handleMessage(const std::string& id);

private:
    // One slot of the open-addressing index: a position in the ring and the
    // high half of its string's hash, or kFree.
    struct Slot {
        std::uint32_t position;
        std::uint32_t hashTag;
    };
    static constexpr std::uint32_t kFree = 0xFFFFFFFFu;

    std::size_t find(const std::string& id, std::uint64_t hash) const;
    void insertIndex(std::uint32_t position, std::uint64_t hash);
    void eraseIndex(std::uint32_t position);
    void growIndex();

    // The remembered strings in a ring, the oldest at oldest_ once the ring is
    // full; each string's hash beside it. Strings are assigned in place when
    // the ring turns, so a full history allocates nothing per message.
    std::vector<std::string> ring_;
    std::vector<std::uint64_t> hashes_;
    std::size_t oldest_ = 0;
    // Linear probing over positions in ring_; at most half full.
    std::vector<Slot> index_;
    unsigned int historyLength_;
};

}  // namespace Kest::Msgs
