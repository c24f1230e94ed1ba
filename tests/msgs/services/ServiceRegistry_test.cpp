// The service registry of MessageDispatcher: registerService,
// unregisterService, unregisterAll and getServicesTable, and the rank (5) and
// change (6) notices they post.

#include "ServiceFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace ServiceTest;

class ServiceRegistry : public DispatcherWithForwarder {};

const Address kPress = {"plant", "line2", "press"};
const Address kLine2 = {"plant", "line2"};
const Address kPlant = {"plant"};

// ---- First registration and further queues ------------------------------

TEST_F(ServiceRegistry, FirstRegistrationOfKeyPostsOnlyRankNotice) {
    auto a = makeQueue();
    EXPECT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 4)}));
}

TEST_F(ServiceRegistry, SecondQueueWithEqualRankRegistersSilently) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    notices();
    EXPECT_TRUE(dispatcher->registerService(b, kPress, kPrint, 4));
    EXPECT_TRUE(notices().empty());
    const auto table = servicesTable();
    ASSERT_EQ(table.count(serviceKey(kPrint, kPress)), 1u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).queueCount, 2u);
}

TEST_F(ServiceRegistry, SecondQueueWithGreaterRankRegistersSilently) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    notices();
    EXPECT_TRUE(dispatcher->registerService(b, kPress, kPrint, 9));
    EXPECT_TRUE(notices().empty());
    const auto table = servicesTable();
    ASSERT_EQ(table.count(serviceKey(kPrint, kPress)), 1u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).queueCount, 2u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).lowestRank, 4u);
}

TEST_F(ServiceRegistry, SecondQueueWithLowerRankPostsRankThenChange) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    notices();
    EXPECT_TRUE(dispatcher->registerService(b, kPress, kPrint, 2));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 2), changeNotice(kPrint, kPress)}));
    EXPECT_EQ(servicesTable().at(serviceKey(kPrint, kPress)).lowestRank, 2u);
}

TEST_F(ServiceRegistry, RegistrationsUnderAnotherIdentifierOrDestinationAreSeparateKeys) {
    auto a = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    EXPECT_TRUE(dispatcher->registerService(a, kPress, kStop, 6));
    EXPECT_TRUE(dispatcher->registerService(a, kLine2, kPrint, 8));
    // Each is the first registration of its key.
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 4), rankNotice(kStop, kPress, 6),
                                              rankNotice(kPrint, kLine2, 8)}));
    EXPECT_EQ(servicesTable().size(), 3u);
}

// ---- Re-registration ----------------------------------------------------

TEST_F(ServiceRegistry, ReRegisteringWithSameRankReturnsTrueAndPostsNothing) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 7));
    notices();
    EXPECT_TRUE(dispatcher->registerService(b, kPress, kPrint, 7));
    EXPECT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    EXPECT_TRUE(notices().empty());
    // Still one entry per queue.
    EXPECT_EQ(servicesTable().at(serviceKey(kPrint, kPress)).queueCount, 2u);
}

TEST_F(ServiceRegistry, ReRegisteringWithAnotherRankPostsRankThenChangeEvenWhenLowestIsUnchanged) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 2));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 5));
    notices();
    EXPECT_TRUE(dispatcher->registerService(b, kPress, kPrint, 7));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 2), changeNotice(kPrint, kPress)}));
    const auto info = servicesTable().at(serviceKey(kPrint, kPress));
    EXPECT_EQ(info.queueCount, 2u);  // moved, not added
    EXPECT_EQ(info.lowestRank, 2u);
}

TEST_F(ServiceRegistry, ReRegisteringLowestQueueWithHigherRankMovesItBehindOthers) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 3));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 5));
    notices();
    EXPECT_TRUE(dispatcher->registerService(a, kPress, kPrint, 9));
    // The rank notice carries the lowest rank after the move.
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 5), changeNotice(kPrint, kPress)}));
    EXPECT_EQ(servicesTable().at(serviceKey(kPrint, kPress)).queueCount, 2u);

    auto request = KestTest::makeMessage(kPrint, {"client"}, kPress);
    EXPECT_TRUE(dispatcher->postMessage(request, nullptr));
    EXPECT_TRUE(holdsOnly(*b, request));
    EXPECT_EQ(a->getAvailableMessagesCount(), 0u);
}

