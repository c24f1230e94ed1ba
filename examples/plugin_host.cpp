// A host that uses the messaging plug-in the way a component framework does.
//
// It loads libKestMessageDispatcher with dlopen, finds the entry point
// getComponentFactory with dlsym, starts the factory's life cycle, creates a
// dispatcher and the three kinds of queue by type name and reaches their
// interfaces with dynamic pointer casts. Then, on several threads:
//   - two sensors post readings, a monitor thread reads them;
//   - a callback queue prints alarms as they are posted;
//   - requests go to a ranked pair of services whose preferred queue is
//     full, so the dispatcher falls back and prints its drop warning;
//   - a forwarder-style queue collects the routing notifications.
// Last it prints the routing tables.
//
// Usage: plugin_host [path/to/libKestMessageDispatcher.so.0]

#include <kest/components/ComponentInterface.h>
#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/model/MessageQueueInterface.h>

#include <dlfcn.h>

#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Kest::Msgs;
namespace Fwd = Communications::Forwarder;

namespace {

using EntryPoint = void (*)(std::shared_ptr<Kest::ComponentFactoryInterface>&);

const Identifier Reading(100, 1);
const Identifier Alarm(100, 2);
const Identifier Request(100, 3);

std::mutex printMutex;  // keeps the example's own lines whole

void say(const std::string& line) {
    std::lock_guard<std::mutex> lock(printMutex);
    std::cout << line << std::endl;
}

std::string path(const std::vector<std::string>& address) {
    std::string text;
    for (const std::string& part : address) text += "/" + part;
    return text.empty() ? "(any)" : text;
}

// "category.type", as the routing tables list identifiers.
std::string name(Identifier id) { return std::to_string(id.category()) + "." + std::to_string(id.type()); }

template <class Interface>
std::shared_ptr<Interface> create(Kest::ComponentFactoryInterface& factory, const std::string& type) {
    auto component = std::dynamic_pointer_cast<Interface>(factory.createComponent(type, {}));
    if (!component) throw std::runtime_error("the plug-in did not create " + type);
    return component;
}

}  // namespace

int main(int argc, char** argv) {
    const char* pluginPath = argc > 1 ? argv[1] : KEST_PLUGIN_PATH;
    void* plugin = dlopen(pluginPath, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::cerr << "cannot load " << pluginPath << ": " << dlerror() << "\n";
        return 1;
    }
    auto getComponentFactory = reinterpret_cast<EntryPoint>(dlsym(plugin, "getComponentFactory"));
    if (getComponentFactory == nullptr) {
        std::cerr << "no getComponentFactory in " << pluginPath << "\n";
        return 1;
    }
    say("loaded " + std::string(pluginPath));

    {
        std::shared_ptr<Kest::ComponentFactoryInterface> factory;
        getComponentFactory(factory);
        dynamic_cast<Kest::LifeCycle::PassiveInterface&>(*factory).startLifeCycle();
        for (const auto& entry : factory->supportedComponents()) say("  can create " + entry.first);

        auto dispatcher = create<MessageDispatcherInterface>(*factory, MessageDispatcherInterface::DispatcherType);
        auto forwarder = create<MessageQueueInterface>(*factory, MessageDispatcherInterface::QueueType);
        auto monitor = create<MessageQueueInterface>(*factory, MessageDispatcherInterface::QueueType);
        auto fallback = create<MessageQueueInterface>(*factory, MessageDispatcherInterface::QueueType);
        auto preferred =
            create<FixedDepthMessageQueueInterface>(*factory, MessageDispatcherInterface::FixedDepthQueueType);
        auto alarms =
            create<CallbackMessageQueueInterface>(*factory, MessageDispatcherInterface::CallbackQueueType);

        // Routing notifications first, so that the forwarder sees every later change.
        for (unsigned short type : {5, 6, 9, 10}) dispatcher->subscribe(forwarder, {}, Identifier(Fwd::Category, type));

        dispatcher->subscribe(monitor, {"plant"}, Reading);
        alarms->setCallback([](const std::shared_ptr<const Message>& alarm) {
            say("  alarm callback: alarm from " + path(alarm->sender()));
        });
        dispatcher->subscribe(alarms, {}, Alarm);

        preferred->setMaxDepth(1);
        dispatcher->registerService(preferred, {"plant", "line2"}, Request, 2);
        dispatcher->registerService(fallback, {"plant", "line2"}, Request, 5);

        // Two sensors post 5 readings each; the monitor thread reads all 10.
        const int perSensor = 5;
        std::thread monitorThread([&] {
            for (int i = 0; i < 2 * perSensor; ++i) {
                auto reading = monitor->getMessage(std::chrono::seconds(10));
                if (!reading) {
                    say("  monitor: timed out");
                    return;
                }
                say("  monitor: reading from " + path(reading->sender()));
            }
        });
        std::vector<std::thread> sensors;
        for (const char* line : {"line1", "line2"}) {
            sensors.emplace_back([&, line] {
                const std::vector<std::string> sensor{"plant", line, "sensor"};
                for (int i = 0; i < perSensor; ++i) {
                    dispatcher->postMessage(std::make_shared<Message>(Reading, sensor), nullptr);
                }
                dispatcher->postMessage(std::make_shared<Message>(Alarm, sensor), nullptr);
            });
        }
        for (auto& sensor : sensors) sensor.join();
        monitorThread.join();

        say("two requests to /plant/line2; the preferred service holds one at most:");
        for (int i = 0; i < 2; ++i) {
            bool delivered = dispatcher->postMessage(
                std::make_shared<Message>(Request, std::vector<std::string>{"hmi"},
                                          std::vector<std::string>{"plant", "line2"}),
                nullptr);
            say("  request " + std::to_string(i + 1) + (delivered ? " delivered" : " NOT delivered"));
        }
        say("  preferred holds " + std::to_string(preferred->getAvailableMessagesCount()) +
            ", fallback holds " + std::to_string(fallback->getAvailableMessagesCount()));

        say("routing notifications seen by the forwarder:");
        while (auto notice = forwarder->getMessage(std::chrono::milliseconds(0))) {
            const Fwd::ServiceData& data = *Fwd::notificationPayload(*notice);
            say("  type " + std::to_string(notice->id().type()) + ": message " + name(data.key().id()) +
                ", sender " + path(data.key().sender()) +
                ", destination " + path(data.key().destination()) + ", rank " + std::to_string(data.rank()));
        }

        MessageDispatcherInterface::SubscriptionsTable subscriptions;
        dispatcher->getSubscriptionsTable(subscriptions);
        say("subscriptions:");
        for (const auto& entry : subscriptions) {
            say("  message " + name(Identifier(entry.first.id())) + " from " + path(entry.first.sender()) +
                ": " + std::to_string(entry.second) + " queue(s)");
        }
        MessageDispatcherInterface::ServicesTable services;
        dispatcher->getServicesTable(services);
        say("services:");
        for (const auto& entry : services) {
            say("  message " + name(Identifier(entry.first.id())) + " to " +
                path(entry.first.destination()) + ": " + std::to_string(entry.second.queueCount) +
                " queue(s), lowest rank " + std::to_string(entry.second.lowestRank));
        }

        dynamic_cast<Kest::LifeCycle::PassiveInterface&>(*factory).endLifeCycle();
        // Everything the plug-in made is released here, before it is unloaded.
    }
    dlclose(plugin);
    return 0;
}
