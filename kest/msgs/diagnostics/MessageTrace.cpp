#include <kest/internal/DiagnosticLine.h>
#include <kest/internal/Schedule.h>
#include <kest/model/Message.h>
#include <kest/msgs/diagnostics/MessageTrace.h>

#include <iostream>
#include <mutex>
#include <string>

namespace Kest::Msgs {

namespace {

std::mutex traceMutex;  // serialises trace lines, process-wide

void writeAddress(std::ostream& out, const ReflectedAddress& address) {
    if (!address.initialized()) {
        out << "<None>";
        return;
    }
    // values(): the address in place; a copy could run out of memory.
    for (const std::string& part : address.values()) out << '[' << part << ']';
}

}  // namespace

void handleMessageDirect(const std::string& prefix, const Message& message) {
    Kest::detail::LockGuard lock(traceMutex);
    Kest::detail::DiagnosticLine line;
    const Identifier id = message.id();
    std::cout << prefix << ": sender = ";
    writeAddress(std::cout, message.sender);
    std::cout << ", dest = ";
    writeAddress(std::cout, message.destination);
    // std::to_string: decimal whatever base flags the caller left on std::cout.
    std::cout << ", cat = " << std::to_string(id.category()) << ", id = " << std::to_string(id.type())
              << std::endl;
}

}  // namespace Kest::Msgs
