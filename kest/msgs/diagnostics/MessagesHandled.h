#pragma once

// MessagesHandled: the identity strings of the most recently accepted
// messages, so that a message reaching a dispatcher twice (over two routes,
// say) is delivered once. Remembers the last 10000 distinct strings and
// forgets them strictly in the order in which they were first accepted.
//
// Threads: no lock of its own; the owner serialises every call (a dispatcher
// calls it only under its own mutex).

#include <kest/msgs/Api.h>

#include <deque>
#include <string>
#include <unordered_set>

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
    std::unordered_set<std::string> lookup_;  // the same strings as order_
    std::deque<std::string> order_;           // oldest first
    unsigned int historyLength_;
};

}  // namespace Kest::Msgs
