#pragma once

// MessageQueue_FixedDepth: a MessageQueue that holds at most a maximum number
// of messages. When full, putMessage refuses the newest message (returns
// false); messages already queued are never evicted.
//
// Threads: as MessageQueue; the depth test and the append are one step under
// the queue's lock. The depth is read and written without that lock, as an
// atomic: a change takes effect for the puts that start after it.

#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/Api.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <atomic>
#include <string>
#include <vector>

namespace Kest::Msgs {

class KEST_DISPATCHER_API MessageQueue_FixedDepth : public FixedDepthMessageQueueInterface,
                                                    public MessageQueue {
public:
    static constexpr unsigned int DefaultDepth = 100;

    // Depth `maxDepth`, stored as given: a queue of depth 0 refuses everything.
    // Strong guarantee (both constructors): std::bad_alloc makes nothing.
    explicit MessageQueue_FixedDepth(unsigned int maxDepth);
    // The arguments are ignored: depth DefaultDepth (100).
    explicit MessageQueue_FixedDepth(const std::vector<std::string>& args);

    std::shared_ptr<const Message> getMessage(std::chrono::milliseconds timeout) override;
    using MessageQueueInterface::getMessage;
    // Appends and returns true when fewer than the maximum are pending and
    // the queue is open; else false, with the queue, the message and any
    // waiting reader untouched, and the refusal counted (refusedPuts).
    // close() and isClosed() are MessageQueue's. Strong guarantee: on
    // std::bad_alloc nothing is queued and no reader is woken; a refusal
    // allocates nothing.
    bool putMessage(std::shared_ptr<const Message> message) override;
    unsigned int getAvailableMessagesCount() const override;
    // A depth of 0 is ignored. Lowering the depth removes nothing. Reading
    // and setting the depth allocate nothing.
    void setMaxDepth(unsigned int depth) override;
    unsigned int getMaxDepth() const override;

private:
    std::atomic<unsigned int> maxDepth_;
};

}  // namespace Kest::Msgs
