// Service lookup through both paths: services tables of at most
// ScanLookupLimit keys are scanned with covers(), larger ones probed with the
// candidate keys of the message's destination. Both must deliver alike.

#include "ServiceFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace ServiceTest;
using Kest::Msgs::ScanLookupLimit;

static_assert(ScanLookupLimit == 12, "the tests below build tables of 12 and 13 service keys");

// ---- A hand-made table --------------------------------------------------

// Services at every prefix of {"plant", "line2", "press"}, one at a sibling,
// and unrelated keys of another identifier up to `totalKeys` keys.
void expectPrefixServicesReachedWith(std::size_t totalKeys) {
    SCOPED_TRACE("services table of " + std::to_string(totalKeys) + " keys");
    auto dispatcher = std::make_shared<MessageDispatcher>();
    const std::vector<Address> covering = {{}, {"plant"}, {"plant", "line2"}, {"plant", "line2", "press"}};
    std::vector<std::shared_ptr<MessageQueue>> coveringQueues;
    for (const Address& destination : covering) {
        coveringQueues.push_back(std::make_shared<MessageQueue>());
        ASSERT_TRUE(dispatcher->registerService(coveringQueues.back(), destination, kPrint, 1));
    }
    auto sibling = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher->registerService(sibling, {"plant", "line1"}, kPrint, 1));
    auto deeper = std::make_shared<MessageQueue>();
    ASSERT_TRUE(dispatcher->registerService(deeper, {"plant", "line2", "press", "die"}, kPrint, 1));
    auto filler = std::make_shared<MessageQueue>();
    for (std::size_t i = 0; servicesTableSize(*dispatcher) < totalKeys; ++i) {
        ASSERT_TRUE(dispatcher->registerService(filler, {"plant", "line2", "press"},
                                                Identifier(9, static_cast<std::uint16_t>(i)), 1));
    }
    ASSERT_EQ(servicesTableSize(*dispatcher), totalKeys);

    auto message = KestTest::makeMessage(kPrint, {"client"}, {"plant", "line2", "press"});
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    for (std::size_t i = 0; i < covering.size(); ++i) {
        EXPECT_TRUE(holdsOnly(*coveringQueues[i], message)) << ::testing::PrintToString(covering[i]);
    }
    EXPECT_EQ(sibling->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(deeper->getAvailableMessagesCount(), 0u);
    EXPECT_EQ(filler->getAvailableMessagesCount(), 0u);

    EXPECT_FALSE(dispatcher->postMessage(KestTest::makeMessage(kStop, {}, {"plant"}), nullptr));
}

TEST(ServiceLookup, ScannedTableReachesEveryPrefixService) {
    expectPrefixServicesReachedWith(ScanLookupLimit);
}

TEST(ServiceLookup, ProbedTableReachesEveryPrefixService) {
    expectPrefixServicesReachedWith(ScanLookupLimit + 1);
}

// ---- Generated tables and requests --------------------------------------

constexpr std::uint32_t kSeed = 20240611;
constexpr Identifier kIdA(7, 1);
constexpr Identifier kIdB(7, 2);
constexpr Identifier kIdUnserved(7, 3);
constexpr Identifier kIdExtra(7, 99);

struct Registration {
    Identifier id;
    Address destination;
    std::size_t slot;
    unsigned long rank;
};

struct Subscription {
    Identifier id;
    Address sender;
    std::size_t slot;
};

struct Request {
    Identifier id;
    Address sender;
    bool hasDestination;
    Address destination;
    int senderSlot;  // -1: no sending queue
};

// What one post did in one dispatcher.
struct Outcome {
    bool result = false;
    std::vector<std::size_t> receivers;  // slots whose queue took the message
    std::string output;                  // what the post printed

    bool operator==(const Outcome& o) const {
        return result == o.result && receivers == o.receivers && output == o.output;
    }
};

std::ostream& operator<<(std::ostream& out, const Outcome& o) {
    out << "{result " << o.result << ", receivers [";
    for (std::size_t slot : o.receivers) out << slot << ';';
    return out << "], output \"" << o.output << "\"}";
}

constexpr std::size_t kPlainSlots = 6;
constexpr std::size_t kLimitedSlots = 2;  // fixed-depth: they fill up and then refuse
constexpr std::size_t kSlots = kPlainSlots + kLimitedSlots;

// A dispatcher built from the generated registrations, with its own queues.
class World {
public:
    World(const std::vector<Registration>& registrations, const std::vector<Subscription>& subscriptions,
          bool extraKey) {
        for (std::size_t i = 0; i < kPlainSlots; ++i) queues_.push_back(std::make_shared<MessageQueue>());
        for (std::size_t i = 0; i < kLimitedSlots; ++i) {
            queues_.push_back(std::make_shared<MessageQueue_FixedDepth>(3u));
        }
        for (const Subscription& s : subscriptions) {
            EXPECT_TRUE(dispatcher_->subscribe(queues_[s.slot], s.sender, s.id));
        }
        for (const Registration& r : registrations) {
            EXPECT_TRUE(dispatcher_->registerService(queues_[r.slot], r.destination, r.id, r.rank));
        }
        // A key that covers none of the requests, only to change the size.
        if (extraKey) {
            EXPECT_TRUE(dispatcher_->registerService(extra_, {"a"}, kIdExtra, 1));
        }
    }

    std::size_t serviceKeys() const { return servicesTableSize(*dispatcher_); }

