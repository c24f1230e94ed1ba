// The plug-in's factory when memory runs out: getComponentFactory, the
// Factory's life cycle, createDispatcher and the four creators.
//
// getComponentFactory, createDispatcher and createComponent give the strong
// guarantee: the caller's pointer keeps its factory, the creator map is
// unchanged, the lock is free. startLifeCycle gives the basic one: the
// creators it registered before the failure stay (a prefix of the four, in
// order), and calling it again registers the rest.

#include "AllocHarness.h"

#include <kest/model/Message.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/model/MessageQueueInterface.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>
#include <kest/plugin/Factory.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace KestAlloc;
using Kest::ComponentFactoryInterface;
using Kest::ComponentInterface;
using Kest::Msgs::Factory;
using Kest::Msgs::MessageDispatcherInterface;

namespace {

const std::vector<std::string> kTypes = {
    MessageDispatcherInterface::DispatcherType, MessageDispatcherInterface::QueueType,
    MessageDispatcherInterface::FixedDepthQueueType, MessageDispatcherInterface::CallbackQueueType};

struct Plugin {
    std::shared_ptr<ComponentFactoryInterface> factory;
    ComponentFactoryInterface* original = nullptr;
    std::shared_ptr<Factory> started = std::make_shared<Factory>();
    std::shared_ptr<Factory> fresh = std::make_shared<Factory>();
    std::vector<std::string> args{"an argument that is long enough to need the heap"};
    std::shared_ptr<ComponentInterface> made;
    std::string type;

    Plugin() {
        getComponentFactory(factory);
        original = factory.get();
        started->startLifeCycle();
    }
};

std::string names(const Kest::ComponentFactory_Base& factory) {
    std::string text = "(";
    for (const auto& entry : factory.supportedComponents()) text += entry.first + ",";
    return text + ")";
}

// What kind of component `made` is, and whether it works.
std::string describeMade(const std::shared_ptr<ComponentInterface>& made) {
    using namespace Kest::Msgs;
    if (!made) return "nothing";
    auto message = std::make_shared<Message>(Identifier(1, 1));
    if (auto dispatcher = std::dynamic_pointer_cast<MessageDispatcher>(made)) {
        return std::string("a dispatcher that ") + (dispatcher->postMessage(message, nullptr) ? "posts" : "fails");
    }
    if (auto fixed = std::dynamic_pointer_cast<MessageQueue_FixedDepth>(made)) {
        return "a fixed-depth queue of depth " + std::to_string(fixed->getMaxDepth()) + " that " +
               (fixed->putMessage(message) && fixed->getMessage(std::chrono::milliseconds(0)) == message ? "works"
                                                                                                        : "fails");
    }
    if (auto queue = std::dynamic_pointer_cast<MessageQueue>(made)) {
        return std::string("a queue that ") +
               (queue->putMessage(message) && queue->getMessage(std::chrono::milliseconds(0)) == message ? "works"
                                                                                                        : "fails");
    }
    if (auto callback = std::dynamic_pointer_cast<MessageCallback>(made)) {
        return std::string("a callback queue ") + (callback->getCallback() ? "with" : "without") + " a callback";
    }
    return "something else";
}

std::string describePlugin(Plugin& s) {
    return std::string("factory ") + (s.factory.get() == s.original ? "the original" : "another") + " of " +
           (s.factory ? names(dynamic_cast<Kest::ComponentFactory_Base&>(*s.factory)) : "-") + " started " +
           names(*s.started) + " fresh " + names(*s.fresh) + " made " + describeMade(s.made);
}

std::shared_ptr<Plugin> plugin() { return std::make_shared<Plugin>(); }

template <class Op>
void strong(const std::string& name, Op op) {
    struct Reference {
        bool known = false;
        std::string before;
        std::string after;
    };
    auto reference = std::make_shared<Reference>();
    cover<Plugin>(
        name,
        [op, reference] {
            if (!reference->known) {
                auto model = plugin();
                reference->before = describePlugin(*model);
                op(*model);
                reference->after = describePlugin(*model);
                reference->known = true;
            }
            return plugin();
        },
        op,
        [op, reference](Plugin& s, std::size_t, bool) {
            checkEqual(describePlugin(s), reference->before, "the factory changed");
            check(answersFromAnotherThread([factory = s.started] {
                      (void)factory->createComponent(MessageDispatcherInterface::QueueType, {});
                  }),
                  "another thread cannot create a component: the factory's lock is still taken");
            op(s);
            checkEqual(describePlugin(s), reference->after, "the call made after the failure did not succeed");
        },
        [reference](Plugin& s) { checkEqual(describePlugin(s), reference->after, "the result"); });
}

}  // namespace

class FactoryAllocation : public AllocTest {};

TEST_F(FactoryAllocation, EntryPointKeepsTheCallersFactoryWhenMemoryRunsOut) {
    strong("getComponentFactory", [](Plugin& s) { getComponentFactory(s.factory); });
    strong("Factory()", [](Plugin& s) { s.fresh = std::make_shared<Factory>(); });
}

TEST_F(FactoryAllocation, EachCreatorMakesAWorkingComponentOrNothing) {
    strong("Factory::createDispatcher", [](Plugin& s) { s.made = s.started->createDispatcher(s.args); });
    for (const std::string& type : kTypes) {
        strong("Factory::createComponent(" + type + ")",
               [type](Plugin& s) { s.made = s.started->createComponent(type, s.args); });
    }
}

TEST_F(FactoryAllocation, StartedLifeCycleKeepsWhatItRegisteredAndCompletesWhenCalledAgain) {
    const Coverage coverage = cover<Plugin>(
        "Factory::startLifeCycle", plugin, [](Plugin& s) { s.fresh->startLifeCycle(); },
        [](Plugin& s, std::size_t, bool) {
            // The creators are registered one after another: those before the
            // failure stay, in the order of registration.
            const auto& creators = s.fresh->supportedComponents();
            std::size_t registered = 0;
            while (registered < kTypes.size() && creators.count(kTypes[registered]) != 0) ++registered;
            checkEqual(creators.size(), registered,
                       "the registered creators are not the first ones of the four: " + names(*s.fresh));
            for (std::size_t i = 0; i < registered; ++i) {
                check(s.fresh->createComponent(kTypes[i], {}) != nullptr, "a registered creator does not create");
            }
            check(answersFromAnotherThread([factory = s.fresh] { (void)factory->createComponent("x", {}); }),
                  "the factory's lock is still taken");
            s.fresh->startLifeCycle();
            checkEqual(names(*s.fresh), names(*s.started), "starting again did not register the four creators");
        },
        [](Plugin& s) { checkEqual(names(*s.fresh), names(*s.started), "the four creators"); });
    EXPECT_GE(coverage.allocations, 4u);
    coverNoAllocation<Plugin>("Factory::endLifeCycle", plugin, [](Plugin& s) {
        Kest::LifeCycle::PassiveInterface& life = *s.started;
        life.endLifeCycle();
    });
}
