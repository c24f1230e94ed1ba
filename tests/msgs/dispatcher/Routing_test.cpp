// findCovering and dispatchMessage, and the two lookup paths (a covers() scan
// for small tables, candidate keys for larger ones) compared on generated
// tables of hierarchical addresses.

#include <kest/msgs/MessageDispatcher.h>
#include <kest/msgs/Routing.h>
#include <kest/msgs/queues/MessageQueue.h>
#include <kest/msgs/queues/MessageQueue_FixedDepth.h>

#include <support/DispatcherTestSupport.h>
#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

using namespace Kest::Msgs;
using namespace KestTest;

static_assert(ScanLookupLimit == 12);

namespace {

const Identifier Reading(0x0100, 1);
const Identifier Request(0x0100, 2);
const std::vector<Identifier> Ids{Reading, Request};
const std::vector<std::string> Parts{"a", "b", "c"};
// No generated message carries this part, so a key holding it covers none of them.
const std::string Foreign = "zz";

constexpr unsigned Seeds = 12;
constexpr int MessagesPerSeed = 150;

using Group = MessageKey::HashingGroup;

MessageKey tableKey(const Identifier& id, const Address& address, Group group) {
    return group == Group::Sender
               ? MessageKey(static_cast<unsigned long>(id), address, {}, MessageKey::HashFunction())
               : MessageKey(static_cast<unsigned long>(id), {}, address, MessageKey::HashFunction());
}

// `count` distinct keys on the side `group` names, addresses of depth 0 to 3.
std::vector<MessageKey> generateKeys(std::mt19937& random, std::size_t count, Group group) {
    std::vector<MessageKey> keys;
    std::uniform_int_distribution<std::size_t> pickId(0, Ids.size() - 1);
    while (keys.size() < count) {
        MessageKey key = tableKey(Ids[pickId(random)], randomAddress(random, Parts, 0, 3), group);
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
    }
    return keys;
}

// A message of a random identifier whose addresses are 0 to 4 parts deep.
std::shared_ptr<const Message> generateMessage(std::mt19937& random) {
    std::uniform_int_distribution<std::size_t> pickId(0, Ids.size() - 1);
    const Identifier id = Ids[pickId(random)];
    Address sender = randomAddress(random, Parts, 0, 4);
    Address destination = randomAddress(random, Parts, 0, 4);
    return makeMessage(id, sender, destination);
}

template <class Hasher>
std::unordered_map<MessageKey, int, Hasher> makeTable(const std::vector<MessageKey>& keys) {
    std::unordered_map<MessageKey, int, Hasher> table;
    int value = 0;
    for (const MessageKey& key : keys) table.emplace(key, value++);
    return table;
}

// The entries whose keys cover the message, by looking at every entry.
template <class Hasher>
std::set<const int*> coveringByScan(const Message& message,
                                    const std::unordered_map<MessageKey, int, Hasher>& table) {
    const MessageKey messageKey(message, MessageKey::HashFunction());
    std::set<const int*> found;
    for (const auto& entry : table) {
        if (entry.first.covers(messageKey)) found.insert(&entry.second);
    }
    return found;
}

// Checks findCovering against a full scan on tables of `size` generated keys.
template <class Hasher>
void checkFindCovering(std::size_t size, Group group) {
    std::size_t matched = 0;
    std::size_t multiple = 0;
    for (unsigned seed = 1; seed <= Seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", table size " + std::to_string(size));
        std::mt19937 random(seed);
        const auto table = makeTable<Hasher>(generateKeys(random, size, group));
        ASSERT_EQ(table.size(), size);
        for (int i = 0; i < MessagesPerSeed; ++i) {
            const auto message = generateMessage(random);
            const std::vector<int*> found = findCovering(message, table, false, group);
            const std::set<const int*> foundSet(found.begin(), found.end());
            const std::set<const int*> expected = coveringByScan(*message, table);
            ASSERT_EQ(foundSet, expected) << "message " << i;
            ASSERT_EQ(found.size(), foundSet.size()) << "an entry was found twice, message " << i;

            const std::vector<int*> first = findCovering(message, table, true, group);
            ASSERT_EQ(first.size(), std::min<std::size_t>(1, expected.size())) << "message " << i;
            if (!first.empty()) {
                EXPECT_EQ(expected.count(first.front()), 1u) << "message " << i;
            }

            matched += expected.empty() ? 0 : 1;
            multiple += expected.size() > 1 ? 1 : 0;
        }
    }
    // The generated cases exercise both single and multiple covering entries.
    EXPECT_GT(matched, Seeds * MessagesPerSeed / 10);
    EXPECT_GT(multiple, 10u);
}

}  // namespace

