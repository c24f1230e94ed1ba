#include <kest/model/MessageQueueInterface.h>

namespace Kest::Msgs {

std::shared_ptr<const Message> MessageQueueInterface::getMessage() {
    return getMessage(std::chrono::milliseconds::max());
}

void MessageQueueInterface::takeAllAvailableMessages(
    std::list<std::shared_ptr<const Message>>& out) {
    // Bounded by the count seen on entry, so that a busy writer cannot keep
    // this loop going; an empty result means nothing more is there.
    for (unsigned int pending = getAvailableMessagesCount(); pending > 0; --pending) {
        std::shared_ptr<const Message> message = getMessage(std::chrono::milliseconds(0));
        if (!message) break;
        out.push_back(std::move(message));
    }
}

}  // namespace Kest::Msgs
