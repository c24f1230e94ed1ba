// The plug-in's factory as a host sees it: created by getComponentFactory,
// started and ended through its PassiveInterface base, creating the
// dispatcher and the three queue kinds by type name. Compiled into both the
// linked and the dlopen executable (see PluginFixture.h).

#include "PluginFixture.h"

#include <kest/model/Identifier.h>
#include <kest/model/Message.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <cctype>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace KestPluginTest {
namespace {

using Kest::ComponentInterface;
using Kest::LifeCycle::PassiveInterface;
using Kest::Msgs::CallbackMessageQueueInterface;
using Kest::Msgs::FixedDepthMessageQueueInterface;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageDispatcherInterface;
using Kest::Msgs::MessageQueueInterface;
using KestTest::makeMessage;
using std::chrono::milliseconds;

using MessagePtr = std::shared_ptr<const Message>;

const Identifier kPing(0x0501, 1);
const std::vector<std::string> kService = {"plant", "press"};

// Wires the three queue kinds to `dispatcher` (queue and callback subscribed,
// fixed-depth queue registered as the service of kService), posts one message
// addressed to kService and checks that each of the three got exactly it.
void expectRoutesToAllThree(MessageDispatcherInterface& dispatcher,
                            const std::shared_ptr<MessageQueueInterface>& queue,
                            const std::shared_ptr<FixedDepthMessageQueueInterface>& fixed,
                            const std::shared_ptr<CallbackMessageQueueInterface>& callback) {
    // Shared with the callback, which stays in the dispatcher's table after this returns.
    auto called = std::make_shared<std::vector<MessagePtr>>();
    callback->setCallback([called](const MessagePtr& message) { called->push_back(message); });

    ASSERT_TRUE(dispatcher.subscribe(queue, {}, kPing));
    ASSERT_TRUE(dispatcher.subscribe(callback, {}, kPing));
    ASSERT_TRUE(dispatcher.registerService(fixed, kService, kPing, 1));

    const MessagePtr message = makeMessage(kPing, {"host"}, kService);
    EXPECT_TRUE(dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(queue->getMessage(milliseconds(0)), message);
    EXPECT_EQ(fixed->getMessage(milliseconds(0)), message);
    EXPECT_EQ(*called, std::vector<MessagePtr>{message});
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(fixed->getAvailableMessagesCount(), 0u);

    // The dispatcher remembers the message: a second post is refused.
    EXPECT_FALSE(dispatcher.postMessage(message, nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(called->size(), 1u);
}

// ---- States of the life cycle ---------------------------------------------

TEST_P(PluginFactory, FreshFactorySupportsNoComponents) {
    EXPECT_TRUE(factory_->supportedComponents().empty());
    for (const auto& type : fourTypeNames()) {
        EXPECT_EQ(factory_->createComponent(type, {}), nullptr) << type;
    }
}

TEST_P(PluginFactory, StartedFactorySupportsExactlyTheFourTypeNames) {
    life_->startLifeCycle();

    const auto names = sortedFourTypeNames();
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 4u)
        << "the four type names are not distinct";
    EXPECT_EQ(supportedNames(*factory_), names);
    for (const auto& entry : factory_->supportedComponents()) {
        EXPECT_TRUE(static_cast<bool>(entry.second)) << entry.first;
        EXPECT_NE(factory_->createComponent(entry.first, {}), nullptr) << entry.first;
    }
}

TEST_P(PluginFactory, EndedFactoryCreatesNothingAndEarlierComponentsKeepWorking) {
    life_->startLifeCycle();
    auto dispatcher = create<MessageDispatcherInterface>(MessageDispatcherInterface::DispatcherType);
    auto queue = create<MessageQueueInterface>(MessageDispatcherInterface::QueueType);
    auto fixed = create<FixedDepthMessageQueueInterface>(MessageDispatcherInterface::FixedDepthQueueType);
    auto callback = create<CallbackMessageQueueInterface>(MessageDispatcherInterface::CallbackQueueType);
    ASSERT_NE(dispatcher, nullptr);
    ASSERT_NE(queue, nullptr);
    ASSERT_NE(fixed, nullptr);
    ASSERT_NE(callback, nullptr);

    life_->endLifeCycle();

    EXPECT_TRUE(factory_->supportedComponents().empty());
    for (const auto& type : fourTypeNames()) {
        EXPECT_EQ(factory_->createComponent(type, {}), nullptr) << type;
    }
    expectRoutesToAllThree(*dispatcher, queue, fixed, callback);
}

TEST_P(PluginFactory, StartingTwiceKeepsTheCreatorsAlreadyRegistered) {
    life_->startLifeCycle();
    life_->startLifeCycle();
    EXPECT_EQ(supportedNames(*factory_), sortedFourTypeNames());
    EXPECT_NE(create<MessageDispatcherInterface>(MessageDispatcherInterface::DispatcherType), nullptr);
    EXPECT_NE(create<MessageQueueInterface>(MessageDispatcherInterface::QueueType), nullptr);
    EXPECT_NE(create<FixedDepthMessageQueueInterface>(MessageDispatcherInterface::FixedDepthQueueType),
              nullptr);
    EXPECT_NE(create<CallbackMessageQueueInterface>(MessageDispatcherInterface::CallbackQueueType),
              nullptr);
    // That a creator registered before is the one kept needs the factory
    // base's own operations: PluginLinked.StartingAgainKeepsACreatorAlreadyRegisteredUnderATypeName.
}

TEST_P(PluginFactory, EndingAnUnstartedFactoryDoesNothing) {
    life_->endLifeCycle();
    EXPECT_TRUE(factory_->supportedComponents().empty());
    EXPECT_EQ(factory_->createComponent(MessageDispatcherInterface::DispatcherType, {}), nullptr);

    // The factory is as new: starting it still registers the four creators.
    life_->startLifeCycle();
    EXPECT_EQ(supportedNames(*factory_), sortedFourTypeNames());
}

TEST_P(PluginFactory, StartingAfterEndingRegistersFreshCreators) {
    life_->startLifeCycle();
    auto before = create<MessageDispatcherInterface>(MessageDispatcherInterface::DispatcherType);
    ASSERT_NE(before, nullptr);
    life_->endLifeCycle();
    ASSERT_TRUE(factory_->supportedComponents().empty());

    life_->startLifeCycle();

    EXPECT_EQ(supportedNames(*factory_), sortedFourTypeNames());
    auto after = create<MessageDispatcherInterface>(MessageDispatcherInterface::DispatcherType);
    ASSERT_NE(after, nullptr);
    EXPECT_NE(after, before);
    auto queue = create<MessageQueueInterface>(MessageDispatcherInterface::QueueType);
    auto fixed = create<FixedDepthMessageQueueInterface>(MessageDispatcherInterface::FixedDepthQueueType);
    auto callback = create<CallbackMessageQueueInterface>(MessageDispatcherInterface::CallbackQueueType);
    ASSERT_NE(queue, nullptr);
    ASSERT_NE(fixed, nullptr);
    ASSERT_NE(callback, nullptr);
    expectRoutesToAllThree(*after, queue, fixed, callback);
}

// ---- What the creators make -------------------------------------------------

TEST_P(PluginFactory, FixedDepthQueueHasDepth100WhateverTheArguments) {
    life_->startLifeCycle();
    const std::vector<std::vector<std::string>> argumentLists = {
        {}, {"5"}, {"0"}, {""}, {"depth", "7"}, {"MaxDepth=1", "2", "3"}};
    for (const auto& args : argumentLists) {
        auto queue = create<FixedDepthMessageQueueInterface>(MessageDispatcherInterface::FixedDepthQueueType,
                                                             args);
        ASSERT_NE(queue, nullptr) << args.size() << " arguments";
        EXPECT_EQ(queue->getMaxDepth(), 100u) << args.size() << " arguments";
    }

    // The depth holds: the hundred-and-first message is refused.
    auto queue = create<FixedDepthMessageQueueInterface>(MessageDispatcherInterface::FixedDepthQueueType,
                                                         {"1"});
    ASSERT_NE(queue, nullptr);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(queue->putMessage(makeMessage(kPing))) << i;
    EXPECT_FALSE(queue->putMessage(makeMessage(kPing)));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 100u);
}

TEST_P(PluginFactory, TwoDispatchersAreDistinctWithSeparateTables) {
    life_->startLifeCycle();
    auto first = create<MessageDispatcherInterface>(MessageDispatcherInterface::DispatcherType);
    auto second = create<MessageDispatcherInterface>(MessageDispatcherInterface::DispatcherType);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(first, second);

    auto queue = create<MessageQueueInterface>(MessageDispatcherInterface::QueueType);
    ASSERT_NE(queue, nullptr);
    ASSERT_TRUE(first->subscribe(queue, {}, kPing));
    ASSERT_TRUE(second->registerService(queue, kService, kPing, 3));

    MessageDispatcherInterface::SubscriptionsTable firstSubscriptions, secondSubscriptions;
    MessageDispatcherInterface::ServicesTable firstServices, secondServices;
    EXPECT_EQ(first->getSubscriptionsTable(firstSubscriptions), 1u);
    EXPECT_EQ(second->getSubscriptionsTable(secondSubscriptions), 0u);
    EXPECT_EQ(first->getServicesTable(firstServices), 0u);
    EXPECT_EQ(second->getServicesTable(secondServices), 1u);

    // Separate histories too: the same message is new to each dispatcher.
    const MessagePtr message = makeMessage(kPing, {"host"});
    EXPECT_TRUE(second->postMessage(message, nullptr));
    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u) << "the second dispatcher delivered a subscription of the first";
    EXPECT_TRUE(first->postMessage(message, nullptr));
    EXPECT_EQ(queue->getMessage(milliseconds(0)), message);
}

TEST_P(PluginFactory, UnknownTypeNamesGiveNoComponent) {
    life_->startLifeCycle();
    std::string shouted = MessageDispatcherInterface::DispatcherType;
    std::transform(shouted.begin(), shouted.end(), shouted.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    ASSERT_NE(shouted, MessageDispatcherInterface::DispatcherType);

    for (const std::string& name : {std::string(), std::string("NoSuchComponent"), shouted,
                                    MessageDispatcherInterface::QueueType + " "}) {
        EXPECT_EQ(factory_->createComponent(name, {}), nullptr) << '"' << name << '"';
    }
    EXPECT_EQ(supportedNames(*factory_), sortedFourTypeNames());
}

TEST_P(PluginFactory, CreatedComponentsAreOwnedOnlyByTheCaller) {
    life_->startLifeCycle();
    for (const auto& type : fourTypeNames()) {
        auto component = factory_->createComponent(type, {});
        ASSERT_NE(component, nullptr) << type;
        EXPECT_EQ(component.use_count(), 1) << type;
        EXPECT_EQ(component->instanceId(), "") << type;
        std::weak_ptr<ComponentInterface> watch = component;
        component.reset();
        EXPECT_TRUE(watch.expired()) << type << " is still held after its owner let go";
    }
}

// ---- The entry point ---------------------------------------------------------

TEST_P(PluginFactory, SecondCallWithTheSamePointerReleasesTheFirstFactory) {
    life_->startLifeCycle();
    const std::weak_ptr<Kest::ComponentFactoryInterface> first = factory_;
    const auto* firstAddress = factory_.get();
    life_ = nullptr;

    callEntryPoint(factory_);

    EXPECT_TRUE(first.expired()) << "the first factory outlived its only owner";
    ASSERT_NE(factory_, nullptr);
    EXPECT_NE(factory_.get(), firstAddress);
    EXPECT_EQ(factory_.use_count(), 1);
    EXPECT_TRUE(factory_->supportedComponents().empty()) << "the new factory is started";
    for (const auto& type : fourTypeNames()) {
        EXPECT_EQ(factory_->createComponent(type, {}), nullptr) << type;
    }
}

TEST_P(PluginFactory, TwoCallsGiveTwoIndependentFactories) {
    auto other = newFactory();
    ASSERT_NE(other, nullptr);
    EXPECT_NE(other, factory_);
    EXPECT_EQ(other.use_count(), 1);

    life_->startLifeCycle();
    EXPECT_TRUE(other->supportedComponents().empty());
    EXPECT_EQ(other->createComponent(MessageDispatcherInterface::DispatcherType, {}), nullptr);
}

// ---- Reaching the interfaces with dynamic casts ------------------------------

TEST_P(PluginFactory, FactoryCastsToPassiveInterfaceAndComponentInterface) {
    auto* passive = dynamic_cast<PassiveInterface*>(factory_.get());
    ASSERT_NE(passive, nullptr);
    auto shared = std::dynamic_pointer_cast<PassiveInterface>(factory_);
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared.get(), passive);
    EXPECT_EQ(factory_.use_count(), 2);

    shared->startLifeCycle();
    EXPECT_EQ(supportedNames(*factory_), sortedFourTypeNames());

    // The factory is a component itself, with an identifier.
    auto* component = dynamic_cast<ComponentInterface*>(factory_.get());
    ASSERT_NE(component, nullptr);
    EXPECT_EQ(component->instanceId(), "");
    component->setInstanceId("messaging");
    EXPECT_EQ(component->instanceId(), "messaging");
}

TEST_P(PluginFactory, DispatcherCastsToMessageDispatcherInterfaceOnly) {
    life_->startLifeCycle();
    auto component = factory_->createComponent(MessageDispatcherInterface::DispatcherType, {});
    ASSERT_NE(component, nullptr);

    auto dispatcher = std::dynamic_pointer_cast<MessageDispatcherInterface>(component);
    ASSERT_NE(dispatcher, nullptr);
    EXPECT_EQ(dynamic_cast<MessageDispatcherInterface*>(component.get()), dispatcher.get());
    EXPECT_EQ(std::dynamic_pointer_cast<ComponentInterface>(dispatcher), component);
    EXPECT_EQ(std::dynamic_pointer_cast<MessageQueueInterface>(component), nullptr);
    EXPECT_EQ(std::dynamic_pointer_cast<PassiveInterface>(component), nullptr);
}

TEST_P(PluginFactory, QueueCastsToMessageQueueInterfaceOnly) {
    life_->startLifeCycle();
    auto component = factory_->createComponent(MessageDispatcherInterface::QueueType, {});
    ASSERT_NE(component, nullptr);

    auto queue = std::dynamic_pointer_cast<MessageQueueInterface>(component);
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(dynamic_cast<MessageQueueInterface*>(component.get()), queue.get());
    EXPECT_EQ(std::dynamic_pointer_cast<ComponentInterface>(queue), component);
    EXPECT_EQ(std::dynamic_pointer_cast<FixedDepthMessageQueueInterface>(component), nullptr);
    EXPECT_EQ(std::dynamic_pointer_cast<CallbackMessageQueueInterface>(component), nullptr);
    EXPECT_EQ(std::dynamic_pointer_cast<MessageDispatcherInterface>(component), nullptr);

    const MessagePtr message = makeMessage(kPing);
    EXPECT_TRUE(queue->putMessage(message));
    EXPECT_EQ(queue->getMessage(milliseconds(0)), message);
}

TEST_P(PluginFactory, FixedDepthQueueCastsToBothQueueInterfaces) {
    life_->startLifeCycle();
    auto component = factory_->createComponent(MessageDispatcherInterface::FixedDepthQueueType, {});
    ASSERT_NE(component, nullptr);

    auto fixed = std::dynamic_pointer_cast<FixedDepthMessageQueueInterface>(component);
    auto queue = std::dynamic_pointer_cast<MessageQueueInterface>(component);
    ASSERT_NE(fixed, nullptr);
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(static_cast<MessageQueueInterface*>(fixed.get()), queue.get());
    EXPECT_EQ(dynamic_cast<FixedDepthMessageQueueInterface*>(component.get()), fixed.get());
    EXPECT_EQ(std::dynamic_pointer_cast<ComponentInterface>(fixed), component);
    EXPECT_EQ(std::dynamic_pointer_cast<CallbackMessageQueueInterface>(component), nullptr);
    EXPECT_EQ(std::dynamic_pointer_cast<MessageDispatcherInterface>(component), nullptr);
    EXPECT_EQ(fixed->getMaxDepth(), 100u);
}

TEST_P(PluginFactory, CallbackQueueCastsToCallbackInterface) {
    life_->startLifeCycle();
    auto component = factory_->createComponent(MessageDispatcherInterface::CallbackQueueType, {});
    ASSERT_NE(component, nullptr);

    auto callback = std::dynamic_pointer_cast<CallbackMessageQueueInterface>(component);
    auto queue = std::dynamic_pointer_cast<MessageQueueInterface>(component);
    ASSERT_NE(callback, nullptr);
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(static_cast<MessageQueueInterface*>(callback.get()), queue.get());
    EXPECT_EQ(dynamic_cast<CallbackMessageQueueInterface*>(component.get()), callback.get());
    EXPECT_EQ(std::dynamic_pointer_cast<ComponentInterface>(callback), component);
    EXPECT_EQ(std::dynamic_pointer_cast<FixedDepthMessageQueueInterface>(component), nullptr);
    EXPECT_EQ(std::dynamic_pointer_cast<MessageDispatcherInterface>(component), nullptr);

    // Created without a callback; one set through the interface runs on put.
    EXPECT_FALSE(static_cast<bool>(callback->getCallback()));
    MessagePtr seen;
    callback->setCallback([&seen](const MessagePtr& message) { seen = message; });
    const MessagePtr message = makeMessage(kPing);
    EXPECT_TRUE(queue->putMessage(message));
    EXPECT_EQ(seen, message);
}

TEST_P(PluginFactory, CallbackQueueMadeByTheFactoryThrowsBadFunctionCallOnItsFirstPut) {
    life_->startLifeCycle();
    auto queue = create<CallbackMessageQueueInterface>(MessageDispatcherInterface::CallbackQueueType,
                                                       {"any", "arguments"});
    ASSERT_NE(queue, nullptr);
    EXPECT_THROW(queue->putMessage(makeMessage(kPing)), std::bad_function_call);
    // The queue's lock was released on the way out: a callback set now runs.
    int calls = 0;
    queue->setCallback([&calls](const MessagePtr&) { ++calls; });
    EXPECT_TRUE(queue->putMessage(makeMessage(kPing)));
    EXPECT_EQ(calls, 1);
}

// ---- Components at work ----------------------------------------------------

TEST_P(PluginFactory, MessageRoutesEndToEndThroughCreatedComponents) {
    life_->startLifeCycle();
    auto dispatcher = create<MessageDispatcherInterface>(MessageDispatcherInterface::DispatcherType);
    auto queue = create<MessageQueueInterface>(MessageDispatcherInterface::QueueType);
    auto fixed = create<FixedDepthMessageQueueInterface>(MessageDispatcherInterface::FixedDepthQueueType);
    auto callback = create<CallbackMessageQueueInterface>(MessageDispatcherInterface::CallbackQueueType);
    ASSERT_NE(dispatcher, nullptr);
    ASSERT_NE(queue, nullptr);
    ASSERT_NE(fixed, nullptr);
    ASSERT_NE(callback, nullptr);

    expectRoutesToAllThree(*dispatcher, queue, fixed, callback);
}

TEST_P(PluginFactory, ComponentsOutliveEndLifeCycleAndTheFactory) {
    life_->startLifeCycle();
    auto dispatcher = create<MessageDispatcherInterface>(MessageDispatcherInterface::DispatcherType);
    auto queue = create<MessageQueueInterface>(MessageDispatcherInterface::QueueType);
    auto fixed = create<FixedDepthMessageQueueInterface>(MessageDispatcherInterface::FixedDepthQueueType);
    auto callback = create<CallbackMessageQueueInterface>(MessageDispatcherInterface::CallbackQueueType);
    ASSERT_NE(dispatcher, nullptr);
    ASSERT_NE(queue, nullptr);
    ASSERT_NE(fixed, nullptr);
    ASSERT_NE(callback, nullptr);

    const std::weak_ptr<Kest::ComponentFactoryInterface> watch = factory_;
    life_->endLifeCycle();
    life_ = nullptr;
    factory_.reset();
    ASSERT_TRUE(watch.expired()) << "something still holds the factory";

    expectRoutesToAllThree(*dispatcher, queue, fixed, callback);
}

}  // namespace
}  // namespace KestPluginTest
