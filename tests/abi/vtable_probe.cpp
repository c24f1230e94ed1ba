// Instantiates every public class with virtual operations, so that the
// compiler's class-layout dump lists their vtables.
#include <kest/messaging.h>

namespace probe {
using namespace Kest;
using namespace Kest::Msgs;
using namespace Kest::Msgs::Communications;
using namespace Kest::Msgs::Communications::Forwarder;

template <class... T>
struct Sizes {
    static constexpr std::size_t total = (sizeof(T) + ...);
};

constexpr std::size_t all = Sizes<MessageDispatcher, MessageQueue, MessageQueue_FixedDepth, MessageCallback,
                                  Factory, ComponentFactory_Base, Component_Base, Message,
                                  CommunicationsMessage, Base, ServiceData, Structs::MessageKeyData,
                                  ServiceRankNotification, PayloadMessage<0x0100, 1, ServiceData>,
                                  ReflectedAddress,
                                  MetaData::Reflector<unsigned long, false, true>,
                                  MetaData::Reflector<Identifier, false, true>,
                                  MetaData::Reflector<Structs::MessageKeyData, true, true>,
                                  MetaData::Reflector<ServiceData, true, true>>::total;
}  // namespace probe

int main() { return probe::all == 0; }
