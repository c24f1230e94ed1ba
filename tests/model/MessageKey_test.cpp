#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>

namespace {

using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageKey;
using KestTest::Address;
using Group = MessageKey::HashingGroup;

static_assert(static_cast<int>(Group::Sender) == 1);
static_assert(static_cast<int>(Group::Destination) == 2);
static_assert(std::is_copy_constructible_v<MessageKey>);

constexpr unsigned long kId = (12UL << 16) | 34UL;
constexpr unsigned long kOtherId = (12UL << 16) | 35UL;

MessageKey subscription(unsigned long id, const Address& sender) {
    return MessageKey(id, sender, {}, MessageKey::HasherWithSender());
}
MessageKey service(unsigned long id, const Address& destination) {
    return MessageKey(id, {}, destination, MessageKey::HasherWithDestination());
}
MessageKey messageKey(unsigned long id, const Address& sender, const Address& destination) {
    return MessageKey(id, sender, destination, {});
}

bool holdsEqual(const std::unordered_set<MessageKey, MessageKey::Hasher>& set, const MessageKey& key) {
    return std::any_of(set.begin(), set.end(), [&](const MessageKey& k) { return k == key; });
}

TEST(MessageKey, KeepsItsParts) {
    MessageKey key(kId, {"s"}, {"d"}, {});
    EXPECT_EQ(key.id(), kId);
    EXPECT_EQ(key.sender(), Address{"s"});
    EXPECT_EQ(key.destination(), Address{"d"});
    EXPECT_FALSE(static_cast<bool>(key.hashFunction()));
}

TEST(MessageKey, EqualityIgnoresTheHashFunction) {
    MessageKey none(kId, {"a"}, {"b"}, {});
    MessageKey withSender(kId, {"a"}, {"b"}, MessageKey::HasherWithSender());
    MessageKey withDestination(kId, {"a"}, {"b"}, MessageKey::HasherWithDestination());
    MessageKey custom(kId, {"a"}, {"b"}, [](const MessageKey&) { return 1UL; });
    EXPECT_TRUE(none == withSender);
    EXPECT_TRUE(withSender == withDestination);
    EXPECT_TRUE(custom == none);
    EXPECT_FALSE(custom != none);
}

TEST(MessageKey, EqualityComparesIdentifierSenderAndDestination) {
    const MessageKey key(kId, {"a"}, {"b"}, {});
    EXPECT_FALSE(key == MessageKey(kOtherId, {"a"}, {"b"}, {}));
    EXPECT_FALSE(key == MessageKey(kId, {"x"}, {"b"}, {}));
    EXPECT_FALSE(key == MessageKey(kId, {"a"}, {"x"}, {}));
    EXPECT_FALSE(key == MessageKey(kId, {"a", "b"}, {}, {}));
    EXPECT_FALSE(key == MessageKey(kId, {"b"}, {"a"}, {}));
    EXPECT_TRUE(key != MessageKey(kId, {}, {"b"}, {}));
}

TEST(MessageKey, CopyEqualsAndHashesLikeTheOriginal) {
    const MessageKey original(kId, {"a", "b"}, {"c"}, MessageKey::HasherWithSender());
    const MessageKey copy(original);
    EXPECT_EQ(copy, original);
    EXPECT_EQ(MessageKey::HasherWithSender()(copy), MessageKey::HasherWithSender()(original));
    EXPECT_EQ(MessageKey::HasherWithDestination()(copy), MessageKey::HasherWithDestination()(original));
    EXPECT_EQ(MessageKey::Hasher()(copy), MessageKey::Hasher()(original));
    EXPECT_TRUE(static_cast<bool>(copy.hashFunction()));
}

TEST(MessageKey, KeyWithEmptyHasherAndItsCopyWithSenderHasherCompareAndHashEqually) {
    const MessageKey plain(kId, {"plant", "line2"}, {}, {});
    const MessageKey stored(plain.id(), plain.sender(), plain.destination(), MessageKey::HasherWithSender());
    EXPECT_EQ(plain, stored);
    EXPECT_EQ(MessageKey::HasherWithSender()(plain), MessageKey::HasherWithSender()(stored));
}

TEST(MessageKey, KeyWithEmptyHasherFindsTheKeyStoredWithAHasher) {
    std::unordered_map<MessageKey, int, MessageKey::HasherWithSender> subscriptions;
    subscriptions.emplace(subscription(kId, {"plant"}), 1);
    subscriptions.emplace(subscription(kId, {}), 2);
    std::unordered_map<MessageKey, int, MessageKey::HasherWithDestination> services;
    services.emplace(service(kId, {"svc"}), 3);

    auto s = subscriptions.find(MessageKey(kId, {"plant"}, {}, {}));
    ASSERT_NE(s, subscriptions.end());
    EXPECT_EQ(s->second, 1);
    auto d = services.find(MessageKey(kId, {}, {"svc"}, {}));
    ASSERT_NE(d, services.end());
    EXPECT_EQ(d->second, 3);
}

TEST(MessageKey, HashersLookOnlyAtTheirSide) {
    const MessageKey a(kId, {"s"}, {"d1"}, {});
    const MessageKey b(kId, {"s"}, {"d2"}, {});
    const MessageKey c(kId, {"s1"}, {"d"}, {});
    const MessageKey d(kId, {"s2"}, {"d"}, {});
    EXPECT_EQ(MessageKey::HasherWithSender()(a), MessageKey::HasherWithSender()(b));
    EXPECT_EQ(MessageKey::HasherWithDestination()(c), MessageKey::HasherWithDestination()(d));
}

TEST(MessageKey, SubscriptionKeyCoversSameIdentifierAndSenderWithAnyDestination) {
    const MessageKey sub = subscription(kId, {"plant", "line2"});
    EXPECT_TRUE(sub.covers(messageKey(kId, {"plant", "line2"}, {})));
    EXPECT_TRUE(sub.covers(messageKey(kId, {"plant", "line2"}, {"anything"})));
    EXPECT_TRUE(sub.covers(messageKey(kId, {"plant", "line2"}, {"x", "y", "z"})));
}

TEST(MessageKey, SubscriptionKeyDoesNotCoverAnotherIdentifier) {
    const MessageKey sub = subscription(kId, {"plant", "line2"});
    EXPECT_FALSE(sub.covers(messageKey(kOtherId, {"plant", "line2"}, {})));
    EXPECT_FALSE(subscription(kId, {}).covers(messageKey(kOtherId, {}, {})));
}

TEST(MessageKey, ServiceKeyCoversSameIdentifierAndDestinationWithAnySender) {
    const MessageKey svc = service(kId, {"svc", "a"});
    EXPECT_TRUE(svc.covers(messageKey(kId, {}, {"svc", "a"})));
    EXPECT_TRUE(svc.covers(messageKey(kId, {"who"}, {"svc", "a"})));
    EXPECT_TRUE(svc.covers(messageKey(kId, {"p", "q", "r"}, {"svc", "a"})));
    EXPECT_FALSE(svc.covers(messageKey(kOtherId, {}, {"svc", "a"})));
}

TEST(MessageKey, EmptySenderListIsAWildcard) {
    const MessageKey any = subscription(kId, {});
    EXPECT_TRUE(any.covers(messageKey(kId, {}, {})));
    EXPECT_TRUE(any.covers(messageKey(kId, {"a"}, {})));
    EXPECT_TRUE(any.covers(messageKey(kId, {"a", "b", "c"}, {"d"})));
}

TEST(MessageKey, SenderPrefixCovers) {
    const MessageKey sub = subscription(kId, {"plant"});
    EXPECT_TRUE(sub.covers(messageKey(kId, {"plant", "line2"}, {})));
    EXPECT_TRUE(sub.covers(messageKey(kId, {"plant", "line2", "press"}, {})));
    EXPECT_TRUE(service(kId, {"svc"}).covers(messageKey(kId, {}, {"svc", "a", "b"})));
}

TEST(MessageKey, SenderThatIsNotAPrefixDoesNotCover) {
    const MessageKey sub = subscription(kId, {"plant", "line2"});
    EXPECT_FALSE(sub.covers(messageKey(kId, {"plant", "line3"}, {})));
    EXPECT_FALSE(sub.covers(messageKey(kId, {"line2", "plant"}, {})));
    EXPECT_FALSE(sub.covers(messageKey(kId, {"plant2", "line2"}, {})));
    EXPECT_FALSE(service(kId, {"svc", "a"}).covers(messageKey(kId, {}, {"svc", "b"})));
}

TEST(MessageKey, LongerSenderThanTheMessagesDoesNotCover) {
    const MessageKey sub = subscription(kId, {"plant", "line2", "press"});
    EXPECT_FALSE(sub.covers(messageKey(kId, {"plant", "line2"}, {})));
    EXPECT_FALSE(sub.covers(messageKey(kId, {}, {})));
    EXPECT_FALSE(service(kId, {"svc", "a"}).covers(messageKey(kId, {}, {"svc"})));
}

TEST(MessageKey, KeyWithBothSidesNeedsBothPrefixes) {
    const MessageKey both(kId, {"s"}, {"d"}, {});
    EXPECT_TRUE(both.covers(messageKey(kId, {"s", "t"}, {"d", "e"})));
    EXPECT_FALSE(both.covers(messageKey(kId, {"s"}, {"x"})));
    EXPECT_FALSE(both.covers(messageKey(kId, {"x"}, {"d"})));
}

TEST(MessageKey, HashMessagesListForSenderGivesEveryPrefixOfTheSender) {
    const MessageKey key = messageKey(kId, {"a", "b", "c"}, {"d", "e"});
    const auto candidates = MessageKey::hashMessagesList(key, Group::Sender);
    EXPECT_EQ(candidates.size(), 4U);
    EXPECT_TRUE(holdsEqual(candidates, messageKey(kId, {}, {})));
    EXPECT_TRUE(holdsEqual(candidates, messageKey(kId, {"a"}, {})));
    EXPECT_TRUE(holdsEqual(candidates, messageKey(kId, {"a", "b"}, {})));
    EXPECT_TRUE(holdsEqual(candidates, messageKey(kId, {"a", "b", "c"}, {})));
}

TEST(MessageKey, HashMessagesListForDestinationGivesEveryPrefixOfTheDestination) {
    const MessageKey key = messageKey(kId, {"a", "b", "c"}, {"d", "e"});
    const auto candidates = MessageKey::hashMessagesList(key, Group::Destination);
    EXPECT_EQ(candidates.size(), 3U);
    EXPECT_TRUE(holdsEqual(candidates, messageKey(kId, {}, {})));
    EXPECT_TRUE(holdsEqual(candidates, messageKey(kId, {}, {"d"})));
    EXPECT_TRUE(holdsEqual(candidates, messageKey(kId, {}, {"d", "e"})));
}

TEST(MessageKey, HashMessagesListOfEmptyAddressHoldsOnlyTheWildcardKey) {
    const MessageKey key = messageKey(kId, {}, {});
    for (Group group : {Group::Sender, Group::Destination}) {
        const auto candidates = MessageKey::hashMessagesList(key, group);
        ASSERT_EQ(candidates.size(), 1U);
        EXPECT_EQ(*candidates.begin(), messageKey(kId, {}, {}));
    }
}

TEST(MessageKey, HashMessagesListKeepsTheIdentifier) {
    const auto candidates = MessageKey::hashMessagesList(messageKey(kOtherId, {"a"}, {"b"}), Group::Sender);
    for (const MessageKey& k : candidates) EXPECT_EQ(k.id(), kOtherId);
}

TEST(MessageKey, CandidatesForMessageWithSubscriptionsSenderHoldTheSubscriptionKey) {
    const Address address{"plant", "line2"};
    const MessageKey sub = subscription(kId, address);
    auto message = KestTest::makeMessage(Identifier(kId), address, {"svc"});
    const MessageKey key(*message, {});
    ASSERT_TRUE(sub.covers(key));
    const auto candidates = MessageKey::hashMessagesList(key, Group::Sender);
    EXPECT_TRUE(holdsEqual(candidates, sub));
    EXPECT_EQ(candidates.count(sub), 1U);
}

TEST(MessageKey, CandidatesForMessageWithServicesDestinationHoldTheServiceKey) {
    const Address address{"svc", "a"};
    const MessageKey svc = service(kId, address);
    auto message = KestTest::makeMessage(Identifier(kId), {"from"}, address);
    const MessageKey key(*message, {});
    const auto candidates = MessageKey::hashMessagesList(key, Group::Destination);
    EXPECT_TRUE(holdsEqual(candidates, svc));
}

}  // namespace
