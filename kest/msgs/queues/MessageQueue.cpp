#include <kest/internal/Schedule.h>
#include <kest/msgs/internal/TestHooks.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <limits>

namespace Kest::Msgs {

namespace {

// The clocks getMessage reads. Test builds can replace both (see
// kest/msgs/internal/TestHooks.h); otherwise they are the standard ones.
#if defined(KEST_TEST_HOOKS)
using WallClock = detail::hooks::HookedWallClock;
std::chrono::steady_clock::time_point steadyNow() { return detail::hooks::steadyNow(); }
void noteWakeUp() noexcept { detail::hooks::countReaderWakeUp(); }
#else
using WallClock = std::chrono::system_clock;
std::chrono::steady_clock::time_point steadyNow() { return std::chrono::steady_clock::now(); }
#endif

}  // namespace

MessageQueue::MessageQueue(const std::vector<std::string>& /*args*/) {}

MessageQueue::MessageQueue() = default;

bool MessageQueue::putMessage(std::shared_ptr<const Message> message) {
    Kest::detail::LockGuard lock(mutex_);
    if (internalIsClosed()) {
        internalCountRefusedPut();
        return false;
    }
    internalPutMessage(std::move(message));
    return true;
}

void MessageQueue::close() {
    Kest::detail::LockGuard lock(mutex_);
    if (internalIsClosed()) return;
    // Release: a thread that sees isClosed() also sees what came before the close.
    closed_.store(true, std::memory_order_release);
    available_.notify_all();
}

bool MessageQueue::isClosed() const noexcept { return closed_.load(std::memory_order_acquire); }

void MessageQueue::internalPutMessage(std::shared_ptr<const Message> message) {
    messages_.push_back(std::move(message));
    available_.notify_one();
}

std::shared_ptr<const Message> MessageQueue::internalGetImmediateMessage() {
    if (messages_.empty()) return {};
    std::shared_ptr<const Message> front = std::move(messages_.front());
    messages_.pop_front();
    return front;
}

std::uint64_t MessageQueue::refusedPuts() const noexcept { return refused_.load(std::memory_order_relaxed); }

unsigned int MessageQueue::getAvailableMessagesCount() const {
    Kest::detail::LockGuard lock(mutex_);
    return internalCount();
}

std::shared_ptr<const Message> MessageQueue::getMessage(std::chrono::milliseconds timeout) {
    using std::chrono::nanoseconds;
    using std::chrono::steady_clock;

    // What a closed queue still has to give: its front message, null
    // entries skipped, or nothing.
    const auto leftover = [this] {
        while (internalCount() != 0) {
            if (std::shared_ptr<const Message> message = internalGetImmediateMessage()) return message;
        }
        return std::shared_ptr<const Message>();
    };

    Kest::detail::schedulePoint();
    std::unique_lock<std::mutex> lock(mutex_);
    Kest::detail::schedulePoint();
    if (std::shared_ptr<const Message> message = internalGetImmediateMessage()) return message;
    // A null entry at the front has been dropped; go on as if the queue had
    // been empty. A closed queue is never waited on: what is left, or nothing.
    if (internalIsClosed()) return leftover();

    if (timeout == std::chrono::milliseconds::max()) {
#if defined(KEST_TEST_HOOKS)
        // The predicate runs once before the first wait and once per wake-up.
        bool waited = false;
        available_.wait(lock, [this, &waited] {
            if (waited) noteWakeUp();
            waited = true;
            return internalCount() != 0 || internalIsClosed();
        });
#else
        available_.wait(lock, [this] { return internalCount() != 0 || internalIsClosed(); });
#endif
        if (internalIsClosed()) return leftover();
        return internalGetImmediateMessage();
    }

    // Time-outs beyond what the clocks can add are clamped, instead of
    // overflowing: long ones to about 100 years, which no caller can tell
    // apart, negative ones to zero, which waits the same (once, at once).
    constexpr std::chrono::milliseconds longest = std::chrono::hours(24 * 365 * 100);
    const nanoseconds wait = timeout > longest                        ? nanoseconds(longest)
                             : timeout < std::chrono::milliseconds(0) ? nanoseconds(0)
                                                                      : nanoseconds(timeout);
    const steady_clock::time_point steadyDeadline = steadyNow() + wait;
    if (internalCount() != 0) return internalGetImmediateMessage();

    for (;;) {
        // Wait on the wall clock for the time left on the steady one; a change
        // of wall time can end the wait early or late, and the test below
        // makes up for it.
        const WallClock::time_point wallDeadline =
            WallClock::now() + std::chrono::duration_cast<WallClock::duration>(steadyDeadline - steadyNow());
        if (wallDeadline > WallClock::now()) {
#if defined(KEST_TEST_HOOKS)
            if (available_.wait_until(lock, wallDeadline) == std::cv_status::no_timeout) noteWakeUp();
#else
            available_.wait_until(lock, wallDeadline);
#endif
        } else {
            // A wait whose deadline has passed returns at once; it only lets
            // a writer slip in. The condition variable would still sleep for
            // the timer slack (tens of microseconds), so release the lock
            // briefly instead.
            lock.unlock();
            lock.lock();
        }
        Kest::detail::schedulePoint();
        if (internalIsClosed()) return leftover();
        const bool wallPassed = WallClock::now() >= wallDeadline;
        const bool steadyPassed = steadyNow() >= steadyDeadline;
        if (wallPassed && steadyPassed) break;
        if (internalCount() != 0) return internalGetImmediateMessage();
    }
    // A message that arrived at the last instant is still taken.
    return internalGetImmediateMessage();
}

}  // namespace Kest::Msgs