TEST_F(ServiceRegistry, ReRegisteringToNewLowestRankPostsOnePairWithThatRank) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 3));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 5));
    notices();
    EXPECT_TRUE(dispatcher->registerService(b, kPress, kPrint, 1));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 1), changeNotice(kPrint, kPress)}));
    const auto info = servicesTable().at(serviceKey(kPrint, kPress));
    EXPECT_EQ(info.queueCount, 2u);
    EXPECT_EQ(info.lowestRank, 1u);
}

TEST_F(ServiceRegistry, ReRegisteredEntryGoesAfterEntriesOfEqualRank) {
    auto a = makeQueue();
    auto b = makeQueue();
    auto c = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 3));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 3));
    ASSERT_TRUE(dispatcher->registerService(c, kPress, kPrint, 5));
    notices();
    // a moves from 3 to 5: now b (3), c (5), a (5).
    EXPECT_TRUE(dispatcher->registerService(a, kPress, kPrint, 5));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 3), changeNotice(kPrint, kPress)}));

    auto first = KestTest::makeMessage(kPrint, {"client"}, kPress);
    EXPECT_TRUE(dispatcher->postMessage(first, nullptr));
    EXPECT_TRUE(holdsOnly(*b, first));

    ASSERT_TRUE(dispatcher->unregisterService(b, kPress, kPrint));
    auto second = KestTest::makeMessage(kPrint, {"client"}, kPress);
    EXPECT_TRUE(dispatcher->postMessage(second, nullptr));
    EXPECT_TRUE(holdsOnly(*c, second));
    EXPECT_EQ(a->getAvailableMessagesCount(), 0u);
}

// ---- Rank 0 is exclusive ------------------------------------------------

TEST_F(ServiceRegistry, RankZeroRegistrationRefusesOtherQueues) {
    auto holder = makeQueue();
    auto other = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(holder, kPress, kPrint, 0));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 0)}));
    EXPECT_FALSE(dispatcher->registerService(other, kPress, kPrint, 0));
    EXPECT_FALSE(dispatcher->registerService(other, kPress, kPrint, 1));
    EXPECT_FALSE(dispatcher->registerService(other, kPress, kPrint, 99));
    EXPECT_TRUE(notices().empty());
    const auto info = servicesTable().at(serviceKey(kPrint, kPress));
    EXPECT_EQ(info.queueCount, 1u);
    EXPECT_EQ(info.lowestRank, 0u);
}

TEST_F(ServiceRegistry, RankZeroHolderIsRefusedEvenWithRankZeroAgain) {
    auto holder = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(holder, kPress, kPrint, 0));
    notices();
    EXPECT_FALSE(dispatcher->registerService(holder, kPress, kPrint, 0));
    EXPECT_TRUE(notices().empty());
    EXPECT_EQ(servicesTable().at(serviceKey(kPrint, kPress)).queueCount, 1u);
}

TEST_F(ServiceRegistry, RankZeroHolderIsRefusedWithAnotherRank) {
    auto holder = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(holder, kPress, kPrint, 0));
    notices();
    EXPECT_FALSE(dispatcher->registerService(holder, kPress, kPrint, 4));
    EXPECT_TRUE(notices().empty());
    const auto info = servicesTable().at(serviceKey(kPrint, kPress));
    EXPECT_EQ(info.queueCount, 1u);
    EXPECT_EQ(info.lowestRank, 0u);
}

TEST_F(ServiceRegistry, RankZeroUnderAnOccupiedKeyMakesItExclusive) {
    auto a = makeQueue();
    auto holder = makeQueue();
    auto late = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 3));
    notices();
    EXPECT_TRUE(dispatcher->registerService(holder, kPress, kPrint, 0));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 0), changeNotice(kPrint, kPress)}));
    EXPECT_FALSE(dispatcher->registerService(late, kPress, kPrint, 7));
    // Even the queue that was there before cannot move.
    EXPECT_FALSE(dispatcher->registerService(a, kPress, kPrint, 1));
    EXPECT_TRUE(notices().empty());
    const auto info = servicesTable().at(serviceKey(kPrint, kPress));
    EXPECT_EQ(info.queueCount, 2u);
    EXPECT_EQ(info.lowestRank, 0u);
}

