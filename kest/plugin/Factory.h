#pragma once

// Factory: the component factory of the messaging plug-in.
//
// startLifeCycle registers four creators, under the type names
// MessageDispatcherInterface::DispatcherType, QueueType, FixedDepthQueueType
// and CallbackQueueType; createComponent then makes a MessageDispatcher, a
// MessageQueue, a MessageQueue_FixedDepth (depth 100) or a MessageCallback
// (no callback set). Creation arguments are ignored. endLifeCycle removes the
// creators; components made before live on with their owners and do not
// refer back to the factory.
//
// Threads: creation and the life-cycle operations serialise on the factory's
// lock (see ComponentFactory_Base).

#include <kest/components/ComponentFactory_Base.h>
#include <kest/components/ComponentInterface.h>
#include <kest/components/Component_Base.h>
#include <kest/msgs/Api.h>

#include <memory>
#include <string>
#include <vector>

namespace Kest::Msgs {

class KEST_DISPATCHER_API Factory : public Component_Base,
                                    public ComponentFactory_Base,
                                    public LifeCycle::PassiveInterface {
public:
    Factory();
    ~Factory() override;

    // Registers the four creators, keeping any already registered under a name.
    void startLifeCycle() override;
    // Removes every creator.
    void endLifeCycle() override;

    // A new MessageDispatcher, owned by a new std::shared_ptr of the concrete type.
    std::shared_ptr<ComponentInterface> createDispatcher(const std::vector<std::string>& args);
};

}  // namespace Kest::Msgs

// The plug-in's entry point: stores a new, unstarted Factory in `factory`,
// releasing what it held. No singleton: each call gives a new factory.
extern "C" KEST_DISPATCHER_API void getComponentFactory(
    std::shared_ptr<Kest::ComponentFactoryInterface>& factory);
