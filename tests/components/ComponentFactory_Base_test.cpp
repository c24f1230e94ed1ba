#include <kest/components/ComponentFactory_Base.h>

#include "ComponentTestTypes.h"

#include <support/QueuesTestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Kest::ComponentCreator;
using Kest::ComponentFactory_Base;
using Kest::ComponentFactoryInterface;
using Kest::ComponentInterface;
using KestComponentsTest::madeBy;
using KestComponentsTest::makes;
using KestComponentsTest::TestFactory;
using KestComponentsTest::Widget;
using Names = std::vector<std::string>;

static_assert(std::is_base_of_v<ComponentFactoryInterface, ComponentFactory_Base>);
static_assert(std::has_virtual_destructor_v<ComponentFactoryInterface>);
static_assert(std::is_same_v<ComponentCreator, std::function<std::shared_ptr<ComponentInterface>(
                                                   const std::vector<std::string>&)>>);

TEST(ComponentFactory_Base, NewFactoryHasEmptyMap) {
    TestFactory factory;
    EXPECT_TRUE(factory.supportedComponents().empty());
}

TEST(ComponentFactory_Base, CreatesComponentWithTheRegisteredCreator) {
    TestFactory factory;
    factory.addComponentCreator("Widget", makes("widget creator"));
    factory.addComponentCreator("Gadget", makes("gadget creator"));
    EXPECT_EQ(madeBy(factory.createComponent("Widget", {})), "widget creator");
    EXPECT_EQ(madeBy(factory.createComponent("Gadget", {})), "gadget creator");
}

TEST(ComponentFactory_Base, CreatorReceivesTheArguments) {
    TestFactory factory;
    factory.addComponentCreator("Widget", makes("w"));
    auto component = std::dynamic_pointer_cast<Widget>(factory.createComponent("Widget", {"a", "", "b c"}));
    ASSERT_TRUE(component);
    EXPECT_EQ(component->args, (Names{"a", "", "b c"}));
}

TEST(ComponentFactory_Base, EmptyResultOfCreatorIsPassedOn) {
    TestFactory factory;
    factory.addComponentCreator("Nothing", [](const Names&) { return std::shared_ptr<ComponentInterface>(); });
    EXPECT_NO_THROW(EXPECT_FALSE(factory.createComponent("Nothing", {})));
}

TEST(ComponentFactory_Base, AddingOneNameTwiceKeepsTheFirstCreator) {
    TestFactory factory;
    factory.addComponentCreator("Widget", makes("first"));
    factory.addComponentCreator("Widget", makes("second"));
    EXPECT_EQ(factory.supportedComponents().size(), 1U);
    EXPECT_EQ(madeBy(factory.createComponent("Widget", {})), "first");
}

TEST(ComponentFactory_Base, EmptyCreatorDoesNotDisplaceTheFirstOne) {
    TestFactory factory;
    factory.addComponentCreator("Widget", makes("first"));
    factory.addComponentCreator("Widget", ComponentCreator());
    EXPECT_EQ(madeBy(factory.createComponent("Widget", {})), "first");
}

TEST(ComponentFactory_Base, RemovedThenReaddedNameRunsTheNewCreator) {
    TestFactory factory;
    factory.addComponentCreator("Widget", makes("old"));
    factory.removeComponentCreator("Widget");
    EXPECT_FALSE(factory.createComponent("Widget", {}));
    factory.addComponentCreator("Widget", makes("new"));
    EXPECT_EQ(madeBy(factory.createComponent("Widget", {})), "new");
}

TEST(ComponentFactory_Base, UnknownNameYieldsEmptyPointer) {
    TestFactory factory;
    EXPECT_NO_THROW(EXPECT_FALSE(factory.createComponent("Never registered", {})));
    factory.addComponentCreator("Widget", makes("w"));
    EXPECT_NO_THROW(EXPECT_FALSE(factory.createComponent("Widget2", {})));
    EXPECT_NO_THROW(EXPECT_FALSE(factory.createComponent("", {})));
}

