// The component bases when memory runs out: Component_Base's instance
// identifier and ComponentFactory_Base's creator map. Every operation gives
// the strong guarantee: after a failure the map holds the same creators
// under the same names, its lock is free for another thread, and the call
// then succeeds.

#include "AllocHarness.h"

#include <kest/components/ComponentFactory_Base.h>
#include <kest/components/Component_Base.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using namespace KestAlloc;
using Kest::ComponentCreator;
using Kest::ComponentFactory_Base;
using Kest::ComponentInterface;

namespace {

const std::string kLong = "a name well beyond the inline buffer of a std::string";

class Thing : public Kest::Component_Base {
public:
    explicit Thing(std::string label) : label(std::move(label)) {}
    std::string label;
};

// A creator whose capture is too large for std::function's own buffer, so
// that copying it allocates. It makes a Thing labelled with its own label.
struct MakeThing {
    std::string label;
    std::array<char, 48> padding{};
    std::shared_ptr<ComponentInterface> operator()(const std::vector<std::string>&) const {
        return std::make_shared<Thing>(label);
    }
};

// A creator that runs out of memory itself, every time, and counts it.
std::atomic<unsigned> creatorFailures{0};
struct FailingCreator {
    std::shared_ptr<ComponentInterface> operator()(const std::vector<std::string>&) const {
        ++creatorFailures;
        throw std::bad_alloc();
    }
};

struct Factories {
    std::shared_ptr<ComponentFactory_Base> factory = std::make_shared<ComponentFactory_Base>();
    std::shared_ptr<Thing> thing = std::make_shared<Thing>("thing");
    ComponentCreator creator = MakeThing{kLong + "-new"};
    std::string newName = kLong + "-new";
    std::string name = kLong + "-a";
    std::string unknown = kLong + "-unknown";
    std::string failing = kLong + "-failing";
    std::string id = kLong + "-id";
    std::vector<std::string> args{kLong, "b"};
    std::shared_ptr<ComponentInterface> made;
    std::string thrown;
    unsigned long number = 0;

    Factories() {
        factory->addComponentCreator(kLong + "-a", MakeThing{kLong + "-a"});
        factory->addComponentCreator(kLong + "-b", MakeThing{kLong + "-b"});
        factory->addComponentCreator("short", MakeThing{"short"});
        factory->addComponentCreator(kLong + "-failing", FailingCreator{});
        thing->setInstanceId("before");
    }
};

std::string describeFactories(Factories& s) {
    std::string text = "creators";
    for (const auto& entry : s.factory->supportedComponents()) {
        const MakeThing* make = entry.second.target<MakeThing>();
        text += " " + entry.first + "->" +
                (make ? make->label : entry.second.target<FailingCreator>() ? "failing" : "?");
    }
    const auto* made = dynamic_cast<const Thing*>(s.made.get());
    return text + " thing " + s.thing->instanceId() + " made " + (made ? made->label : "-") + " thrown " +
           s.thrown + " number " + std::to_string(s.number);
}

std::shared_ptr<Factories> factories() { return std::make_shared<Factories>(); }

// The strong guarantee, and the factory's lock free for another thread after
// each failure.
template <class Op>
void strong(const std::string& name, Op op) {
    struct Reference {
        bool known = false;
        std::string before;
        std::string after;
    };
    auto reference = std::make_shared<Reference>();
    cover<Factories>(
        name,
        [op, reference] {
            if (!reference->known) {
                auto model = factories();
                reference->before = describeFactories(*model);
                op(*model);
                reference->after = describeFactories(*model);
                reference->known = true;
            }
            return factories();
        },
        op,
        [op, reference](Factories& s, std::size_t, bool) {
            checkEqual(describeFactories(s), reference->before, "the factory changed");
            check(answersFromAnotherThread([factory = s.factory] { (void)factory->createComponent("short", {}); }),
                  "another thread cannot create a component: the factory's lock is still taken");
            op(s);
            checkEqual(describeFactories(s), reference->after, "the call made after the failure did not succeed");
        },
        [reference](Factories& s) { checkEqual(describeFactories(s), reference->after, "the result"); });
}

}  // namespace

class ComponentsAllocation : public AllocTest {};

TEST_F(ComponentsAllocation, InstanceIdentifierIsSetWholeOrNotAtAll) {
    strong("Component_Base::setInstanceId", [](Factories& s) { s.thing->setInstanceId(s.id); });
    coverNoAllocation<Factories>("Component_Base::instanceId", factories,
                                 [](Factories& s) { s.number = s.thing->instanceId().size(); });
}

TEST_F(ComponentsAllocation, CreatorMapChangesWholeOrNotAtAll) {
    strong("ComponentFactory_Base()", [](Factories& s) {
        s.factory = std::make_shared<ComponentFactory_Base>();
    });
    strong("ComponentFactory_Base::addComponentCreator of a new name",
           [](Factories& s) { s.factory->addComponentCreator(s.newName, s.creator); });
    strong("ComponentFactory_Base::addComponentCreator of a taken name",
           [](Factories& s) { s.factory->addComponentCreator(s.name, s.creator); });
    coverNoAllocation<Factories>("ComponentFactory_Base::removeComponentCreator, removeAllComponentCreators",
                                 factories, [](Factories& s) {
                                     s.factory->removeComponentCreator(s.name);
                                     s.factory->removeComponentCreator(s.unknown);
                                     s.factory->removeAllComponentCreators();
                                 });
    coverNoAllocation<Factories>("ComponentFactory_Base::supportedComponents", factories,
                                 [](Factories& s) { s.number = s.factory->supportedComponents().size(); });
}

TEST_F(ComponentsAllocation, CreatingAComponentChangesNothingWhenMemoryRunsOut) {
    strong("ComponentFactory_Base::createComponent",
           [](Factories& s) { s.made = s.factory->createComponent(s.name, s.args); });
    strong("ComponentFactory_Base::createComponent of an unknown name",
           [](Factories& s) { s.made = s.factory->createComponent(s.unknown, s.args); });
    // A creator's own std::bad_alloc passes through, the lock released.
    strong("ComponentFactory_Base::createComponent with a creator that runs out of memory", [](Factories& s) {
        const unsigned before = creatorFailures;
        try {
            s.made = s.factory->createComponent(s.failing, s.args);
        } catch (const std::bad_alloc&) {
            if (creatorFailures == before) throw;  // the harness's, not the creator's
            s.thrown = "the creator's bad_alloc";
        }
    });
}