TEST(FindCovering, ScannedTableOfTwelveFindsEveryCoveringSenderKey) {
    checkFindCovering<MessageKey::HasherWithSender>(12, Group::Sender);
}

TEST(FindCovering, ProbedTableOfThirteenFindsEveryCoveringSenderKey) {
    checkFindCovering<MessageKey::HasherWithSender>(13, Group::Sender);
}

TEST(FindCovering, ScannedTableOfTwelveFindsEveryCoveringDestinationKey) {
    checkFindCovering<MessageKey::HasherWithDestination>(12, Group::Destination);
}

TEST(FindCovering, ProbedTableOfThirteenFindsEveryCoveringDestinationKey) {
    checkFindCovering<MessageKey::HasherWithDestination>(13, Group::Destination);
}

TEST(FindCovering, LargeTableFindsEveryCoveringKey) {
    checkFindCovering<MessageKey::HasherWithSender>(60, Group::Sender);
    checkFindCovering<MessageKey::HasherWithDestination>(60, Group::Destination);
}

TEST(FindCovering, EmptyTableFindsNothing) {
    const std::unordered_map<MessageKey, int, MessageKey::HasherWithSender> table;
    EXPECT_TRUE(findCovering(makeMessage(Reading, {"a"}), table, false, Group::Sender).empty());
}

TEST(FindCovering, EmptyAddressKeyCoversMessageWithoutAddresses) {
    for (std::size_t extra : {0u, 13u}) {
        SCOPED_TRACE("extra keys " + std::to_string(extra));
        std::unordered_map<MessageKey, int, MessageKey::HasherWithSender> table;
        table.emplace(tableKey(Reading, {}, Group::Sender), 1);
        for (std::size_t i = 0; i < extra; ++i) {
            table.emplace(tableKey(Reading, {Foreign, std::to_string(i)}, Group::Sender), 2);
        }
        const auto found = findCovering(makeMessage(Reading), table, false, Group::Sender);
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(*found.front(), 1);
    }
}

namespace {

// The values of the entries under every prefix of `address` (the value is the
// prefix length), in a table padded past ScanLookupLimit with keys of another
// identifier; `expected` gets the prefix lengths in the iteration order of
// the message's candidate set.
template <class Hasher>
void checkCandidateSetOrder(const Address& address, Group group) {
    SCOPED_TRACE("address of " + std::to_string(address.size()) + " parts");
    std::unordered_map<MessageKey, int, Hasher> table;
    for (std::size_t length = 0; length <= address.size(); ++length) {
        const Address prefix(address.begin(), address.begin() + static_cast<std::ptrdiff_t>(length));
        table.emplace(tableKey(Reading, prefix, group), static_cast<int>(length));
    }
    for (int i = 0; table.size() <= ScanLookupLimit; ++i) {
        table.emplace(tableKey(Request, {Foreign, std::to_string(i)}, group), -1);
    }
    const auto message =
        group == Group::Sender ? makeMessage(Reading, address) : makeMessage(Reading, {"from"}, address);
    std::vector<int> expected;
    for (const MessageKey& candidate : MessageKey::hashMessagesList(MessageKey(*message, {}), group)) {
        const Address& side = group == Group::Sender ? candidate.sender() : candidate.destination();
        expected.push_back(static_cast<int>(side.size()));
    }

    std::vector<int> found;
    for (const int* value : findCovering(message, table, false, group)) found.push_back(*value);
    EXPECT_EQ(found, expected);
    const std::vector<int*> first = findCovering(message, table, true, group);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(*first.front(), expected.front());
}

}  // namespace

TEST(FindCovering, LargeTableReturnsEntriesInTheCandidateSetsOrder) {
    const std::vector<Address> addresses{{"p0", "q5"}, {"c17", "press31"}, {"a", "b", "c"},
                                         {"plant", "line2", "press", "die"}, {"u1", "v2", "w3", "x4", "y5"}};
    for (const Address& address : addresses) {
        checkCandidateSetOrder<MessageKey::HasherWithSender>(address, Group::Sender);
        checkCandidateSetOrder<MessageKey::HasherWithDestination>(address, Group::Destination);
    }
}