TEST(ComponentFactory_Base, EmptyCreatorThrowsBadFunctionCallAndFactoryStaysUsable) {
    // Factory and promise are shared with the worker, so that a worker stuck
    // on the factory's lock can be left behind without dangling references.
    auto factory = std::make_shared<TestFactory>();
    factory->addComponentCreator("Empty", ComponentCreator());
    factory->addComponentCreator("Widget", makes("w"));
    EXPECT_THROW(factory->createComponent("Empty", {}), std::bad_function_call);

    // The next call, from another thread, must get the lock again.
    auto result = std::make_shared<std::promise<std::string>>();
    auto done = result->get_future();
    std::thread worker([factory, result] { result->set_value(madeBy(factory->createComponent("Widget", {}))); });
    if (done.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        worker.detach();
        FAIL() << "createComponent blocked: the lock was not released after the exception";
    }
    worker.join();
    EXPECT_EQ(done.get(), "w");
    EXPECT_EQ(factory->names(), (Names{"Empty", "Widget"}));
}

TEST(ComponentFactory_Base, CreatorExceptionPropagatesAndLeavesTheMapUnchanged) {
    auto factory = std::make_shared<TestFactory>();
    factory->addComponentCreator("Failing", [](const Names&) -> std::shared_ptr<ComponentInterface> {
        throw std::runtime_error("creator failed");
    });
    factory->addComponentCreator("Widget", makes("w"));
    try {
        factory->createComponent("Failing", {"arg"});
        FAIL() << "the creator's exception did not propagate";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "creator failed");
    }
    EXPECT_EQ(factory->names(), (Names{"Failing", "Widget"}));

    auto result = std::make_shared<std::promise<std::string>>();
    auto done = result->get_future();
    std::thread worker([factory, result] { result->set_value(madeBy(factory->createComponent("Widget", {}))); });
    if (done.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        worker.detach();
        FAIL() << "createComponent blocked: the lock was not released after the exception";
    }
    worker.join();
    EXPECT_EQ(done.get(), "w");
}

TEST(ComponentFactory_Base, NamesAreCaseSensitive) {
    TestFactory factory;
    factory.addComponentCreator("Queue", makes("upper"));
    factory.addComponentCreator("queue", makes("lower"));
    EXPECT_EQ(factory.supportedComponents().size(), 2U);
    EXPECT_EQ(madeBy(factory.createComponent("Queue", {})), "upper");
    EXPECT_EQ(madeBy(factory.createComponent("queue", {})), "lower");
    EXPECT_FALSE(factory.createComponent("QUEUE", {}));
    factory.removeComponentCreator("QUEUE");
    factory.removeComponentCreator("queue");
    EXPECT_EQ(factory.names(), Names{"Queue"});
}

TEST(ComponentFactory_Base, RemoveAllOnEmptyFactoryDoesNothing) {
    TestFactory factory;
    EXPECT_NO_THROW(factory.removeAllComponentCreators());
    EXPECT_TRUE(factory.supportedComponents().empty());
}

TEST(ComponentFactory_Base, RemoveAllForgetsEveryCreator) {
    TestFactory factory;
    factory.addComponentCreator("A", makes("a"));
    factory.addComponentCreator("B", makes("b"));
    factory.removeAllComponentCreators();
    EXPECT_TRUE(factory.supportedComponents().empty());
    EXPECT_FALSE(factory.createComponent("A", {}));
    factory.addComponentCreator("A", makes("again"));
    EXPECT_EQ(madeBy(factory.createComponent("A", {})), "again");
}

TEST(ComponentFactory_Base, RemovingUnknownNameDoesNothing) {
    TestFactory factory;
    factory.addComponentCreator("A", makes("a"));
    EXPECT_NO_THROW(factory.removeComponentCreator("B"));
    EXPECT_EQ(factory.names(), Names{"A"});
}

TEST(ComponentFactory_Base, SupportedComponentsAreOrderedByteWise) {
    TestFactory factory;
    for (const char* name : {"b", "abc", "B", "ab", "a", "_"}) factory.addComponentCreator(name, makes(name));
    EXPECT_EQ(factory.names(), (Names{"B", "_", "a", "ab", "abc", "b"}));
}

