#include <kest/msgs/Routing.h>
#include <kest/msgs/diagnostics/MessageTrace.h>

#include <iostream>

namespace Kest::Msgs {

bool dispatchMessage(const std::shared_ptr<const Message>& message,
                     const std::shared_ptr<MessageQueueInterface>& queue, ServedSet& served) {
    if (served.find(queue) != served.end()) return true;
    // An empty queue pointer (services accept one) cannot take anything: a refusal.
    if (queue && queue->putMessage(message)) {
        served.insert(queue);
        return true;
    }
    std::cout << "PLOX!!!! Warning ---- dropping msg" << std::endl;
    handleMessageDirect("PLOX message is - ", *message);
    return false;
}

}  // namespace Kest::Msgs
