#pragma once

// The cases of the plug-in's factory run in two executables: one links the
// dispatcher library and calls getComponentFactory directly, the other links
// only the interfaces and reaches getComponentFactory through dlopen and
// dlsym, as a component framework does. Both compile the same case files
// against the fixture below and instantiate it with their own entry point.
//
// Only interface headers are included here, so that the loading executable
// cannot pick up the dispatcher library by accident (the factory base,
// ComponentFactory_Base, is part of it).

#include <kest/components/ComponentInterface.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/model/MessageQueueInterface.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace KestPluginTest {

// The signature of the plug-in's entry point.
using GetComponentFactoryFn = void (*)(std::shared_ptr<Kest::ComponentFactoryInterface>&);

// How one executable reaches the entry point. `resolve` may load the plug-in
// on first use; it returns null (after printing why) when that fails.
struct EntryPoint {
    const char* how;
    GetComponentFactoryFn (*resolve)();
};

inline void PrintTo(const EntryPoint& entry, std::ostream* out) { *out << entry.how; }

// The four type names the factory's life cycle registers.
inline std::vector<std::string> fourTypeNames() {
    using Kest::Msgs::MessageDispatcherInterface;
    return {MessageDispatcherInterface::DispatcherType, MessageDispatcherInterface::QueueType,
            MessageDispatcherInterface::FixedDepthQueueType,
            MessageDispatcherInterface::CallbackQueueType};
}

// The same, in the order of the factory's map.
inline std::vector<std::string> sortedFourTypeNames() {
    auto names = fourTypeNames();
    std::sort(names.begin(), names.end());
    return names;
}

// The type names currently registered in `factory`, in map order.
inline std::vector<std::string> supportedNames(const Kest::ComponentFactoryInterface& factory) {
    std::vector<std::string> names;
    for (const auto& entry : factory.supportedComponents()) names.push_back(entry.first);
    return names;
}

// Each case starts with a fresh, unstarted factory from the entry point and
// its life-cycle interface, found the way a framework finds it.
class PluginFactory : public ::testing::TestWithParam<EntryPoint> {
protected:
    void SetUp() override {
        getComponentFactory_ = GetParam().resolve();
        ASSERT_NE(getComponentFactory_, nullptr) << "getComponentFactory not reached (" << GetParam().how << ")";
        factory_ = newFactory();
        ASSERT_NE(factory_, nullptr);
        life_ = dynamic_cast<Kest::LifeCycle::PassiveInterface*>(factory_.get());
        ASSERT_NE(life_, nullptr) << "the factory has no PassiveInterface base";
    }

    // Calls the entry point with `holder`, as a framework does.
    void callEntryPoint(std::shared_ptr<Kest::ComponentFactoryInterface>& holder) const {
        getComponentFactory_(holder);
    }

    std::shared_ptr<Kest::ComponentFactoryInterface> newFactory() const {
        std::shared_ptr<Kest::ComponentFactoryInterface> holder;
        callEntryPoint(holder);
        return holder;
    }

    // createComponent on the case's factory, cast to the interface wanted.
    template <class Interface>
    std::shared_ptr<Interface> create(const std::string& type,
                                      const std::vector<std::string>& args = {}) const {
        return std::dynamic_pointer_cast<Interface>(factory_->createComponent(type, args));
    }

    std::shared_ptr<Kest::ComponentFactoryInterface> factory_;
    Kest::LifeCycle::PassiveInterface* life_ = nullptr;

private:
    GetComponentFactoryFn getComponentFactory_ = nullptr;
};

}  // namespace KestPluginTest