TEST_F(ServiceRegistry, RefusedRegistrationPostsNothingAndPrintsNothing) {
    auto holder = makeQueue();
    auto other = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(holder, kPress, kPrint, 0));
    notices();
    KestTest::CaptureStdout capture;
    EXPECT_FALSE(dispatcher->registerService(other, kPress, kPrint, 2));
    EXPECT_FALSE(dispatcher->registerService(holder, kPress, kPrint, 0));
    EXPECT_EQ(capture.text(), "");
    EXPECT_TRUE(notices().empty());
}

TEST_F(ServiceRegistry, RankZeroExclusivityEndsWhenHolderUnregisters) {
    auto holder = makeQueue();
    auto other = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(holder, kPress, kPrint, 0));
    ASSERT_FALSE(dispatcher->registerService(other, kPress, kPrint, 2));
    notices();
    ASSERT_TRUE(dispatcher->unregisterService(holder, kPress, kPrint));
    EXPECT_EQ(notices(), (std::vector<Notice>{changeNotice(kPrint, kPress)}));
    EXPECT_TRUE(dispatcher->registerService(other, kPress, kPrint, 2));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 2)}));
    EXPECT_TRUE(dispatcher->registerService(holder, kPress, kPrint, 3));
    EXPECT_TRUE(notices().empty());
}

TEST_F(ServiceRegistry, RankZeroOnlyLocksItsOwnKey) {
    auto holder = makeQueue();
    auto other = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(holder, kLine2, kPrint, 0));
    notices();
    // A longer destination and another identifier are other keys.
    EXPECT_TRUE(dispatcher->registerService(other, kPress, kPrint, 2));
    EXPECT_TRUE(dispatcher->registerService(other, kLine2, kStop, 2));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 2), rankNotice(kStop, kLine2, 2)}));
}

// ---- unregisterService --------------------------------------------------

TEST_F(ServiceRegistry, UnregisteringOnlyQueuePostsOnlyChangeAndErasesKey) {
    auto a = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    notices();
    EXPECT_TRUE(dispatcher->unregisterService(a, kPress, kPrint));
    EXPECT_EQ(notices(), (std::vector<Notice>{changeNotice(kPrint, kPress)}));
    EXPECT_TRUE(servicesTable().empty());
}

TEST_F(ServiceRegistry, UnregisteringLowestOfSeveralPostsNewLowestRankThenChange) {
    auto a = makeQueue();
    auto b = makeQueue();
    auto c = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 2));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 6));
    ASSERT_TRUE(dispatcher->registerService(c, kPress, kPrint, 8));
    notices();
    EXPECT_TRUE(dispatcher->unregisterService(a, kPress, kPrint));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 6), changeNotice(kPrint, kPress)}));
    const auto info = servicesTable().at(serviceKey(kPrint, kPress));
    EXPECT_EQ(info.queueCount, 2u);
    EXPECT_EQ(info.lowestRank, 6u);
}

TEST_F(ServiceRegistry, UnregisteringNonLowestEntryStillPostsRankThenChange) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 2));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 6));
    notices();
    EXPECT_TRUE(dispatcher->unregisterService(b, kPress, kPrint));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 2), changeNotice(kPrint, kPress)}));
    EXPECT_EQ(servicesTable().at(serviceKey(kPrint, kPress)).queueCount, 1u);
}

TEST_F(ServiceRegistry, UnregisteringUnregisteredQueueReturnsTrueAndPostsNothing) {
    auto a = makeQueue();
    auto stranger = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    notices();
    EXPECT_TRUE(dispatcher->unregisterService(stranger, kPress, kPrint));
    EXPECT_TRUE(dispatcher->unregisterService(nullptr, kPress, kPrint));
    EXPECT_TRUE(notices().empty());
    EXPECT_EQ(servicesTable().at(serviceKey(kPrint, kPress)).queueCount, 1u);
}

