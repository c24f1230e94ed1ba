#include <kest/msgs/internal/OwnedLock.h>
#include <kest/msgs/queues/MessageCallback.h>

namespace Kest::Msgs {

namespace {

constexpr const char* kInsideCallback = "this queue's own callback";

}  // namespace

MessageCallback::MessageCallback(Callback callback) : callback_(std::move(callback)) {}

MessageCallback::MessageCallback(const std::vector<std::string>& /*args*/) {}

std::shared_ptr<const Message> MessageCallback::getMessage(std::chrono::milliseconds /*timeout*/) {
    return {};
}

bool MessageCallback::putMessage(std::shared_ptr<const Message> message) {
    detail::OwnedLock lock(mutex_, runner_, "MessageCallback::putMessage", kInsideCallback);
    callback_(message);  // empty: std::bad_function_call
    return true;
}

void MessageCallback::takeAllAvailableMessages(std::list<std::shared_ptr<const Message>>& /*out*/) {}

unsigned int MessageCallback::getAvailableMessagesCount() const { return 0; }

void MessageCallback::setCallback(Callback callback) {
    detail::throwIfOwner(runner_, "MessageCallback::setCallback", kInsideCallback);
    callback_.swap(callback);  // the previous callback dies with `callback`, after the exchange
}

MessageCallback::Callback MessageCallback::getCallback() const { return callback_; }

}  // namespace Kest::Msgs
