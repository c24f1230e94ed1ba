#include <kest/msgs/diagnostics/MessagesHandled.h>

namespace Kest::Msgs {

MessagesHandled::MessagesHandled() : historyLength_(DefaultHistoryLength) {}

bool MessagesHandled::isMessageHandled(const std::string& id) const {
    return lookup_.find(id) != lookup_.end();
}

bool MessagesHandled::handleMessage(const std::string& id) {
    if (!lookup_.insert(id).second) return false;
    order_.push_back(id);
    if (order_.size() > historyLength_) {
        lookup_.erase(order_.front());
        order_.pop_front();
    }
    return true;
}

}  // namespace Kest::Msgs