TEST_F(ServiceRegistry, UnregisteringUnderUnknownKeyReturnsTrueAndPostsNothing) {
    auto a = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    notices();
    // Same queue, but keys that were never registered: a prefix of the
    // destination, a longer one, another identifier.
    EXPECT_TRUE(dispatcher->unregisterService(a, kLine2, kPrint));
    EXPECT_TRUE(dispatcher->unregisterService(a, {"plant", "line2", "press", "die"}, kPrint));
    EXPECT_TRUE(dispatcher->unregisterService(a, kPress, kStop));
    EXPECT_TRUE(notices().empty());
    EXPECT_EQ(servicesTable().at(serviceKey(kPrint, kPress)).queueCount, 1u);
}

// ---- unregisterAll ------------------------------------------------------

// Checks that `actual` is made of the groups of `expected`, each group kept
// together and in its order, the groups in any order (the table's order).
void expectGroupsInAnyOrder(const std::vector<Notice>& actual, std::vector<std::vector<Notice>> expected) {
    std::size_t total = 0;
    for (const auto& group : expected) total += group.size();
    ASSERT_EQ(actual.size(), total) << ::testing::PrintToString(actual);
    std::size_t at = 0;
    while (at < actual.size()) {
        bool matched = false;
        for (auto group = expected.begin(); group != expected.end(); ++group) {
            if (at + group->size() > actual.size()) continue;
            if (!std::equal(group->begin(), group->end(), actual.begin() + static_cast<long>(at))) continue;
            at += group->size();
            expected.erase(group);
            matched = true;
            break;
        }
        ASSERT_TRUE(matched) << "unexpected notices from position " << at << ": "
                             << ::testing::PrintToString(actual);
    }
    EXPECT_TRUE(expected.empty());
}

TEST_F(ServiceRegistry, UnregisterAllOverThreeKeysPostsPairsOrSingleChangeNotices) {
    auto q = makeQueue();
    auto low = makeQueue();
    auto high = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(q, kPress, kPrint, 4));  // alone
    ASSERT_TRUE(dispatcher->registerService(low, kLine2, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(q, kLine2, kPrint, 5));  // behind `low`
    ASSERT_TRUE(dispatcher->registerService(q, kPlant, kStop, 2));
    ASSERT_TRUE(dispatcher->registerService(high, kPlant, kStop, 7));  // behind `q`
    notices();

    EXPECT_TRUE(dispatcher->unregisterAll(q));
    expectGroupsInAnyOrder(notices(), {{changeNotice(kPrint, kPress)},
                                       {rankNotice(kPrint, kLine2, 1), changeNotice(kPrint, kLine2)},
                                       {rankNotice(kStop, kPlant, 7), changeNotice(kStop, kPlant)}});

    const auto table = servicesTable();
    EXPECT_EQ(table.size(), 2u);
    EXPECT_EQ(table.count(serviceKey(kPrint, kPress)), 0u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kLine2)).queueCount, 1u);
    EXPECT_EQ(table.at(serviceKey(kStop, kPlant)).queueCount, 1u);
    EXPECT_EQ(table.at(serviceKey(kStop, kPlant)).lowestRank, 7u);

    // The emptied key is gone: registering under it again is a first registration.
    EXPECT_TRUE(dispatcher->registerService(high, kPress, kPrint, 9));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 9)}));
}

TEST_F(ServiceRegistry, UnregisterAllOfUnregisteredQueueReturnsTrueAndPostsNothing) {
    auto a = makeQueue();
    auto stranger = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    notices();
    EXPECT_TRUE(dispatcher->unregisterAll(stranger));
    EXPECT_TRUE(notices().empty());
    EXPECT_EQ(servicesTable().size(), 1u);
}

