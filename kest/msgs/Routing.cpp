#include <kest/internal/DiagnosticLine.h>
#include <kest/msgs/Routing.h>
#include <kest/msgs/diagnostics/MessageTrace.h>
#include <kest/msgs/internal/Delivery.h>

#include <iostream>
#include <string>

namespace Kest::Msgs {

namespace {

// Made when the library is loaded: reporting a drop must not allocate, or
// running out of memory would print the warning without its trace and turn
// a refusal into an exception out of the post.
const std::string kTracePrefix = "PLOX message is - ";

}  // namespace

namespace detail {

bool warnDropped(const Message& message) {
    {
        Kest::detail::DiagnosticLine line;
        std::cout << "PLOX!!!! Warning ---- dropping msg" << std::endl;
    }
    handleMessageDirect(kTracePrefix, message);
    return false;
}

}  // namespace detail

bool dispatchMessage(const std::shared_ptr<const Message>& message,
                     const std::shared_ptr<MessageQueueInterface>& queue, ServedSet& served) {
    if (served.find(queue) != served.end()) return true;
    // The queue joins `served` before the put and leaves it again unless the
    // put succeeds: a queue that took the message is then always in
    // `served`, even when memory runs out, and is never given it twice.
    const auto entry = served.insert(queue).first;
    bool taken = false;
    try {
        taken = detail::putOrWarn(message, queue.get());
    } catch (...) {
        served.erase(entry);
        throw;
    }
    if (!taken) served.erase(entry);
    return taken;
}

}  // namespace Kest::Msgs
