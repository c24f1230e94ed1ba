// A client of the installed libraries: posts a message through a dispatcher
// made directly and through one made by the plug-in's factory, and checks
// that each arrives. Exits non-zero on any failure.
//
//   app [library directory]
//
// With a directory, also checks that the three libraries were loaded from it.

#include <kest/messaging.h>

#include "LoadedFrom.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageDispatcherInterface;
using Kest::Msgs::MessageQueueInterface;

const Identifier kGreeting(0x0A0B, 1);

bool delivered(MessageDispatcherInterface& dispatcher, const std::shared_ptr<MessageQueueInterface>& queue,
               const char* how) {
    if (!dispatcher.subscribe(queue, {}, kGreeting)) {
        std::fprintf(stderr, "app: %s: subscribe refused\n", how);
        return false;
    }
    std::shared_ptr<const Message> message =
        std::make_shared<Message>(kGreeting, std::vector<std::string>{"consumer"});
    if (!dispatcher.postMessage(message, nullptr)) {
        std::fprintf(stderr, "app: %s: postMessage refused\n", how);
        return false;
    }
    if (queue->getMessage(std::chrono::milliseconds(5000)) != message) {
        std::fprintf(stderr, "app: %s: the message did not arrive\n", how);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    bool ok = true;

    {
        auto dispatcher = std::make_shared<Kest::Msgs::MessageDispatcher>();
        auto queue = std::make_shared<Kest::Msgs::MessageQueue>();
        ok = delivered(*dispatcher, queue, "direct") && ok;
    }

    {
        std::shared_ptr<Kest::ComponentFactoryInterface> factory;
        getComponentFactory(factory);
        auto* life = dynamic_cast<Kest::LifeCycle::PassiveInterface*>(factory.get());
        if (life == nullptr) {
            std::fprintf(stderr, "app: the factory has no life cycle\n");
            return 1;
        }
        life->startLifeCycle();
        auto dispatcher = std::dynamic_pointer_cast<MessageDispatcherInterface>(
            factory->createComponent(MessageDispatcherInterface::DispatcherType, {}));
        auto queue = std::dynamic_pointer_cast<MessageQueueInterface>(
            factory->createComponent(MessageDispatcherInterface::QueueType, {}));
        if (!dispatcher || !queue) {
            std::fprintf(stderr, "app: the factory made no dispatcher or no queue\n");
            return 1;
        }
        ok = delivered(*dispatcher, queue, "factory") && ok;
        life->endLifeCycle();
    }

    if (argc > 1) ok = librariesLoadedFrom(argv[1], "app") && ok;

    if (!ok) return 1;
    std::printf("app: messages delivered\n");
    return 0;
}
