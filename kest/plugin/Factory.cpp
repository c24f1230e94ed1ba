#include <kest/model/MessageDispatcherInterface.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>
#include <kest/plugin/Factory.h>

namespace Kest::Msgs {

namespace {

// `new` under a std::shared_ptr of the concrete class: the control block
// deletes the concrete type, which none of the interfaces could.
template <class Concrete>
std::shared_ptr<ComponentInterface> make(const std::vector<std::string>& args) {
    return std::shared_ptr<Concrete>(new Concrete(args));
}

}  // namespace

Factory::Factory() = default;

Factory::~Factory() = default;

void Factory::startLifeCycle() {
    addComponentCreator(MessageDispatcherInterface::DispatcherType,
                        [this](const std::vector<std::string>& args) { return createDispatcher(args); });
    addComponentCreator(MessageDispatcherInterface::QueueType, &make<MessageQueue>);
    addComponentCreator(MessageDispatcherInterface::FixedDepthQueueType, &make<MessageQueue_FixedDepth>);
    addComponentCreator(MessageDispatcherInterface::CallbackQueueType, &make<MessageCallback>);
}

void Factory::endLifeCycle() { removeAllComponentCreators(); }

std::shared_ptr<ComponentInterface> Factory::createDispatcher(const std::vector<std::string>& args) {
    return make<MessageDispatcher>(args);
}

}  // namespace Kest::Msgs

extern "C" void getComponentFactory(std::shared_ptr<Kest::ComponentFactoryInterface>& factory) {
    factory = std::shared_ptr<Kest::Msgs::Factory>(new Kest::Msgs::Factory());
}
