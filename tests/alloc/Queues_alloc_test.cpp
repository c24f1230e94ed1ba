// The three queues when memory runs out: MessageQueue, MessageQueue_FixedDepth
// and MessageCallback, and the interface's takeAllAvailableMessages.
//
// A blocking queue allocates when its storage grows: the queues here are
// filled to one message short of a new block of storage, so that the next
// put allocates. Every operation gives the strong guarantee: after a failure
// the queue holds exactly the messages it held, in order, and takes the
// next put; a callback queue's callback keeps running.

#include "AllocHarness.h"

#include <kest/model/Message.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using namespace KestAlloc;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageCallback;
using Kest::Msgs::MessageQueue;
using Kest::Msgs::MessageQueue_FixedDepth;
using Kest::Msgs::MessageQueueInterface;
using MessagePtr = std::shared_ptr<const Message>;
using std::chrono::milliseconds;

namespace {

// One short of a new block of a MessageQueue's storage (blocks of 32).
constexpr int kFill = 31;

MessagePtr labelled(const std::string& label) {
    auto message = std::make_shared<Message>(Identifier(0x0100, 1));
    message->identity.assign(label);
    return message;
}

// A MessageQueue whose lock the test can take, for the internal operations.
class LockableQueue : public MessageQueue {
public:
    void lockedPut(MessagePtr message) {
        std::lock_guard<std::mutex> lock(mutex());
        internalPutMessage(std::move(message));
    }
    MessagePtr lockedTake() {
        std::lock_guard<std::mutex> lock(mutex());
        return internalGetImmediateMessage();
    }
};

// The labels of the messages in `queue`, oldest first. Takes them out and
// puts them back, so the queue holds the same messages afterwards.
std::string contents(MessageQueueInterface& queue) {
    std::vector<MessagePtr> held;
    for (unsigned int n = queue.getAvailableMessagesCount(); n > 0; --n) {
        if (MessagePtr m = queue.getMessage(milliseconds(0))) held.push_back(std::move(m));
    }
    std::string text = "[";
    for (const MessagePtr& m : held) {
        text += m->identity() + ",";
        queue.putMessage(m);
    }
    return text + "] count " + std::to_string(queue.getAvailableMessagesCount());
}

std::string labels(const std::list<MessagePtr>& messages) {
    std::string text = "(";
    for (const MessagePtr& m : messages) text += (m ? m->identity() : std::string("null")) + ",";
    return text + ")";
}

// A callback with a capture too large for std::function's own buffer, so
// that copying it allocates; it counts its calls and keeps what it was given
// in a list, so that each call allocates a node.
struct Recorder {
    std::array<char, 64> padding{};
    std::shared_ptr<std::list<MessagePtr>> seen = std::make_shared<std::list<MessagePtr>>();
    void operator()(const MessagePtr& message) const { seen->push_back(message); }
};

struct Queues {
    std::shared_ptr<LockableQueue> queue = std::make_shared<LockableQueue>();
    std::shared_ptr<MessageQueue_FixedDepth> fixed = std::make_shared<MessageQueue_FixedDepth>(40u);
    std::shared_ptr<MessageQueue_FixedDepth> full = std::make_shared<MessageQueue_FixedDepth>(3u);
    std::shared_ptr<MessageCallback> callback;
    Recorder recorder;
    Recorder otherRecorder;
    MessageCallback::Callback copiedCallback;
    MessagePtr message = labelled("new");
    std::list<MessagePtr> taken{labelled("already-taken")};
    std::optional<std::shared_ptr<MessageQueue>> madeQueue;
    std::optional<std::shared_ptr<MessageQueue_FixedDepth>> madeFixed;
    std::optional<std::shared_ptr<MessageCallback>> madeCallback;
    std::vector<std::string> args{"an argument that is long enough to need the heap", "b"};
    MessagePtr got;
    unsigned long number = 0;
    std::string thrown;

