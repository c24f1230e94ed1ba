#pragma once

// A dispatcher with a forwarder-style queue that listens to the service
// notifications (types 5 and 6) from any sender, plus small helpers for the
// service tests of this folder.

#include <kest/messaging.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace ServiceTest {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageDispatcher;
using Kest::Msgs::MessageDispatcherInterface;
using Kest::Msgs::MessageKey;
using Kest::Msgs::MessageQueue;
using Kest::Msgs::MessageQueue_FixedDepth;
using KestTest::Address;
using KestTest::Notice;
namespace Fwd = Kest::Msgs::Communications::Forwarder;

// The rank a change notice carries: all ones.
inline constexpr unsigned long kChangeRank = 18446744073709551615UL;
static_assert(kChangeRank == std::numeric_limits<unsigned long>::max());

inline constexpr Identifier kRankNoticeId(Fwd::Category, 5);
inline constexpr Identifier kChangeNoticeId(Fwd::Category, 6);
inline constexpr Identifier kAddedNoticeId(Fwd::Category, 9);
inline constexpr Identifier kRemovedNoticeId(Fwd::Category, 10);

// Identifiers of ordinary requests.
inline constexpr Identifier kPrint(3, 17);
inline constexpr Identifier kStop(3, 18);

inline Notice rankNotice(Identifier id, Address destination, unsigned long rank) {
    return KestTest::notice(5, id, {}, std::move(destination), rank);
}
inline Notice changeNotice(Identifier id, Address destination) {
    return KestTest::notice(6, id, {}, std::move(destination), kChangeRank);
}

inline MessageKey serviceKey(Identifier id, const Address& destination) {
    return MessageKey(static_cast<unsigned long>(id), {}, destination, MessageKey::HashFunction());
}

inline std::size_t servicesTableSize(const MessageDispatcher& dispatcher) {
    MessageDispatcherInterface::ServicesTable table;
    return dispatcher.getServicesTable(table);
}

// True when `queue` holds exactly one message and it is `message`; takes it.
inline bool holdsOnly(MessageQueue& queue, const std::shared_ptr<const Message>& message) {
    if (queue.getAvailableMessagesCount() != 1) return false;
    return queue.getMessage(std::chrono::milliseconds(0)) == message;
}

class DispatcherWithForwarder : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dispatcher->subscribe(forwarder, {}, kRankNoticeId));
        ASSERT_TRUE(dispatcher->subscribe(forwarder, {}, kChangeNoticeId));
        ASSERT_TRUE(notices().empty());
    }

    // The notices that reached the forwarder since the last call, in order.
    std::vector<Notice> notices() { return KestTest::drainNotices(*forwarder); }

    MessageDispatcherInterface::ServicesTable servicesTable() const {
        MessageDispatcherInterface::ServicesTable table;
        dispatcher->getServicesTable(table);
        return table;
    }

    static std::shared_ptr<MessageQueue> makeQueue() { return std::make_shared<MessageQueue>(); }

    std::shared_ptr<MessageDispatcher> dispatcher = std::make_shared<MessageDispatcher>();
    std::shared_ptr<MessageQueue> forwarder = std::make_shared<MessageQueue>();
};

}  // namespace ServiceTest