TEST(FindCovering, FirstOnlyReturnsTheFirstCoveringEntryOfTheCandidateSet) {
    // Sender {"p0", "q5"}: its candidate set does not iterate from the longest
    // prefix down, so the first covering entry is not the longest one.
    const auto message = makeMessage(Reading, {"p0", "q5"});
    const auto candidates = MessageKey::hashMessagesList(MessageKey(*message, {}), Group::Sender);
    ASSERT_NE(candidates.begin()->sender().size(), 2u) << "the case no longer shows the difference";
    checkCandidateSetOrder<MessageKey::HasherWithSender>({"p0", "q5"}, Group::Sender);
}

// ---- Dispatchers with 12 and 13 keys ----------------------------------------

namespace {

constexpr std::size_t PoolSize = 6;

struct Routed {
    MessageDispatcher dispatcher;
    std::vector<std::shared_ptr<MessageQueue>> pool;

    Routed() {
        for (std::size_t i = 0; i < PoolSize; ++i) pool.push_back(std::make_shared<MessageQueue>());
    }

    // Which queues of the pool received a message since the last call; each at most once.
    std::vector<int> received() {
        std::vector<int> counts;
        for (const auto& queue : pool) counts.push_back(static_cast<int>(drainMessages(*queue).size()));
        return counts;
    }
};

// For every key, the pool indexes that take its messages, lowest rank first.
using Assignment = std::vector<std::vector<std::size_t>>;

Assignment assignQueues(std::mt19937& random, std::size_t keys) {
    std::uniform_int_distribution<std::size_t> howMany(1, 3);
    Assignment assignment;
    for (std::size_t k = 0; k < keys; ++k) {
        std::vector<std::size_t> indexes(PoolSize);
        for (std::size_t i = 0; i < PoolSize; ++i) indexes[i] = i;
        std::shuffle(indexes.begin(), indexes.end(), random);
        indexes.resize(howMany(random));
        assignment.push_back(indexes);
    }
    return assignment;
}

}  // namespace

TEST(MessageDispatcherLookup, TwelveAndThirteenSubscriptionKeysReachSameQueues) {
    std::size_t delivered = 0;
    for (unsigned seed = 1; seed <= Seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const std::vector<MessageKey> keys = generateKeys(random, 12, Group::Sender);
        const Assignment assignment = assignQueues(random, keys.size());

        Routed scanned;
        Routed probed;
        for (Routed* routed : {&scanned, &probed}) {
            for (std::size_t k = 0; k < keys.size(); ++k) {
                for (std::size_t index : assignment[k]) {
                    ASSERT_TRUE(routed->dispatcher.subscribe(routed->pool[index], keys[k].sender(),
                                                             Identifier(keys[k].id())));
                }
            }
        }
        // One more key that covers none of the messages moves the second dispatcher past the scan limit.
        ASSERT_TRUE(probed.dispatcher.subscribe(probed.pool[0], {Foreign}, Reading));
        MessageDispatcherInterface::SubscriptionsTable scannedTable;
        MessageDispatcherInterface::SubscriptionsTable probedTable;
        ASSERT_EQ(scanned.dispatcher.getSubscriptionsTable(scannedTable), 12u);
        ASSERT_EQ(probed.dispatcher.getSubscriptionsTable(probedTable), 13u);

        for (int i = 0; i < MessagesPerSeed; ++i) {
            // Without destination: only subscriptions matter.
            std::shared_ptr<const Message> message = generateMessage(random);
            message = makeMessage(message->id(), message->sender());
            const MessageKey messageKey(*message, MessageKey::HashFunction());
            std::vector<int> expected(PoolSize, 0);
            for (std::size_t k = 0; k < keys.size(); ++k) {
                if (!keys[k].covers(messageKey)) continue;
                for (std::size_t index : assignment[k]) expected[index] = 1;
            }

            ASSERT_TRUE(scanned.dispatcher.postMessage(message, nullptr));
            ASSERT_TRUE(probed.dispatcher.postMessage(message, nullptr));
            const std::vector<int> fromScanned = scanned.received();
            ASSERT_EQ(fromScanned, expected) << "message " << i;
            ASSERT_EQ(probed.received(), fromScanned) << "message " << i;
            for (int count : expected) delivered += static_cast<std::size_t>(count);
        }
    }
    EXPECT_GT(delivered, Seeds * MessagesPerSeed / 4);
}

