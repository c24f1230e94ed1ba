// Compile-time properties of the abstract interfaces and the message type, and
// the type-name constants they carry.

#include <kest/model/Message.h>
#include <kest/model/MessageDispatcherInterface.h>
#include <kest/model/MessageQueueInterface.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <type_traits>

namespace {

using Kest::Msgs::CallbackMessageQueueInterface;
using Kest::Msgs::FixedDepthMessageQueueInterface;
using Kest::Msgs::Message;
using Kest::Msgs::MessageDispatcherInterface;
using Kest::Msgs::MessageQueueInterface;

// Queues and dispatchers are deleted only through their concrete type.
static_assert(!std::is_destructible_v<MessageQueueInterface>);
static_assert(!std::is_destructible_v<MessageDispatcherInterface>);
static_assert(!std::is_destructible_v<FixedDepthMessageQueueInterface>);
static_assert(!std::is_destructible_v<CallbackMessageQueueInterface>);
static_assert(!std::has_virtual_destructor_v<MessageQueueInterface>);
static_assert(!std::has_virtual_destructor_v<MessageDispatcherInterface>);
static_assert(std::is_polymorphic_v<MessageQueueInterface>);
static_assert(std::is_abstract_v<MessageDispatcherInterface>);

// Messages are shared, never copied.
static_assert(!std::is_copy_constructible_v<Message>);

static_assert(std::is_base_of_v<MessageQueueInterface, FixedDepthMessageQueueInterface>);
static_assert(std::is_base_of_v<MessageQueueInterface, CallbackMessageQueueInterface>);

static_assert(std::is_same_v<decltype(MessageDispatcherInterface::ServiceInfo::queueCount), std::uint64_t>);
static_assert(std::is_same_v<decltype(MessageDispatcherInterface::ServiceInfo::lowestRank), std::uint64_t>);

TEST(ModelInterfaces, TypeNameConstantsAreDistinctAndReadable) {
    const std::set<std::string> names{
        MessageDispatcherInterface::DispatcherType, MessageDispatcherInterface::QueueType,
        MessageDispatcherInterface::FixedDepthQueueType, MessageDispatcherInterface::CallbackQueueType};
    EXPECT_EQ(names.size(), 4U);
    for (const std::string& name : names) EXPECT_FALSE(name.empty());
}

}  // namespace
