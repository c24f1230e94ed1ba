// The factory cases against the entry point linked into this executable, and
// what only a program that links the dispatcher library can see: the
// concrete classes behind the components.

#include "PluginFixture.h"

#include <kest/components/ComponentFactory_Base.h>
#include <kest/components/Component_Base.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>
#include <kest/plugin/Factory.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace KestPluginTest {
namespace {

using Kest::Msgs::Factory;
using Kest::Msgs::MessageDispatcherInterface;

static_assert(std::is_same_v<decltype(&::getComponentFactory), GetComponentFactoryFn>,
              "the entry point has the signature hosts call it with");
static_assert(std::is_base_of_v<Kest::Component_Base, Factory>);
static_assert(std::is_base_of_v<Kest::ComponentFactory_Base, Factory>);
static_assert(std::is_base_of_v<Kest::LifeCycle::PassiveInterface, Factory>);
static_assert(std::is_default_constructible_v<Factory>);
static_assert(!std::is_copy_constructible_v<Factory>);
static_assert(!std::is_copy_assignable_v<Factory>);

GetComponentFactoryFn linkedEntryPoint() { return &::getComponentFactory; }

INSTANTIATE_TEST_SUITE_P(Linked, PluginFactory, ::testing::Values(EntryPoint{"linked", &linkedEntryPoint}));

std::shared_ptr<Factory> startedFactory() {
    std::shared_ptr<Kest::ComponentFactoryInterface> holder;
    ::getComponentFactory(holder);
    auto factory = std::dynamic_pointer_cast<Factory>(holder);
    if (factory) factory->startLifeCycle();
    return factory;
}

TEST(PluginLinked, EntryPointGivesAFactoryOfTheConcreteClass) {
    std::shared_ptr<Kest::ComponentFactoryInterface> holder;
    ::getComponentFactory(holder);
    auto factory = std::dynamic_pointer_cast<Factory>(holder);
    ASSERT_NE(factory, nullptr);
    EXPECT_EQ(holder.use_count(), 2);
}

TEST(PluginLinked, CreatorsMakeTheConcreteClasses) {
    auto factory = startedFactory();
    ASSERT_NE(factory, nullptr);

    auto dispatcher = factory->createComponent(MessageDispatcherInterface::DispatcherType, {});
    auto queue = factory->createComponent(MessageDispatcherInterface::QueueType, {});
    auto fixed = factory->createComponent(MessageDispatcherInterface::FixedDepthQueueType, {});
    auto callback = factory->createComponent(MessageDispatcherInterface::CallbackQueueType, {});

    EXPECT_NE(std::dynamic_pointer_cast<Kest::Msgs::MessageDispatcher>(dispatcher), nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<Kest::Msgs::MessageQueue>(queue), nullptr);
    EXPECT_EQ(std::dynamic_pointer_cast<Kest::Msgs::MessageQueue_FixedDepth>(queue), nullptr)
        << "QueueType made a bounded queue";
    EXPECT_NE(std::dynamic_pointer_cast<Kest::Msgs::MessageQueue_FixedDepth>(fixed), nullptr);
    auto concreteCallback = std::dynamic_pointer_cast<Kest::Msgs::MessageCallback>(callback);
    ASSERT_NE(concreteCallback, nullptr);
    EXPECT_FALSE(static_cast<bool>(concreteCallback->getCallback()));
}

TEST(PluginLinked, StartingAgainKeepsACreatorAlreadyRegisteredUnderATypeName) {
    auto factory = startedFactory();
    ASSERT_NE(factory, nullptr);
    // Put a counting creator of our own under QueueType, then start again:
    // it must stay, as must the three creators of the first start.
    const auto prepared = factory->createComponent(MessageDispatcherInterface::CallbackQueueType, {});
    ASSERT_NE(prepared, nullptr);
    int calls = 0;
    Kest::ComponentFactory_Base& base = *factory;
    base.removeComponentCreator(MessageDispatcherInterface::QueueType);
    base.addComponentCreator(MessageDispatcherInterface::QueueType,
                             [&calls, prepared](const std::vector<std::string>&) {
                                 ++calls;
                                 return prepared;
                             });

    factory->startLifeCycle();

    EXPECT_EQ(supportedNames(*factory), sortedFourTypeNames());
    EXPECT_EQ(factory->createComponent(MessageDispatcherInterface::QueueType, {}), prepared);
    EXPECT_EQ(calls, 1);
    EXPECT_NE(factory->createComponent(MessageDispatcherInterface::DispatcherType, {}), nullptr);
    EXPECT_NE(factory->createComponent(MessageDispatcherInterface::FixedDepthQueueType, {}), nullptr);
    EXPECT_NE(factory->createComponent(MessageDispatcherInterface::CallbackQueueType, {}), nullptr);
}

// A factory that records the life cycle's calls of the virtual creator operations.
class RecordingFactory : public Factory {
public:
    void addComponentCreator(const std::string& name, Kest::ComponentCreator creator) override {
        added.push_back(name);
        Factory::addComponentCreator(name, std::move(creator));
    }
    void removeAllComponentCreators() override {
        ++removedAll;
        Factory::removeAllComponentCreators();
    }
    std::vector<std::string> added;
    int removedAll = 0;
};

TEST(PluginLinked, LifeCycleRegistersTheFourCreatorsInOrderThroughTheVirtualOperations) {
    RecordingFactory factory;
    factory.startLifeCycle();
    EXPECT_EQ(factory.added,
              (std::vector<std::string>{MessageDispatcherInterface::DispatcherType, MessageDispatcherInterface::QueueType,
                                        MessageDispatcherInterface::FixedDepthQueueType,
                                        MessageDispatcherInterface::CallbackQueueType}));
    EXPECT_EQ(factory.removedAll, 0);
    EXPECT_EQ(supportedNames(factory), sortedFourTypeNames());

    // Through the life-cycle interface, as a host calls it.
    Kest::LifeCycle::PassiveInterface& life = factory;
    life.endLifeCycle();
    EXPECT_EQ(factory.removedAll, 1);
    EXPECT_EQ(factory.added.size(), 4u);
    EXPECT_TRUE(factory.supportedComponents().empty());
    life.startLifeCycle();
    EXPECT_EQ(factory.added.size(), 8u);
    EXPECT_EQ(std::vector<std::string>(factory.added.begin() + 4, factory.added.end()),
              std::vector<std::string>(factory.added.begin(), factory.added.begin() + 4));
}

TEST(PluginLinked, CreateDispatcherMakesANewDispatcherWithoutALifeCycle) {
    Factory factory;
    EXPECT_TRUE(factory.supportedComponents().empty());

    auto first = factory.createDispatcher({});
    auto second = factory.createDispatcher({"ignored"});
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_NE(std::dynamic_pointer_cast<Kest::Msgs::MessageDispatcher>(first), nullptr);
    EXPECT_TRUE(factory.supportedComponents().empty());
}

}  // namespace
}  // namespace KestPluginTest