    Queues() {
        callback = std::make_shared<MessageCallback>(recorder);
        for (int i = 0; i < kFill; ++i) {
            queue->putMessage(labelled("q" + std::to_string(i)));
            fixed->putMessage(labelled("f" + std::to_string(i)));
        }
        for (int i = 0; i < 3; ++i) full->putMessage(labelled("full" + std::to_string(i)));
    }
};

std::string callbackName(const MessageCallback::Callback& callback, const Queues& s) {
    if (!callback) return "none";
    const Recorder* r = callback.target<Recorder>();
    if (r == nullptr) return "other";
    return r->seen == s.recorder.seen ? "recorder" : r->seen == s.otherRecorder.seen ? "otherRecorder" : "?";
}

std::string describeQueues(Queues& s) {
    std::string text = "queue " + contents(*s.queue) + " fixed " + contents(*s.fixed) + " depth " +
                       std::to_string(s.fixed->getMaxDepth()) + " full " + contents(*s.full) + " callback " +
                       callbackName(s.callback->getCallback(), s) + " seen " + labels(*s.recorder.seen) +
                       " copied " + callbackName(s.copiedCallback, s) + " taken " + labels(s.taken);
    text += " made";
    if (s.madeQueue) text += " queue " + contents(**s.madeQueue);
    if (s.madeFixed) text += " fixed " + contents(**s.madeFixed) + std::to_string((*s.madeFixed)->getMaxDepth());
    if (s.madeCallback) text += " callback " + callbackName((*s.madeCallback)->getCallback(), s);
    return text + " got " + (s.got ? s.got->identity() : "-") + " number " + std::to_string(s.number) + " thrown " +
           s.thrown;
}

std::shared_ptr<Queues> queues() { return std::make_shared<Queues>(); }

template <class Op>
void strong(const std::string& name, Op op) {
    coverStrong<Queues>(name, queues, op, describeQueues);
}

template <class Op>
void none(const std::string& name, Op op) {
    coverNoAllocation<Queues>(name, queues, op);
}

}  // namespace

class QueuesAllocation : public AllocTest {};

TEST_F(QueuesAllocation, QueuesAreMadeWholeOrNotAtAll) {
    strong("MessageQueue()", [](Queues& s) { s.madeQueue = std::make_shared<MessageQueue>(); });
    strong("MessageQueue(args)", [](Queues& s) { s.madeQueue = std::make_shared<MessageQueue>(s.args); });
    strong("MessageQueue_FixedDepth(depth)",
           [](Queues& s) { s.madeFixed = std::make_shared<MessageQueue_FixedDepth>(7u); });
    strong("MessageQueue_FixedDepth(args)",
           [](Queues& s) { s.madeFixed = std::make_shared<MessageQueue_FixedDepth>(s.args); });
    strong("MessageCallback(callback)",
           [](Queues& s) { s.madeCallback = std::make_shared<MessageCallback>(s.otherRecorder); });
    strong("MessageCallback(args)", [](Queues& s) { s.madeCallback = std::make_shared<MessageCallback>(s.args); });
}

TEST_F(QueuesAllocation, APutThatCannotGrowTheQueueLeavesItAsItWas) {
    strong("MessageQueue::putMessage", [](Queues& s) { s.queue->putMessage(s.message); });
    strong("MessageQueue::internalPutMessage", [](Queues& s) { s.queue->lockedPut(s.message); });
    strong("MessageQueue_FixedDepth::putMessage", [](Queues& s) { s.fixed->putMessage(s.message); });
    none("MessageQueue_FixedDepth::putMessage when full", [](Queues& s) { s.number = s.full->putMessage(s.message); });
}

TEST_F(QueuesAllocation, TakingAllMessagesTakesAllOrNone) {
    // A message taken out of the queue must never be lost because the
    // caller's list could not grow.
    strong("MessageQueueInterface::takeAllAvailableMessages (MessageQueue)",
           [](Queues& s) { s.queue->takeAllAvailableMessages(s.taken); });
    strong("MessageQueueInterface::takeAllAvailableMessages (MessageQueue_FixedDepth)",
           [](Queues& s) { s.fixed->takeAllAvailableMessages(s.taken); });
    none("MessageCallback::takeAllAvailableMessages", [](Queues& s) { s.callback->takeAllAvailableMessages(s.taken); });
}

