// A C++20 program using the installed library: it must compile as C++20
// with the library's flags after its own -std=c++20, so those flags may not
// name a language standard of their own. Posts a message whose sender comes
// from a std::span and checks that it arrives.

#include <kest/messaging.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

static_assert(__cplusplus >= 202002L, "compiled as C++20");

namespace {

std::vector<std::string> address(std::span<const char* const> parts) { return {parts.begin(), parts.end()}; }

}  // namespace

int main() {
    using namespace Kest::Msgs;

    constexpr const char* sender[] = {"plant", "line2", "press"};
    const Identifier reading(100, 1);

    auto dispatcher = std::make_shared<MessageDispatcher>();
    auto inbox = std::make_shared<MessageQueue>();
    if (!dispatcher->subscribe(inbox, {"plant"}, reading)) {
        std::fprintf(stderr, "cxx20: subscribe refused\n");
        return 1;
    }
    std::shared_ptr<const Message> message = std::make_shared<Message>(reading, address(sender));
    if (!dispatcher->postMessage(message, nullptr) || inbox->getMessage(std::chrono::seconds(5)) != message) {
        std::fprintf(stderr, "cxx20: the message did not arrive\n");
        return 1;
    }
    std::printf("cxx20: message delivered\n");
    return 0;
}
