#pragma once

// MessageQueue: an unbounded first-in, first-out queue of messages, drained
// by reader threads with a blocking read that can time out.
//
// Threads: any number of writers and readers. One mutex guards the list;
// a writer wakes one waiting reader. A reader waiting in getMessage holds no
// lock. Each message goes to exactly one reader.
//
// Closing: close() ends the queue's life as a receiver. Readers waiting in
// getMessage return empty at once; later reads return the messages still
// queued, then empty without waiting; later puts are refused (false), so a
// dispatcher delivering to a closed queue reports a drop. It is the way to
// release readers for shutdown: a null message put for that purpose is lost
// if no reader is waiting yet.
//
// Lifetime: owned through a std::shared_ptr made from the concrete type (the
// dispatcher's tables and the consumer share it). No reader may be waiting
// when the last owner lets go (close() releases them).

#include <kest/components/Component_Base.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/Api.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Kest::Msgs {

class KEST_DISPATCHER_API MessageQueue : public virtual MessageQueueInterface,
                                         public Component_Base {
public:
    // The arguments are accepted and ignored: the form the factory's creators use.
    // Strong guarantee (both constructors): std::bad_alloc makes nothing.
    explicit MessageQueue(const std::vector<std::string>& args);
    MessageQueue();

    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    // Appends `message` (a null one too), wakes one reader and returns true;
    // once the queue is closed, refuses it: false, nothing queued, the
    // refusal counted. Takes the queue's lock. Strong guarantee: on
    // std::bad_alloc nothing is queued and no reader is woken.
    bool putMessage(std::shared_ptr<const Message> message) override;

    // The oldest message. A queued message is returned at once, whatever the
    // time-out. Otherwise waits: without limit for
    // std::chrono::milliseconds::max(), else until the time-out has passed on
    // both the steady and the wall clock, then takes one last look. Zero and
    // negative time-outs still wait once (returning at once). Empty on
    // time-out. A null entry at the front is dropped on entry; one that
    // arrives while a reader waits is returned to it as an empty result.
    // On a closed queue: the oldest message left (null entries skipped), or
    // empty at once when none is left; a reader waiting when the queue is
    // closed returns at once, with a message only if one was put before the
    // close and is still there. Takes the queue's lock, not while waiting.
    // Allocates nothing.
    std::shared_ptr<const Message> getMessage(std::chrono::milliseconds timeout) override;
    using MessageQueueInterface::getMessage;

    // The number of entries (null ones included), cut to 32 bits. Takes the
    // lock. Allocates nothing.
    unsigned int getAvailableMessagesCount() const override;

    // The number of puts this queue refused (returned false for) since it
    // was made. Read without the queue's lock: never blocks; a snapshot.
    // Allocates nothing.
    std::uint64_t refusedPuts() const noexcept;

    // Closes the queue (see above): wakes every waiting reader, and refuses
    // every later put. Messages already queued stay to be read. Idempotent.
    // Takes the queue's lock; never blocks otherwise. Allocates nothing.
    void close();
    // True once close() has been called. Read without the lock. Allocates nothing.
    bool isClosed() const noexcept;

    // For callers that hold `mutex()`'s lock: append and wake one reader,
    // whether or not the queue is closed. Strong guarantee: on
    // std::bad_alloc nothing is queued and no reader is woken.
    void internalPutMessage(std::shared_ptr<const Message> message);
    // For callers that hold the lock: remove and return the front entry, or
    // an empty pointer when there is none. Allocates nothing.
    std::shared_ptr<const Message> internalGetImmediateMessage();

protected:
    std::mutex& mutex() const noexcept { return mutex_; }
    unsigned int internalCount() const noexcept { return static_cast<unsigned int>(messages_.size()); }
    // For callers that hold the lock: count one refused put. Writers hold the
    // lock, so a load and a store make the increment.
    void internalCountRefusedPut() noexcept {
        refused_.store(refused_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    // For callers that hold the lock: whether close() has been called.
    bool internalIsClosed() const noexcept { return closed_.load(std::memory_order_relaxed); }

private:
    mutable std::mutex mutex_;
    // A deque: its blocks are reused as the queue fills and drains, where a
    // list would allocate a node for every message.
    std::deque<std::shared_ptr<const Message>> messages_;  // guarded by mutex_, oldest first
    std::condition_variable available_;                   // signalled on every put
    std::atomic<std::uint64_t> refused_{0};               // written under mutex_, read without it
    std::atomic<bool> closed_{false};                     // written under mutex_, read without it
};

}  // namespace Kest::Msgs
