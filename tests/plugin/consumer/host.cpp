// A plug-in host as the README describes one: it links only the interface
// libraries (libKestMessages, libKestCore), loads the dispatcher plug-in with
// dlopen, makes a dispatcher and a queue through the plug-in's factory and
// routes one message through them. Exits non-zero on any failure.
//
//   host <plug-in> [library directory]
//
// <plug-in> is passed to dlopen as given: a path, or the bare file name
// "libKestMessageDispatcher.so.0", which dlopen then looks up itself. With a
// directory, also checks that the plug-in and both interface libraries were
// loaded from it.

#include <kest/components/ComponentInterface.h>
#include <kest/model/Message.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/model/MessageQueueInterface.h>

#include "LoadedFrom.h"

#include <dlfcn.h>

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

const Identifier kReading(0x0A0B, 2);

// Creates a dispatcher and a queue with the factory, subscribes the queue and
// checks that one posted message reaches it.
bool routesOneMessage(Kest::ComponentFactoryInterface& factory) {
    auto dispatcher = std::dynamic_pointer_cast<MessageDispatcherInterface>(
        factory.createComponent(MessageDispatcherInterface::DispatcherType, {}));
    auto queue = std::dynamic_pointer_cast<MessageQueueInterface>(
        factory.createComponent(MessageDispatcherInterface::QueueType, {}));
    if (!dispatcher || !queue) {
        std::fprintf(stderr, "host: the plug-in made no dispatcher or no queue\n");
        return false;
    }
    if (!dispatcher->subscribe(queue, {"plant"}, kReading)) {
        std::fprintf(stderr, "host: subscribe refused\n");
        return false;
    }
    std::shared_ptr<const Message> message =
        std::make_shared<Message>(kReading, std::vector<std::string>{"plant", "line2", "press"});
    if (!dispatcher->postMessage(message, nullptr)) {
        std::fprintf(stderr, "host: postMessage refused\n");
        return false;
    }
    if (queue->getMessage(std::chrono::milliseconds(5000)) != message) {
        std::fprintf(stderr, "host: the message did not arrive\n");
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: host <plug-in> [library directory]\n");
        return 2;
    }
    void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::fprintf(stderr, "host: dlopen failed: %s\n", dlerror());
        return 1;
    }
    using GetComponentFactory = void (*)(std::shared_ptr<Kest::ComponentFactoryInterface>&);
    auto entry = reinterpret_cast<GetComponentFactory>(dlsym(plugin, "getComponentFactory"));
    if (entry == nullptr) {
        std::fprintf(stderr, "host: no getComponentFactory: %s\n", dlerror());
        return 1;
    }

    bool ok = true;
    {
        std::shared_ptr<Kest::ComponentFactoryInterface> factory;
        entry(factory);
        auto* life = dynamic_cast<Kest::LifeCycle::PassiveInterface*>(factory.get());
        if (life == nullptr) {
            std::fprintf(stderr, "host: the plug-in gave no factory with a life cycle\n");
            return 1;
        }
        life->startLifeCycle();
        ok = routesOneMessage(*factory);
        life->endLifeCycle();
    }

    // Checked while the plug-in is still loaded.
    if (argc == 3) ok = librariesLoadedFrom(argv[2], "host") && ok;

    // Everything the plug-in made is released above, before it is unloaded.
    if (dlclose(plugin) != 0) {
        std::fprintf(stderr, "host: dlclose failed: %s\n", dlerror());
        ok = false;
    }
    if (!ok) return 1;
    std::printf("host: plug-in %s loaded, one message routed\n", argv[1]);
    return 0;
}