    Outcome post(const std::shared_ptr<const Message>& message, int senderSlot) {
        std::vector<unsigned int> before;
        for (const auto& q : queues_) before.push_back(q->getAvailableMessagesCount());
        Outcome outcome;
        {
            KestTest::CaptureStdout capture;
            outcome.result = dispatcher_->postMessage(
                message, senderSlot < 0 ? nullptr : queues_[static_cast<std::size_t>(senderSlot)]);
            outcome.output = capture.text();
        }
        for (std::size_t slot = 0; slot < kSlots; ++slot) {
            const unsigned int after = queues_[slot]->getAvailableMessagesCount();
            EXPECT_LE(after, before[slot] + 1) << "slot " << slot << " got the message twice";
            if (after == before[slot]) continue;
            outcome.receivers.push_back(slot);
            // Plain queues are emptied at once; the fixed-depth ones keep filling.
            if (slot < kPlainSlots) {
                EXPECT_EQ(queues_[slot]->getMessage(std::chrono::milliseconds(0)), message);
            }
        }
        EXPECT_EQ(extra_->getAvailableMessagesCount(), 0u);
        return outcome;
    }

private:
    std::shared_ptr<MessageDispatcher> dispatcher_ = std::make_shared<MessageDispatcher>();
    std::vector<std::shared_ptr<MessageQueue>> queues_;
    std::shared_ptr<MessageQueue> extra_ = std::make_shared<MessageQueue>();
};

Address randomPath(std::mt19937& random, std::size_t maxDepth, bool allowStranger) {
    std::uniform_int_distribution<std::size_t> depth(0, maxDepth);
    std::uniform_int_distribution<int> part(0, allowStranger ? 9 : 8);
    Address path;
    for (std::size_t n = depth(random); n > 0; --n) {
        const int p = part(random);
        path.push_back(p == 9 ? "c" : (p % 2 == 0 ? "a" : "b"));
    }
    return path;
}

TEST(ServiceLookup, TablesOfTwelveAndThirteenKeysDeliverGeneratedRequestsAlike) {
    std::cout << "ServiceLookup seed = " << kSeed << std::endl;
    SCOPED_TRACE("seed " + std::to_string(kSeed));
    std::mt19937 random(kSeed);

    // Twelve distinct service keys over two identifiers, each with one to
    // three queues of ranks 1 to 4 (equal ranks happen).
    std::set<std::pair<unsigned long, Address>> keys;
    std::vector<Registration> registrations;
    std::uniform_int_distribution<int> coin(0, 1);
    std::uniform_int_distribution<std::size_t> queuesPerKey(1, 3);
    std::uniform_int_distribution<std::size_t> slotOf(0, kSlots - 1);
    std::uniform_int_distribution<unsigned long> rankOf(1, 4);
    while (keys.size() < ScanLookupLimit) {
        const Identifier id = coin(random) != 0 ? kIdA : kIdB;
        const Address destination = randomPath(random, 3, false);
        if (!keys.emplace(static_cast<unsigned long>(id), destination).second) continue;
        std::set<std::size_t> used;
        for (std::size_t n = queuesPerKey(random); n > 0; --n) {
            const std::size_t slot = slotOf(random);
            if (!used.insert(slot).second) continue;
            registrations.push_back({id, destination, slot, rankOf(random)});
        }
    }
    std::shuffle(registrations.begin(), registrations.end(), random);

    // A few subscribers, some of which are also services.
    const std::vector<Address> senders = {{}, {"s1"}, {"s1", "x"}, {"s2"}};
    std::uniform_int_distribution<std::size_t> senderOf(0, senders.size() - 1);
    std::vector<Subscription> subscriptions;
    for (int n = 0; n < 3; ++n) {
        subscriptions.push_back({coin(random) != 0 ? kIdA : kIdB, senders[senderOf(random)], slotOf(random)});
    }

    World twelve(registrations, subscriptions, false);
    World thirteen(registrations, subscriptions, true);
    ASSERT_EQ(twelve.serviceKeys(), ScanLookupLimit);
    ASSERT_EQ(thirteen.serviceKeys(), ScanLookupLimit + 1);

    const int requests = 600;
    std::uniform_int_distribution<int> percent(0, 99);
    int posted = 0, refused = 0, multiEntry = 0, warned = 0;
    for (int n = 0; n < requests; ++n) {
        const int idRoll = percent(random);
        Request r;
        r.id = idRoll < 45 ? kIdA : (idRoll < 90 ? kIdB : kIdUnserved);
        r.sender = senders[senderOf(random)];
        r.hasDestination = percent(random) >= 10;
        r.destination = randomPath(random, 4, true);
        r.senderSlot = percent(random) < 25 ? static_cast<int>(slotOf(random)) : -1;
        auto message = r.hasDestination ? KestTest::makeMessage(r.id, r.sender, r.destination)
                                        : KestTest::makeMessage(r.id, r.sender);

        const Outcome scanned = twelve.post(message, r.senderSlot);
        const Outcome probed = thirteen.post(message, r.senderSlot);
        ASSERT_EQ(scanned, probed) << "request " << n << " to " << ::testing::PrintToString(r.destination)
                                   << (r.hasDestination ? "" : " (unset)") << ", sender slot "
                                   << r.senderSlot;
        (scanned.result ? posted : refused) += 1;
        if (scanned.receivers.size() >= 2) ++multiEntry;
        if (!scanned.output.empty()) ++warned;
    }
    // The generated requests exercise every outcome.
    EXPECT_GT(posted, requests / 10);
    EXPECT_GT(refused, requests / 10);
    EXPECT_GT(multiEntry, 10);
    EXPECT_GT(warned, 5);
}

}  // namespace
