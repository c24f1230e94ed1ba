// The bridge as a component of libKestNet's own factory, reached the way a
// framework reaches a plug-in: dlopen by path, dlsym in that handle.

#include "BridgeTestSupport.h"

#include <kest/components/ComponentInterface.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/net/Bridge.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace KestTest;
using FactoryEntry = void (*)(std::shared_ptr<Kest::ComponentFactoryInterface>&);

struct Library {
    explicit Library(const char* path) : handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {}
    ~Library() {
        if (handle != nullptr) dlclose(handle);
    }
    FactoryEntry entry() const { return reinterpret_cast<FactoryEntry>(dlsym(handle, "getComponentFactory")); }
    void* handle;
};

std::shared_ptr<Kest::ComponentFactoryInterface> startedFactory(FactoryEntry entry) {
    std::shared_ptr<Kest::ComponentFactoryInterface> factory;
    entry(factory);
    auto lifeCycle = std::dynamic_pointer_cast<Kest::LifeCycle::PassiveInterface>(factory);
    if (lifeCycle) lifeCycle->startLifeCycle();
    return factory;
}

TEST(BridgeFactory, NetLibrarysOwnEntryPointCreatesABridgeFromStringOptions) {
    Library net(KEST_NET_PATH);
    ASSERT_NE(net.handle, nullptr) << dlerror();
    ASSERT_NE(net.entry(), nullptr);
    auto factory = startedFactory(net.entry());
    ASSERT_EQ(factory->supportedComponents().count(Kest::Net::kBridgeComponentType), 1u);
    EXPECT_EQ(factory->supportedComponents().size(), 1u);

    auto component = factory->createComponent(Kest::Net::kBridgeComponentType,
                                              {"listen=tcp://127.0.0.1:*", "heartbeat-ms=20"});
    auto bridge = std::dynamic_pointer_cast<Kest::Net::Bridge>(component);
    ASSERT_TRUE(bridge);
    bridge->setInstanceId("bridge-1");
    EXPECT_EQ(component->instanceId(), "bridge-1");
    EXPECT_THROW(bridge->start(), std::logic_error);  // no dispatcher yet
    bridge->attach(std::make_shared<MessageDispatcher>());
    bridge->start();
    EXPECT_NE(bridge->endpoint().find("tcp://127.0.0.1:"), std::string::npos);
    EXPECT_TRUE(bridge->waitSynced(0ms));  // no peer
    bridge->stop();

    EXPECT_THROW(factory->createComponent(Kest::Net::kBridgeComponentType, {"listen=tcp://127.0.0.1:*", "nope"}),
                 std::invalid_argument);
}

TEST(BridgeFactory, EachLibrarysHandleFindsItsOwnFactoryUnderTheSharedName) {
    Library net(KEST_NET_PATH);
    Library dispatcher(KEST_DISPATCHER_PATH);
    ASSERT_NE(net.handle, nullptr) << dlerror();
    ASSERT_NE(dispatcher.handle, nullptr) << dlerror();
    ASSERT_NE(net.entry(), dispatcher.entry());

    auto netFactory = startedFactory(net.entry());
    auto messagingFactory = startedFactory(dispatcher.entry());
    EXPECT_EQ(netFactory->supportedComponents().count(Kest::Net::kBridgeComponentType), 1u);
    EXPECT_EQ(messagingFactory->supportedComponents().count(Kest::Net::kBridgeComponentType), 0u);
    EXPECT_EQ(messagingFactory->supportedComponents().count(Kest::Msgs::MessageDispatcherInterface::DispatcherType),
              1u);

    // This program links both: the plain name resolves to one of the two,
    // which is why hosts look it up through each library's own handle.
    void* global = dlsym(RTLD_DEFAULT, "getComponentFactory");
    EXPECT_TRUE(global == reinterpret_cast<void*>(net.entry()) ||
                global == reinterpret_cast<void*>(dispatcher.entry()));
}

}  // namespace