TEST_F(QueuesAllocation, ReadingAndCountingAllocateNothing) {
    none("MessageQueue::getMessage(timeout) of a held message", [](Queues& s) { s.got = s.queue->getMessage(milliseconds(50)); });
    none("MessageQueue::getMessage() of a held message", [](Queues& s) { s.got = s.queue->getMessage(); });
    none("MessageQueue::internalGetImmediateMessage", [](Queues& s) { s.got = s.queue->lockedTake(); });
    none("MessageQueue::getAvailableMessagesCount", [](Queues& s) { s.number = s.queue->getAvailableMessagesCount(); });
    none("MessageQueue_FixedDepth::getMessage, getAvailableMessagesCount", [](Queues& s) {
        s.got = s.fixed->getMessage(milliseconds(0));
        s.number = s.fixed->getAvailableMessagesCount();
    });
    none("MessageQueue_FixedDepth::setMaxDepth, getMaxDepth", [](Queues& s) {
        s.fixed->setMaxDepth(0);
        s.fixed->setMaxDepth(50);
        s.number = s.fixed->getMaxDepth();
    });
    none("MessageCallback::getMessage, getMessage(timeout), getAvailableMessagesCount", [](Queues& s) {
        s.got = s.callback->getMessage();
        s.got = s.callback->getMessage(milliseconds(10));
        s.number = s.callback->getAvailableMessagesCount();
    });
}

TEST_F(QueuesAllocation, ClosingAndWhatAClosedQueueAnswersAllocateNothing) {
    none("MessageQueue::close, isClosed, refusedPuts", [](Queues& s) {
        s.queue->close();
        s.number = s.queue->isClosed() + s.queue->refusedPuts();
    });
    none("MessageQueue_FixedDepth::close, isClosed, refusedPuts", [](Queues& s) {
        s.fixed->close();
        s.number = s.fixed->isClosed() + s.fixed->refusedPuts();
    });
    const auto closed = [] {
        auto s = queues();
        s->queue->close();
        s->fixed->close();
        return s;
    };
    coverNoAllocation<Queues>("MessageQueue::putMessage into a closed queue (refused, counted)", closed,
                              [](Queues& s) {
                                  s.number = s.queue->putMessage(s.message) + s.fixed->putMessage(s.message);
                                  s.number += s.queue->refusedPuts() + s.fixed->refusedPuts();
                              });
    coverNoAllocation<Queues>("MessageQueue::getMessage of a closed queue", closed, [](Queues& s) {
        s.got = s.queue->getMessage();
        s.got = s.fixed->getMessage(milliseconds(10));
        s.number = s.queue->getAvailableMessagesCount();
    });
    coverNoAllocation<Queues>("MessageQueue::close of a closed queue", closed, [](Queues& s) { s.queue->close(); });
}

TEST_F(QueuesAllocation, EmptyQueueReadWithZeroTimeoutAllocatesNothing) {
    coverNoAllocation<Queues>("MessageQueue::getMessage(0) of an empty queue",
                              [] {
                                  auto s = queues();
                                  s->madeQueue = std::make_shared<MessageQueue>();
                                  return s;
                              },
                              [](Queues& s) { s.got = (*s.madeQueue)->getMessage(milliseconds(0)); });
}

TEST_F(QueuesAllocation, CallbackQueueStaysUsableWhenItsCallbackRunsOutOfMemory) {
    // The callback's own std::bad_alloc reaches the caller; the queue's lock
    // is released, so the callback runs again for the next put.
    strong("MessageCallback::putMessage (a callback that allocates)",
           [](Queues& s) { s.callback->putMessage(s.message); });
    strong("MessageCallback::setCallback", [](Queues& s) { s.callback->setCallback(s.otherRecorder); });
    strong("MessageCallback::getCallback", [](Queues& s) { s.copiedCallback = s.callback->getCallback(); });
    // Throwing std::bad_function_call allocates; std::bad_alloc comes instead then.
    coverStrong<Queues>("MessageCallback::putMessage without a callback",
                        [] {
                            auto s = queues();
                            s->callback->setCallback(nullptr);
                            return s;
                        },
                        [](Queues& s) {
                            try {
                                s.callback->putMessage(s.message);
                            } catch (const std::bad_function_call&) {
                                s.thrown = "bad_function_call";
                            }
                        },
                        describeQueues);
}