TEST_F(ServiceRegistry, UnregisterAllLeavesSubscriptionsIntact) {
    ASSERT_TRUE(dispatcher->subscribe(forwarder, {}, kAddedNoticeId));
    ASSERT_TRUE(dispatcher->subscribe(forwarder, {}, kRemovedNoticeId));
    auto q = makeQueue();
    ASSERT_TRUE(dispatcher->subscribe(q, {"sensor"}, kStop));
    ASSERT_TRUE(dispatcher->registerService(q, kPress, kPrint, 4));
    ASSERT_TRUE(dispatcher->registerService(q, kLine2, kStop, 4));
    notices();

    EXPECT_TRUE(dispatcher->unregisterAll(q));
    // Two change notices, and no SubscriptionRemovedNotification among them.
    expectGroupsInAnyOrder(notices(), {{changeNotice(kPrint, kPress)}, {changeNotice(kStop, kLine2)}});
    EXPECT_TRUE(servicesTable().empty());

    MessageDispatcherInterface::SubscriptionsTable subscriptions;
    dispatcher->getSubscriptionsTable(subscriptions);
    const MessageKey subscription(static_cast<unsigned long>(kStop), {"sensor"}, {},
                                  MessageKey::HashFunction());
    ASSERT_EQ(subscriptions.count(subscription), 1u);
    EXPECT_EQ(subscriptions.at(subscription), 1u);

    auto reading = KestTest::makeMessage(kStop, {"sensor", "t1"});
    EXPECT_TRUE(dispatcher->postMessage(reading, nullptr));
    EXPECT_TRUE(holdsOnly(*q, reading));
}

// ---- Empty queue pointers -----------------------------------------------

TEST_F(ServiceRegistry, EmptyQueuePointerIsRegisteredCountedAndUnregistered) {
    const std::shared_ptr<MessageQueue> none;
    auto a = makeQueue();
    EXPECT_TRUE(dispatcher->registerService(none, kPress, kPrint, 3));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 3)}));
    EXPECT_TRUE(dispatcher->registerService(a, kPress, kPrint, 5));
    EXPECT_TRUE(dispatcher->registerService(nullptr, kPress, kPrint, 3));  // same pointer, same rank
    EXPECT_TRUE(notices().empty());
    EXPECT_EQ(servicesTable().at(serviceKey(kPrint, kPress)).queueCount, 2u);

    EXPECT_TRUE(dispatcher->unregisterService(none, kPress, kPrint));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 5), changeNotice(kPrint, kPress)}));
    const auto info = servicesTable().at(serviceKey(kPrint, kPress));
    EXPECT_EQ(info.queueCount, 1u);
    EXPECT_EQ(info.lowestRank, 5u);
}

TEST_F(ServiceRegistry, UnregisterAllRemovesEmptyQueuePointerEntries) {
    ASSERT_TRUE(dispatcher->registerService(nullptr, kPress, kPrint, 3));
    ASSERT_TRUE(dispatcher->registerService(nullptr, kLine2, kStop, 3));
    notices();
    EXPECT_TRUE(dispatcher->unregisterAll(nullptr));
    expectGroupsInAnyOrder(notices(), {{changeNotice(kPrint, kPress)}, {changeNotice(kStop, kLine2)}});
    EXPECT_TRUE(servicesTable().empty());
}

// ---- getServicesTable ---------------------------------------------------

TEST_F(ServiceRegistry, ServicesTableReportsQueueCountAndLowestRankPerKey) {
    auto a = makeQueue();
    auto b = makeQueue();
    auto c = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 6));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 2));
    ASSERT_TRUE(dispatcher->registerService(c, kPress, kPrint, 9));
    ASSERT_TRUE(dispatcher->registerService(c, kPlant, kStop, 11));

    MessageDispatcherInterface::ServicesTable table;
    EXPECT_EQ(dispatcher->getServicesTable(table), 2u);
    ASSERT_EQ(table.size(), 2u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).queueCount, 3u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).lowestRank, 2u);
    EXPECT_EQ(table.at(serviceKey(kStop, kPlant)).queueCount, 1u);
    EXPECT_EQ(table.at(serviceKey(kStop, kPlant)).lowestRank, 11u);
}

