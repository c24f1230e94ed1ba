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
//
// Memory: creating a component gives the strong guarantee (nothing made, the
// table unchanged, the lock released). startLifeCycle gives the basic one.

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
    // Basic guarantee: if memory runs out, the creators registered before the
    // failure (the first ones of the four, in order) stay and the others are
    // not registered; the factory works, and calling startLifeCycle again
    // registers the rest.
    void startLifeCycle() override;
    // Removes every creator. Allocates nothing.
    void endLifeCycle() override;

    // A new MessageDispatcher, owned by a new std::shared_ptr of the concrete
    // type. If memory runs out, nothing is made.
    std::shared_ptr<ComponentInterface> createDispatcher(const std::vector<std::string>& args);
};

}  // namespace Kest::Msgs

// The plug-in's entry point: stores a new, unstarted Factory in `factory`,
// releasing what it held. No singleton: each call gives a new factory.
// Strong guarantee: if memory runs out, `factory` keeps what it held.
extern "C" KEST_DISPATCHER_API void getComponentFactory(
    std::shared_ptr<Kest::ComponentFactoryInterface>& factory);
