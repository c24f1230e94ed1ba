#include <kest/internal/Schedule.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

namespace Kest::Msgs {

MessageQueue_FixedDepth::MessageQueue_FixedDepth(unsigned int maxDepth) : maxDepth_(maxDepth) {}

MessageQueue_FixedDepth::MessageQueue_FixedDepth(const std::vector<std::string>& args)
    : MessageQueue(args), maxDepth_(DefaultDepth) {}

std::shared_ptr<const Message> MessageQueue_FixedDepth::getMessage(std::chrono::milliseconds timeout) {
    return MessageQueue::getMessage(timeout);
}

bool MessageQueue_FixedDepth::putMessage(std::shared_ptr<const Message> message) {
    Kest::detail::LockGuard lock(mutex());
    if (internalIsClosed() || maxDepth_.load(std::memory_order_relaxed) <= internalCount()) {
        internalCountRefusedPut();
        return false;
    }
    internalPutMessage(std::move(message));
    return true;
}

unsigned int MessageQueue_FixedDepth::getAvailableMessagesCount() const {
    return MessageQueue::getAvailableMessagesCount();
}

void MessageQueue_FixedDepth::setMaxDepth(unsigned int depth) {
    if (depth != 0) maxDepth_.store(depth, std::memory_order_relaxed);
}

unsigned int MessageQueue_FixedDepth::getMaxDepth() const {
    return maxDepth_.load(std::memory_order_relaxed);
}

}  // namespace Kest::Msgs
