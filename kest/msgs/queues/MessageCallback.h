#pragma once

// MessageCallback: a receiving end that stores nothing and hands each message,
// at the moment it is put, to a function on the putting thread.
//
// Threads: deliveries are serialised by the object's mutex. The callback runs
// under that mutex and, for posted messages, under the dispatcher's lock, so
// it must not put into the same MessageCallback, nor replace the callback
// that is running: putMessage and setCallback called from inside this
// object's own callback (on the thread that runs it) throw std::system_error
// with std::errc::resource_deadlock_would_occur and change nothing, instead of
// deadlocking or destroying the running function. Calls back into the
// dispatcher are refused the same way (see MessageDispatcher). setCallback
// and getCallback take no lock: set the callback before handing the object to
// a dispatcher.

#include <kest/components/Component_Base.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/Api.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Kest::Msgs {

class KEST_DISPATCHER_API MessageCallback : public CallbackMessageQueueInterface,
                                            public Component_Base {
public:
    // Keeps a copy of `callback`, which may be empty. Strong guarantee (both
    // constructors): std::bad_alloc makes nothing.
    explicit MessageCallback(Callback callback);
    // The arguments are ignored; no callback is set.
    explicit MessageCallback(const std::vector<std::string>& args);

    MessageCallback(const MessageCallback&) = delete;
    MessageCallback& operator=(const MessageCallback&) = delete;

    // Always empty, at once.
    std::shared_ptr<const Message> getMessage(std::chrono::milliseconds timeout) override;
    using MessageQueueInterface::getMessage;
    // Calls the callback with `message` (a null one too) and returns true.
    // It never refuses a message, so unlike the storing queues this one
    // counts nothing: a put either reaches the callback or throws to the
    // caller.
    // Throws std::bad_function_call when no callback is set; the callback's
    // own exceptions pass through. The object stays usable either way.
    // Called from inside this object's own callback: throws std::system_error
    // (std::errc::resource_deadlock_would_occur) and calls nothing. Takes the
    // object's lock for the call. Strong guarantee for what this object
    // does: a std::bad_alloc of the callback's own reaches the caller with
    // the lock released and the callback still set.
    bool putMessage(std::shared_ptr<const Message> message) override;
    // Does nothing: there is nothing stored.
    void takeAllAvailableMessages(std::list<std::shared_ptr<const Message>>& out) override;
    // Always 0. Allocates nothing, as takeAllAvailableMessages.
    unsigned int getAvailableMessagesCount() const override;
    // Replaces the callback; the previous one is destroyed after the
    // exchange. Called from inside this object's own callback: throws
    // std::system_error (std::errc::resource_deadlock_would_occur) and
    // changes nothing, since it would destroy the running function. Strong
    // guarantee: on std::bad_alloc the old callback stays.
    void setCallback(Callback callback) override;
    // A copy of the callback. Strong guarantee: on std::bad_alloc nothing changes.
    Callback getCallback() const override;

private:
    std::mutex mutex_;   // serialises deliveries
    Callback callback_;  // written only by setCallback, before delivery starts
    // The thread running the callback (holding mutex_), or the empty id.
    std::atomic<std::thread::id> runner_{std::thread::id()};
};

}  // namespace Kest::Msgs
