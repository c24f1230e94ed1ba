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
    for (unsigned int pending = getAvailableMessagesCount(); pending > 0; --pending) {
        std::shared_ptr<const Message> message = getMessage(std::chrono::milliseconds(0));
        if (message) {
            out.push_back(std::move(message));
        } else if (getAvailableMessagesCount() == 0) {
            break;
        }
    }
}

}  // namespace Kest::Msgs