TEST_F(ServiceRegistry, ServicesTableKeepsOldValueOfKeyAlreadyInMapAndCountsOldEntries) {
    auto a = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 6));
    ASSERT_TRUE(dispatcher->registerService(a, kPlant, kStop, 1));

    MessageDispatcherInterface::ServicesTable table;
    table.emplace(serviceKey(kPrint, kPress), MessageDispatcherInterface::ServiceInfo{99, 77});
    table.emplace(serviceKey(kPrint, {"elsewhere"}), MessageDispatcherInterface::ServiceInfo{5, 5});

    EXPECT_EQ(dispatcher->getServicesTable(table), 3u);
    ASSERT_EQ(table.size(), 3u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).queueCount, 99u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).lowestRank, 77u);
    EXPECT_EQ(table.at(serviceKey(kPrint, {"elsewhere"})).queueCount, 5u);
    EXPECT_EQ(table.at(serviceKey(kStop, kPlant)).queueCount, 1u);
    EXPECT_EQ(table.at(serviceKey(kStop, kPlant)).lowestRank, 1u);
}

TEST_F(ServiceRegistry, ServicesTableNoLongerListsEmptiedKeys) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 6));
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 7));
    ASSERT_TRUE(dispatcher->registerService(b, kPlant, kStop, 1));
    ASSERT_TRUE(dispatcher->registerService(b, kLine2, kStop, 1));
    ASSERT_EQ(servicesTable().size(), 3u);

    ASSERT_TRUE(dispatcher->unregisterService(a, kPress, kPrint));
    EXPECT_EQ(servicesTable().size(), 3u);
    ASSERT_TRUE(dispatcher->unregisterService(b, kPress, kPrint));
    EXPECT_EQ(servicesTable().count(serviceKey(kPrint, kPress)), 0u);
    EXPECT_EQ(servicesTable().size(), 2u);
    ASSERT_TRUE(dispatcher->unregisterAll(b));
    EXPECT_TRUE(servicesTable().empty());

    MessageDispatcherInterface::ServicesTable table;
    EXPECT_EQ(dispatcher->getServicesTable(table), 0u);
}

TEST_F(ServiceRegistry, EmptiedKeyStartsAfreshOnNextRegistration) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 2));
    ASSERT_TRUE(dispatcher->unregisterService(a, kPress, kPrint));
    notices();
    // A new key again: one rank notice, even with a greater rank than before.
    EXPECT_TRUE(dispatcher->registerService(b, kPress, kPrint, 8));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 8)}));
}

// ---- Who receives the notices -------------------------------------------

TEST_F(ServiceRegistry, ChangedQueueDoesNotReceiveNoticesAboutItselfButReceivesOthers) {
    // `forwarder` listens to 5 and 6 and is also a service.
    auto other = makeQueue();
    EXPECT_TRUE(dispatcher->registerService(forwarder, kPress, kPrint, 4));
    EXPECT_TRUE(notices().empty());

    EXPECT_TRUE(dispatcher->registerService(other, kPress, kPrint, 2));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 2), changeNotice(kPrint, kPress)}));

    EXPECT_TRUE(dispatcher->registerService(forwarder, kPress, kPrint, 1));
    EXPECT_TRUE(dispatcher->unregisterService(forwarder, kPress, kPrint));
    EXPECT_TRUE(notices().empty());

    EXPECT_TRUE(dispatcher->registerService(forwarder, kPlant, kStop, 1));
    EXPECT_TRUE(dispatcher->unregisterAll(forwarder));
    EXPECT_TRUE(notices().empty());

    EXPECT_TRUE(dispatcher->unregisterService(other, kPress, kPrint));
    EXPECT_EQ(notices(), (std::vector<Notice>{changeNotice(kPrint, kPress)}));
}

