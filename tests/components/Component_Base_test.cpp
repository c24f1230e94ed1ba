#include <kest/components/ComponentInterface.h>
#include <kest/components/Component_Base.h>

#include "ComponentTestTypes.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

namespace {

using Kest::Component_Base;
using Kest::ComponentInterface;
using KestComponentsTest::Widget;

// Components are deleted only through their concrete type.
static_assert(!std::is_destructible_v<ComponentInterface>);
static_assert(!std::has_virtual_destructor_v<ComponentInterface>);
static_assert(!std::is_destructible_v<Component_Base>);
static_assert(std::is_destructible_v<Widget>);
static_assert(std::is_abstract_v<ComponentInterface>);
static_assert(!std::is_destructible_v<Kest::LifeCycle::PassiveInterface>);

// ComponentInterface is a virtual base, so a class that reaches it along two
// paths still has one instance identifier.
class TwoPaths : public Component_Base, public virtual ComponentInterface {};
static_assert(std::is_convertible_v<TwoPaths*, ComponentInterface*>);

TEST(Component_Base, NewComponentHasEmptyInstanceId) {
    Widget w("t");
    EXPECT_EQ(w.instanceId(), "");
}

TEST(Component_Base, SetInstanceIdStoresTheValue) {
    Widget w("t");
    w.setInstanceId("dispatcher-1");
    EXPECT_EQ(w.instanceId(), "dispatcher-1");
    w.setInstanceId("  Mixed Case / odd chars \t");
    EXPECT_EQ(w.instanceId(), "  Mixed Case / odd chars \t");
}

TEST(Component_Base, EmptyInstanceIdIsAccepted) {
    Widget w("t");
    w.setInstanceId("x");
    w.setInstanceId("");
    EXPECT_EQ(w.instanceId(), "");
}

TEST(Component_Base, InstanceIdWorksThroughTheInterface) {
    auto component = std::make_shared<Widget>("t");
    std::shared_ptr<ComponentInterface> asInterface = component;
    asInterface->setInstanceId("via interface");
    EXPECT_EQ(component->instanceId(), "via interface");
    EXPECT_EQ(asInterface->instanceId(), "via interface");
}

TEST(Component_Base, ComponentReachedAlongTwoPathsHasOneIdentifier) {
    auto both = std::make_shared<TwoPaths>();
    ComponentInterface& viaVirtualBase = *both;
    Component_Base& viaBase = *both;
    viaBase.setInstanceId("one");
    EXPECT_EQ(viaVirtualBase.instanceId(), "one");
    EXPECT_EQ(&viaVirtualBase, static_cast<ComponentInterface*>(&viaBase));
}

TEST(Component_Base, CopyKeepsTheIdentifierSeparately) {
    Widget a("t");
    a.setInstanceId("a");
    Widget b(a);
    b.setInstanceId("b");
    EXPECT_EQ(a.instanceId(), "a");
    EXPECT_EQ(b.instanceId(), "b");
}

}  // namespace
