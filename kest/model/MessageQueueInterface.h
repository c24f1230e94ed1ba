#pragma once

// MessageQueueInterface: the receiving end of a dispatcher.
//
// Queues are owned through a std::shared_ptr made from their concrete type;
// the interface has no virtual destructor, and its protected one keeps a
// queue from being deleted through it. The order of the virtual operations
// is binary interface.

#include <kest/model/Api.h>

#include <chrono>
#include <functional>
#include <list>
#include <memory>

namespace Kest::Msgs {

class Message;

class KEST_MESSAGES_API MessageQueueInterface {
public:
    // Waits without limit: getMessage(std::chrono::milliseconds::max()).
    // Allocates nothing of its own.
    virtual std::shared_ptr<const Message> getMessage();
    // The oldest message, waiting up to `timeout`; empty on time-out.
    virtual std::shared_ptr<const Message> getMessage(std::chrono::milliseconds timeout) = 0;
    // True when the queue took the message.
    virtual bool putMessage(std::shared_ptr<const Message> message) = 0;
    // Appends to `out`, oldest first, every message that can be taken without
    // waiting, skipping the null entries a queue may hold; takes at most as
    // many entries as were pending when called. Never waits for a message.
    // Strong guarantee: the list's nodes are made before any message is
    // taken, so if memory runs out the queue and `out` are unchanged; a
    // message taken out is never lost (should getMessage throw part way, what
    // was taken is appended to `out` before the exception leaves).
    virtual void takeAllAvailableMessages(std::list<std::shared_ptr<const Message>>& out);
    // The number of messages waiting, a snapshot.
    virtual unsigned int getAvailableMessagesCount() const = 0;

protected:
    MessageQueueInterface() = default;
    MessageQueueInterface(const MessageQueueInterface&) = default;
    MessageQueueInterface& operator=(const MessageQueueInterface&) = default;
    ~MessageQueueInterface() = default;
};

// A queue with an upper bound on the messages it holds.
class KEST_MESSAGES_API FixedDepthMessageQueueInterface : public virtual MessageQueueInterface {
public:
    virtual void setMaxDepth(unsigned int depth) = 0;
    virtual unsigned int getMaxDepth() const = 0;

protected:
    FixedDepthMessageQueueInterface() = default;
    FixedDepthMessageQueueInterface(const FixedDepthMessageQueueInterface&) = default;
    FixedDepthMessageQueueInterface& operator=(const FixedDepthMessageQueueInterface&) = default;
    ~FixedDepthMessageQueueInterface() = default;
};

// A queue that hands each message to a function instead of storing it.
class KEST_MESSAGES_API CallbackMessageQueueInterface : public virtual MessageQueueInterface {
public:
    using Callback = std::function<void(const std::shared_ptr<const Message>&)>;

    virtual void setCallback(Callback callback) = 0;
    virtual Callback getCallback() const = 0;

protected:
    CallbackMessageQueueInterface() = default;
    CallbackMessageQueueInterface(const CallbackMessageQueueInterface&) = default;
    CallbackMessageQueueInterface& operator=(const CallbackMessageQueueInterface&) = default;
    ~CallbackMessageQueueInterface() = default;
};

}  // namespace Kest::Msgs
