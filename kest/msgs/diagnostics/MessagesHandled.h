#pragma once

// MessagesHandled: the identity strings of the most recently accepted
// messages, so that a message reaching a dispatcher twice (over two routes,
// say) is delivered once. Remembers the last 10000 distinct strings and
// forgets them strictly in the order in which they were first accepted.
//
// Each remembered string carries the scopes (PostScope) in which it was
// handled, so that the subscriber half and the service half of one message
// can be handled apart, each once. The plain handleMessage(id) handles both
// halves at once.
//
// Memory: nothing until the first handleMessage, which reserves the storage
// of the whole history at once (about 450 KB); no container grows after
// that, and a full history of identities of up to 18 characters allocates
// nothing per message.
//
// Threads: no lock of its own; the owner serialises every call (a dispatcher
// calls it only under its own mutex).

#include <kest/msgs/Api.h>
#include <kest/msgs/PostScope.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Kest::Msgs {

class MessageDispatcher;

class KEST_DISPATCHER_API MessagesHandled {
public:
    static constexpr unsigned int DefaultHistoryLength = 10000;

    // An empty history. Allocates nothing.
    MessagesHandled() noexcept;
    // A history that answers and evicts exactly as `other` does. Throws
    // std::bad_alloc when memory runs out.
    MessagesHandled(const MessagesHandled& other);
    // Strong guarantee: on std::bad_alloc this history is unchanged.
    MessagesHandled& operator=(const MessagesHandled& other);
    // Take over `other`'s history; `other` is left empty and usable.
    MessagesHandled(MessagesHandled&& other) noexcept;
    MessagesHandled& operator=(MessagesHandled&& other) noexcept;
    ~MessagesHandled();

    // True when `id` is remembered. No change. Allocates nothing.
    bool isMessageHandled(const std::string& id) const;
    bool isMessageHandled(const std::string& id);
    // False for a remembered `id` (a repeat; its place in the history does not
    // change). Otherwise remembers it, forgets the oldest string when more
    // than the history length are held, and returns true. Strong guarantee:
    // when it throws std::bad_alloc (reserving the storage on the first
    // call, or copying an `id` longer than the slot it replaces), the
    // history is exactly as before the call.
    bool handleMessage(const std::string& id);
    // handleMessage(id) for one scope. False when `id` is remembered with a
    // scope that overlaps `scope` (a repeat in that half), and for a value
    // that is no PostScope; nothing changes then. For a remembered `id`
    // handled so far in the other half only, adds `scope` to it (its place in
    // the history does not change; this allocates nothing) and returns true.
    // Otherwise remembers `id` with `scope`, as handleMessage(id) does with
    // both. handleMessage(id, PostScope::Both) is handleMessage(id). Strong
    // guarantee, as handleMessage(id).
    bool handleMessage(const std::string& id, PostScope scope);

private:
    // For the dispatcher: a post of `id` that reached no queue before it
    // failed (out of memory) takes back the halves `scope` recorded, so that
    // the message can be posted again. The identity keeps its place in the
    // ring (one it evicted to get there stays forgotten). Never allocates.
    friend class MessageDispatcher;
    void forgetMessage(const std::string& id, PostScope scope) noexcept;

    struct Entry;  // one remembered string, its hash, scopes and bucket link (see the .cpp)
    static constexpr std::uint32_t kNone = 0xFFFFFFFFu;

    // The ring position of `id`, or kNone; `last` is set to the newest
    // entry of the bucket of `hash`, or kNone when the bucket is empty.
    std::uint32_t find(const std::string& id, std::uint32_t hash, std::uint32_t& last) const noexcept;
    void reserveStorage();
    void swap(MessagesHandled& other) noexcept;

    // The remembered strings in a ring, the oldest at oldest_ once the ring is
    // full. Reserved for the whole history on first use; an entry is
    // overwritten in place when the ring turns.
    std::vector<Entry> ring_;
    std::size_t oldest_ = 0;
    // Per hash bucket, the ring position of its oldest string or kNone; the
    // strings of a bucket are chained oldest first through their entries, so
    // the string forgotten is always the first of its chain. Sized on first
    // use; empty exactly while ring_ is unused.
    std::vector<std::uint32_t> buckets_;
    unsigned int historyLength_;
};

}  // namespace Kest::Msgs
