#include <kest/msgs/Routing.h>
#include <kest/msgs/diagnostics/MessageTrace.h>
#include <kest/msgs/internal/Delivery.h>

#include <iostream>

namespace Kest::Msgs {

namespace detail {

bool putOrWarn(const std::shared_ptr<const Message>& message, MessageQueueInterface* queue) {
    // An empty queue pointer (services accept one) cannot take anything: a refusal.
    if (queue != nullptr && queue->putMessage(message)) return true;
    std::cout << "PLOX!!!! Warning ---- dropping msg" << std::endl;
    handleMessageDirect("PLOX message is - ", *message);
    return false;
}

}  // namespace detail

bool dispatchMessage(const std::shared_ptr<const Message>& message,
                     const std::shared_ptr<MessageQueueInterface>& queue, ServedSet& served) {
    if (served.find(queue) != served.end()) return true;
    if (!detail::putOrWarn(message, queue.get())) return false;
    served.insert(queue);
    return true;
}

}  // namespace Kest::Msgs