TEST(ComponentFactory_Base, SupportedComponentsIsTheLiveMap) {
    TestFactory factory;
    const auto& map = factory.supportedComponents();
    factory.addComponentCreator("A", makes("a"));
    EXPECT_EQ(&map, &factory.supportedComponents());
    EXPECT_EQ(map.size(), 1U);
    ASSERT_EQ(map.count("A"), 1U);
    EXPECT_EQ(madeBy(map.at("A")({})), "a");
}

TEST(ComponentFactory_Base, RemovingCreatorReleasesWhatItCaptured) {
    TestFactory factory;
    auto captured = std::make_shared<int>(1);
    std::weak_ptr<int> watch = captured;
    factory.addComponentCreator("A", [captured](const Names&) { return std::shared_ptr<ComponentInterface>(); });
    captured.reset();
    EXPECT_FALSE(watch.expired());
    factory.removeComponentCreator("A");
    EXPECT_TRUE(watch.expired());
}

TEST(ComponentFactory_Base, DroppedSecondCreatorIsReleased) {
    TestFactory factory;
    factory.addComponentCreator("A", makes("a"));
    auto captured = std::make_shared<int>(1);
    std::weak_ptr<int> watch = captured;
    factory.addComponentCreator("A", [captured](const Names&) { return std::shared_ptr<ComponentInterface>(); });
    captured.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(ComponentFactory_Base, ComponentsOutliveTheirCreatorAndFactory) {
    std::shared_ptr<ComponentInterface> component;
    {
        auto factory = std::make_unique<TestFactory>();
        factory->addComponentCreator("A", makes("a"));
        component = factory->createComponent("A", {});
        factory->removeAllComponentCreators();
    }
    ASSERT_TRUE(component);
    component->setInstanceId("still here");
    EXPECT_EQ(madeBy(component), "a");
    EXPECT_EQ(component->instanceId(), "still here");
}

TEST(ComponentFactory_Base, WorksThroughTheFactoryInterface) {
    auto factory = std::make_shared<TestFactory>();
    factory->addComponentCreator("A", makes("a"));
    std::shared_ptr<ComponentFactoryInterface> asInterface = factory;
    EXPECT_EQ(madeBy(asInterface->createComponent("A", {})), "a");
    EXPECT_EQ(asInterface->supportedComponents().size(), 1U);
}

}  // namespace

namespace {

// A creator that, each time a copy of it is destroyed, finds out from another
// thread whether the factory's lock is free at that moment.
struct LockProbeCreator {
    std::weak_ptr<TestFactory> factory;
    std::shared_ptr<std::vector<bool>> freeAtDestruction;

    std::shared_ptr<ComponentInterface> operator()(const std::vector<std::string>&) const { return nullptr; }

    ~LockProbeCreator() {
        auto owner = factory.lock();
        if (!owner || !freeAtDestruction) return;
        // Under the lock the other thread cannot finish until this one has returned.
        freeAtDestruction->push_back(KestTest::finishesWithin(std::chrono::seconds(5), [owner] {
            owner->createComponent("none", {});
        }));
    }
};

}  // namespace

TEST(ComponentFactory_Base, RefusedCreatorIsDestroyedAfterTheLockIsReleased) {
    auto factory = std::make_shared<TestFactory>();
    factory->addComponentCreator("taken", makes("first"));
    auto freeAtDestruction = std::make_shared<std::vector<bool>>();

    factory->addComponentCreator("taken", LockProbeCreator{factory, freeAtDestruction});

    EXPECT_EQ(madeBy(factory->createComponent("taken", {})), "first");
    ASSERT_FALSE(freeAtDestruction->empty());
    for (std::size_t i = 0; i < freeAtDestruction->size(); ++i) {
        EXPECT_TRUE((*freeAtDestruction)[i]) << "copy " << i << " of the refused creator died under the lock";
    }
}
