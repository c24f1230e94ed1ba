#pragma once

// MessageDispatcherInterface: the abstract dispatcher.
//
// Dispatchers are owned through a std::shared_ptr made from their concrete
// type; the interface has no virtual destructor, and its protected one keeps
// a dispatcher from being deleted through it. The order of the virtual
// operations is binary interface.

#include <kest/model/Api.h>
#include <kest/model/Identifier.h>
#include <kest/model/MessageKey.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace Kest::Msgs {

class Message;
class MessageQueueInterface;

class KEST_MESSAGES_API MessageDispatcherInterface {
public:
    // What getServicesTable reports per service key.
    struct ServiceInfo {
        std::uint64_t queueCount;  // queues registered under the key
        std::uint64_t lowestRank;  // the smallest rank registered under the key
    };

    using SubscriptionsTable = std::unordered_map<MessageKey, unsigned int, MessageKey::HasherWithSender>;
    using ServicesTable = std::unordered_map<MessageKey, ServiceInfo, MessageKey::HasherWithDestination>;

    // Component type names of the dispatcher and the three queue kinds.
    static const std::string DispatcherType;
    static const std::string QueueType;
    static const std::string FixedDepthQueueType;
    static const std::string CallbackQueueType;

    virtual bool subscribe(std::shared_ptr<MessageQueueInterface> queue,
                           const std::vector<std::string>& address, const Identifier& id) = 0;
    virtual bool unsubscribe(std::shared_ptr<MessageQueueInterface> queue,
                             const std::vector<std::string>& address, const Identifier& id) = 0;
    virtual bool unsubscribeFromAll(std::shared_ptr<MessageQueueInterface> queue) = 0;
    virtual bool registerService(std::shared_ptr<MessageQueueInterface> queue,
                                 const std::vector<std::string>& destination, const Identifier& id,
                                 unsigned long rank) = 0;
    virtual bool unregisterService(std::shared_ptr<MessageQueueInterface> queue,
                                   const std::vector<std::string>& destination,
                                   const Identifier& id) = 0;
    virtual bool unregisterAll(std::shared_ptr<MessageQueueInterface> queue) = 0;
    // unsubscribeFromAll(queue), then unregisterAll(queue); returns true.
    virtual bool disconnectQueue(std::shared_ptr<MessageQueueInterface> queue);
    virtual std::size_t getSubscriptionsTable(SubscriptionsTable& out) const = 0;
    virtual std::size_t getServicesTable(ServicesTable& out) const = 0;
    virtual bool postMessage(std::shared_ptr<const Message> message,
                             const std::shared_ptr<MessageQueueInterface>& sender) = 0;

protected:
    MessageDispatcherInterface() = default;
    MessageDispatcherInterface(const MessageDispatcherInterface&) = default;
    MessageDispatcherInterface& operator=(const MessageDispatcherInterface&) = default;
    ~MessageDispatcherInterface() = default;
};

}  // namespace Kest::Msgs