TEST_F(ServiceRegistry, EveryListenerButTheChangedQueueReceivesTheNotices) {
    auto second = makeQueue();
    ASSERT_TRUE(dispatcher->subscribe(second, {}, kRankNoticeId));
    ASSERT_TRUE(dispatcher->subscribe(second, {}, kChangeNoticeId));

    ASSERT_TRUE(dispatcher->registerService(second, kPress, kPrint, 3));
    EXPECT_EQ(notices(), (std::vector<Notice>{rankNotice(kPrint, kPress, 3)}));
    EXPECT_TRUE(KestTest::drainNotices(*second).empty());

    auto third = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(third, kPress, kPrint, 1));
    const std::vector<Notice> expected = {rankNotice(kPrint, kPress, 1), changeNotice(kPrint, kPress)};
    EXPECT_EQ(notices(), expected);
    EXPECT_EQ(KestTest::drainNotices(*second), expected);
}

TEST_F(ServiceRegistry, ChangeNoticeCarriesCountOneAndAllOnesRank) {
    auto a = makeQueue();
    auto b = makeQueue();
    ASSERT_TRUE(dispatcher->registerService(a, kPress, kPrint, 4));
    notices();
    ASSERT_TRUE(dispatcher->registerService(b, kPress, kPrint, 1));

    auto rank = forwarder->getMessage(std::chrono::milliseconds(0));
    auto change = forwarder->getMessage(std::chrono::milliseconds(0));
    ASSERT_TRUE(rank);
    ASSERT_TRUE(change);
    ASSERT_EQ(static_cast<unsigned long>(rank->id()), static_cast<unsigned long>(kRankNoticeId));
    ASSERT_EQ(static_cast<unsigned long>(change->id()), static_cast<unsigned long>(kChangeNoticeId));

    const auto& changeData = dynamic_cast<const Fwd::ServiceChangeNotification&>(*change).payload();
    EXPECT_EQ(changeData.count(), 1u);
    EXPECT_EQ(changeData.rank(), 18446744073709551615UL);
    EXPECT_EQ(static_cast<unsigned long>(changeData.key().id()), static_cast<unsigned long>(kPrint));
    EXPECT_EQ(changeData.key().sender(), Address{});
    EXPECT_EQ(changeData.key().destination(), kPress);

    const auto& rankData = dynamic_cast<const Fwd::ServiceRankNotification&>(*rank).payload();
    EXPECT_EQ(rankData.count(), 1u);
    EXPECT_EQ(rankData.rank(), 1u);
    EXPECT_EQ(rankData.key().destination(), kPress);
}

}  // namespace

namespace {

TEST_F(ServiceRegistry, StoredKeysCarryAHasherWithDestinationObject) {
    ASSERT_TRUE(dispatcher->registerService(makeQueue(), kPress, kPrint, 1));
    ASSERT_TRUE(dispatcher->registerService(makeQueue(), {}, kPrint, 3));
    MessageDispatcherInterface::ServicesTable table;
    ASSERT_EQ(dispatcher->getServicesTable(table), 2u);
    for (const auto& entry : table) {
        EXPECT_NE(entry.first.hashFunction().target<MessageKey::HasherWithDestination>(), nullptr)
            << "stored function of type " << entry.first.hashFunction().target_type().name();
        EXPECT_EQ(entry.first.hashFunction()(entry.first), MessageKey::HasherWithDestination()(entry.first));
    }
}

}  // namespace

namespace {

TEST_F(ServiceRegistry, CallbackThrowingOnTheNotificationLeavesTheNewRegistrationInPlace) {
    auto watcher = std::make_shared<Kest::Msgs::MessageCallback>(
        [](const std::shared_ptr<const Message>&) { throw std::runtime_error("the watcher fails"); });
    ASSERT_TRUE(dispatcher->subscribe(watcher, {}, kRankNoticeId));
    auto queue = makeQueue();

    EXPECT_THROW(dispatcher->registerService(queue, kPress, kPrint, 3), std::runtime_error);

    // The change was made before it was announced, and stays.
    const auto table = servicesTable();
    ASSERT_EQ(table.count(serviceKey(kPrint, kPress)), 1u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).queueCount, 1u);
    EXPECT_EQ(table.at(serviceKey(kPrint, kPress)).lowestRank, 3u);
    const auto message = KestTest::makeMessage(kPrint, {"client"}, kPress);
    EXPECT_TRUE(dispatcher->postMessage(message, nullptr));
    EXPECT_TRUE(holdsOnly(*queue, message));
}

}  // namespace
