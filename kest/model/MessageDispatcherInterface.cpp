#include <kest/model/MessageDispatcherInterface.h>

namespace Kest::Msgs {

const std::string MessageDispatcherInterface::DispatcherType = "Kest::Msgs::MessageDispatcher";
const std::string MessageDispatcherInterface::QueueType = "Kest::Msgs::MessageQueue";
const std::string MessageDispatcherInterface::FixedDepthQueueType =
    "Kest::Msgs::MessageQueue_FixedDepth";
const std::string MessageDispatcherInterface::CallbackQueueType = "Kest::Msgs::MessageCallback";

bool MessageDispatcherInterface::disconnectQueue(std::shared_ptr<MessageQueueInterface> queue) {
    unsubscribeFromAll(queue);
    unregisterAll(std::move(queue));
    return true;
}

}  // namespace Kest::Msgs
