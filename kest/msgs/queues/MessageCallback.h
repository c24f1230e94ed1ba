#pragma once

// MessageCallback: a receiving end that stores nothing and hands each message,
// at the moment it is put, to a function on the putting thread.
//
// Threads: deliveries are serialised by the object's mutex. The callback runs
// under that mutex and, for posted messages, under the dispatcher's lock: it
// must not post to the same dispatcher nor put into the same MessageCallback
// (that deadlocks, undetected). setCallback and getCallback take no lock: set
// the callback before handing the object to a dispatcher.

#include <kest/components/Component_Base.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/Api.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Kest::Msgs {

class KEST_DISPATCHER_API MessageCallback : public CallbackMessageQueueInterface,
                                            public Component_Base {
public:
    // Keeps a copy of `callback`, which may be empty.
    explicit MessageCallback(Callback callback);
    // The arguments are ignored; no callback is set.
    explicit MessageCallback(const std::vector<std::string>& args);

    MessageCallback(const MessageCallback&) = delete;
    MessageCallback& operator=(const MessageCallback&) = delete;

    // Always empty, at once.
    std::shared_ptr<const Message> getMessage(std::chrono::milliseconds timeout) override;
    using MessageQueueInterface::getMessage;
    // Calls the callback with `message` (a null one too) and returns true.
    // Throws std::bad_function_call when no callback is set; the callback's
    // own exceptions pass through. The object stays usable either way.
    bool putMessage(std::shared_ptr<const Message> message) override;
    // Does nothing: there is nothing stored.
    void takeAllAvailableMessages(std::list<std::shared_ptr<const Message>>& out) override;
    // Always 0.
    unsigned int getAvailableMessagesCount() const override;
    void setCallback(Callback callback) override;
    Callback getCallback() const override;

private:
    std::mutex mutex_;   // serialises deliveries
    Callback callback_;  // written only by setCallback, before delivery starts
};

}  // namespace Kest::Msgs
