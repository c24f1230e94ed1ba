// The order in which a post reaches the entries of a large table (more than
// ScanLookupLimit keys): the iteration order of the message's candidate set,
// MessageKey::hashMessagesList, on the subscriber side and on the service
// side alike. Callback queues under every prefix of an address record the
// order in which they are called.

#include <kest/model/MessageKey.h>
#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/Routing.h>
#include <kest/msgs/queues/MessageCallback.h>
#include <kest/msgs/queues/MessageQueue.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

namespace {

using Group = MessageKey::HashingGroup;

const Identifier Reading(0x0100, 1);

// Addresses of 2 to 5 parts. The first is a case where the candidate set
// does not iterate from the longest prefix down.
std::vector<Address> testAddresses() {
    std::vector<Address> addresses{{"p0", "q5"}, {"c17", "press31"}};
    for (std::size_t parts = 2; parts <= 5; ++parts) {
        for (int variant = 0; variant < 12; ++variant) {
            Address address;
            for (std::size_t i = 0; i < parts; ++i) {
                address.push_back(std::string(1, static_cast<char>('a' + i)) + std::to_string(variant * 7 + i));
            }
            addresses.push_back(address);
        }
    }
    return addresses;
}

Address prefixOf(const Address& address, std::size_t length) {
    return Address(address.begin(), address.begin() + static_cast<std::ptrdiff_t>(length));
}

// The prefix lengths of the message's address on the side `group` names, in
// the iteration order of its candidate set.
std::vector<std::size_t> candidateOrder(const Message& message, Group group) {
    std::vector<std::size_t> order;
    for (const MessageKey& candidate : MessageKey::hashMessagesList(MessageKey(message, {}), group)) {
        order.push_back(group == Group::Sender ? candidate.sender().size() : candidate.destination().size());
    }
    return order;
}

bool longestFirst(const std::vector<std::size_t>& order) {
    for (std::size_t i = 1; i < order.size(); ++i) {
        if (order[i] > order[i - 1]) return false;
    }
    return true;
}

// A callback queue that appends `label` to `log` on every delivery.
std::shared_ptr<MessageCallback> recorder(std::vector<std::size_t>& log, std::size_t label) {
    return std::make_shared<MessageCallback>([&log, label](const std::shared_ptr<const Message>&) {
        log.push_back(label);
    });
}

// Keys of another identifier that cover nothing posted here, so that the
// table is probed with candidate keys rather than scanned.
void fillSubscriptions(MessageDispatcher& dispatcher) {
    auto filler = std::make_shared<MessageQueue>();
    for (std::uint16_t i = 0; i <= ScanLookupLimit; ++i) {
        ASSERT_TRUE(dispatcher.subscribe(filler, {"filler"}, Identifier(0x0200, i)));
    }
}

void fillServices(MessageDispatcher& dispatcher) {
    auto filler = std::make_shared<MessageQueue>();
    for (std::uint16_t i = 0; i <= ScanLookupLimit; ++i) {
        ASSERT_TRUE(dispatcher.registerService(filler, {"filler"}, Identifier(0x0200, i), 1));
    }
}

std::size_t subscriptionKeys(const MessageDispatcher& dispatcher) {
    MessageDispatcher::SubscriptionsTable table;
    return dispatcher.getSubscriptionsTable(table);
}

std::size_t serviceKeys(const MessageDispatcher& dispatcher) {
    MessageDispatcher::ServicesTable table;
    return dispatcher.getServicesTable(table);
}

}  // namespace

TEST(DeliveryOrder, SubscribersOfALargeTableAreCalledInTheCandidateSetsOrder) {
    std::size_t notLongestFirst = 0;
    for (const Address& address : testAddresses()) {
        SCOPED_TRACE("sender of " + std::to_string(address.size()) + " parts, first " + address.front());
        MessageDispatcher dispatcher;
        fillSubscriptions(dispatcher);
        std::vector<std::size_t> log;
        for (std::size_t length = 0; length <= address.size(); ++length) {
            ASSERT_TRUE(dispatcher.subscribe(recorder(log, length), prefixOf(address, length), Reading));
        }
        ASSERT_GT(subscriptionKeys(dispatcher), ScanLookupLimit);

        const auto message = makeMessage(Reading, address);
        const std::vector<std::size_t> expected = candidateOrder(*message, Group::Sender);
        ASSERT_EQ(expected.size(), address.size() + 1);
        EXPECT_TRUE(dispatcher.postMessage(message, nullptr));
        EXPECT_EQ(log, expected);
        notLongestFirst += longestFirst(expected) ? 0 : 1;
    }
    // Otherwise the test could not tell the candidate set's order from longest first.
    EXPECT_GT(notLongestFirst, 0u);
}

TEST(DeliveryOrder, ServicesOfALargeTableAreServedInTheCandidateSetsOrder) {
    std::size_t notLongestFirst = 0;
    for (const Address& address : testAddresses()) {
        SCOPED_TRACE("destination of " + std::to_string(address.size()) + " parts, first " + address.front());
        MessageDispatcher dispatcher;
        fillServices(dispatcher);
        std::vector<std::size_t> log;
        for (std::size_t length = 0; length <= address.size(); ++length) {
            ASSERT_TRUE(dispatcher.registerService(recorder(log, length), prefixOf(address, length), Reading, 1));
        }
        ASSERT_GT(serviceKeys(dispatcher), ScanLookupLimit);

        const auto message = makeMessage(Reading, {"client"}, address);
        const std::vector<std::size_t> expected = candidateOrder(*message, Group::Destination);
        ASSERT_EQ(expected.size(), address.size() + 1);
        EXPECT_TRUE(dispatcher.postMessage(message, nullptr));
        EXPECT_EQ(log, expected);
        notLongestFirst += longestFirst(expected) ? 0 : 1;
    }
    EXPECT_GT(notLongestFirst, 0u);
}

TEST(DeliveryOrder, OnlySomePrefixesSubscribedAreStillCalledInTheCandidateSetsOrder) {
    // Every pair and triple of prefix lengths of a 4-part address: the order
    // of the covering entries is the order of their keys in the candidate set.
    const Address address{"p0", "q5", "r2", "s9"};
    const auto message = makeMessage(Reading, address);
    const std::vector<std::size_t> all = candidateOrder(*message, Group::Sender);
    for (unsigned mask = 0; mask < (1u << (address.size() + 1)); ++mask) {
        SCOPED_TRACE("prefix lengths mask " + std::to_string(mask));
        MessageDispatcher dispatcher;
        fillSubscriptions(dispatcher);
        std::vector<std::size_t> log;
        std::vector<std::size_t> expected;
        for (std::size_t length : all) {
            if ((mask & (1u << length)) == 0) continue;
            ASSERT_TRUE(dispatcher.subscribe(recorder(log, length), prefixOf(address, length), Reading));
            expected.push_back(length);
        }
        EXPECT_TRUE(dispatcher.postMessage(makeMessage(Reading, address), nullptr));
        EXPECT_EQ(log, expected);
    }
}
