#include <kest/model/MessageQueueInterface.h>

namespace Kest::Msgs {

std::shared_ptr<const Message> MessageQueueInterface::getMessage() {
    return getMessage(std::chrono::milliseconds::max());
}

void MessageQueueInterface::takeAllAvailableMessages(
    std::list<std::shared_ptr<const Message>>& out) {
    // Bounded by the count seen on entry, so that a busy writer cannot keep
    // this loop going. Each zero time-out read takes at least one entry when
    // there is one; an empty result is a null entry the queue held (or
    // nothing), so the loop goes on while the queue still counts entries.
    unsigned int pending = getAvailableMessagesCount();
    if (pending == 0) return;
    // Every list node is made before the first message leaves the queue: a
    // message taken out must never be lost because its node could not be made.
    std::list<std::shared_ptr<const Message>> taken(pending);
    auto next = taken.begin();
    try {
        for (; pending > 0; --pending) {
            std::shared_ptr<const Message> message = getMessage(std::chrono::milliseconds(0));
            if (message) {
                *next++ = std::move(message);
            } else if (getAvailableMessagesCount() == 0) {
                break;
            }
        }
    } catch (...) {
        // What was taken before a failure still reaches the caller.
        taken.erase(next, taken.end());
        out.splice(out.end(), taken);
        throw;
    }
    taken.erase(next, taken.end());
    out.splice(out.end(), taken);
}

}  // namespace Kest::Msgs