TEST(MessageDispatcherLookup, TwelveAndThirteenServiceKeysReachSameQueues) {
    std::size_t delivered = 0;
    std::size_t refused = 0;
    for (unsigned seed = 1; seed <= Seeds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 random(seed);
        const std::vector<MessageKey> keys = generateKeys(random, 12, Group::Destination);
        const Assignment assignment = assignQueues(random, keys.size());

        Routed scanned;
        Routed probed;
        for (Routed* routed : {&scanned, &probed}) {
            for (std::size_t k = 0; k < keys.size(); ++k) {
                // Distinct ranks from 1: the first index of an assignment is its preferred queue.
                unsigned long rank = 1;
                for (std::size_t index : assignment[k]) {
                    ASSERT_TRUE(routed->dispatcher.registerService(routed->pool[index], keys[k].destination(),
                                                                   Identifier(keys[k].id()), rank++));
                }
            }
        }
        ASSERT_TRUE(probed.dispatcher.registerService(probed.pool[0], {Foreign}, Request, 1));
        MessageDispatcherInterface::ServicesTable scannedTable;
        MessageDispatcherInterface::ServicesTable probedTable;
        ASSERT_EQ(scanned.dispatcher.getServicesTable(scannedTable), 12u);
        ASSERT_EQ(probed.dispatcher.getServicesTable(probedTable), 13u);

        for (int i = 0; i < MessagesPerSeed; ++i) {
            const auto message = generateMessage(random);
            const MessageKey messageKey(*message, MessageKey::HashFunction());
            std::vector<int> expected(PoolSize, 0);
            bool covered = false;
            for (std::size_t k = 0; k < keys.size(); ++k) {
                if (!keys[k].covers(messageKey)) continue;
                covered = true;
                expected[assignment[k].front()] = 1;
            }

            const bool scannedResult = scanned.dispatcher.postMessage(message, nullptr);
            const bool probedResult = probed.dispatcher.postMessage(message, nullptr);
            ASSERT_EQ(scannedResult, covered) << "message " << i;
            ASSERT_EQ(probedResult, covered) << "message " << i;
            const std::vector<int> fromScanned = scanned.received();
            ASSERT_EQ(fromScanned, expected) << "message " << i;
            ASSERT_EQ(probed.received(), fromScanned) << "message " << i;
            delivered += covered ? 1 : 0;
            refused += covered ? 0 : 1;
        }
    }
    EXPECT_GT(delivered, Seeds * MessagesPerSeed / 10);
    EXPECT_GT(refused, 0u);
}

// ---- dispatchMessage ---------------------------------------------------------

TEST(DispatchMessage, PutsIntoQueueAndRecordsItAsServed) {
    auto queue = std::make_shared<MessageQueue>();
    ServedSet served;
    auto message = makeMessage(Reading, {"a"});

    EXPECT_TRUE(dispatchMessage(message, queue, served));

    EXPECT_EQ(served.count(queue), 1u);
    EXPECT_EQ(drainMessages(*queue), std::vector<std::shared_ptr<const Message>>{message});
}

TEST(DispatchMessage, ServedQueueCountsAsSuccessWithoutSecondPut) {
    auto queue = std::make_shared<MessageQueue>();
    ServedSet served{queue};

    CaptureStdout capture;
    EXPECT_TRUE(dispatchMessage(makeMessage(Reading, {"a"}), queue, served));

    EXPECT_EQ(queue->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(capture.text(), "");
    // Even a full queue: it is not asked again.
    auto full = std::make_shared<MessageQueue_FixedDepth>(1u);
    ASSERT_TRUE(full->putMessage(makeMessage(Reading)));
    served.insert(full);
    EXPECT_TRUE(dispatchMessage(makeMessage(Reading, {"a"}), full, served));
    EXPECT_EQ(capture.text(), "");
}

TEST(DispatchMessage, RefusalPrintsWarningAndTraceAndLeavesQueueUnserved) {
    auto full = std::make_shared<MessageQueue_FixedDepth>(1u);
    ASSERT_TRUE(full->putMessage(makeMessage(Reading)));
    ServedSet served;

    CaptureStdout capture;
    EXPECT_FALSE(dispatchMessage(makeMessage(Identifier(3, 17), {"nodeA"}), full, served));

    EXPECT_EQ(served.count(full), 0u);
    EXPECT_EQ(full->getAvailableMessagesCount(), 1u);
    EXPECT_EQ(capture.text(),
              "PLOX!!!! Warning ---- dropping msg\n"
              "PLOX message is - : sender = [nodeA], dest = <None>, cat = 3, id = 17\n");
}
