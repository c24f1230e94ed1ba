// The relations that routing relies on, checked over many generated keys.
// Addresses are short paths over a two-letter alphabet, so that equal keys and
// prefixes occur often.

#include <kest/model/MessageKey.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

using Kest::Msgs::MessageKey;
using Address = std::vector<std::string>;
using Group = MessageKey::HashingGroup;

constexpr std::mt19937::result_type kSeed = 20240611;
constexpr int kKeys = 600;

class KeyGenerator {
public:
    explicit KeyGenerator(std::mt19937::result_type seed) : rng_(seed) {}

    unsigned long id() {
        // Mostly a few shared identifiers, sometimes any 32-bit one.
        static const unsigned long common[] = {0UL, 1UL, (1UL << 16) | 1UL, 0xFFFFFFFFUL};
        if (pick(8) == 0) return std::uniform_int_distribution<unsigned long>(0, 0xFFFFFFFFUL)(rng_);
        return common[pick(4)];
    }

    Address address() {
        static const char* const letters[] = {"a", "b"};
        Address a(pick(6));  // depth 0 to 5
        for (auto& part : a) part = letters[pick(2)];
        return a;
    }

    // A prefix of `a`, of random length.
    Address prefixOf(const Address& a) {
        return Address(a.begin(), a.begin() + static_cast<long>(pick(a.size() + 1)));
    }

    MessageKey::HashFunction hasher() {
        switch (pick(4)) {
            case 0: return MessageKey::HasherWithSender();
            case 1: return MessageKey::HasherWithDestination();
            case 2: return MessageKey::Hasher();
            default: return {};
        }
    }

    std::size_t pick(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_); }

private:
    std::mt19937 rng_;
};

bool isPrefix(const Address& prefix, const Address& of) {
    return prefix.size() <= of.size() && std::equal(prefix.begin(), prefix.end(), of.begin());
}

bool sameParts(const MessageKey& a, const MessageKey& b) {
    return a.id() == b.id() && a.sender() == b.sender() && a.destination() == b.destination();
}

std::vector<MessageKey> messageKeys(KeyGenerator& gen) {
    std::vector<MessageKey> keys;
    for (int i = 0; i < kKeys; ++i) keys.emplace_back(gen.id(), gen.address(), gen.address(), gen.hasher());
    return keys;
}

std::string seedText() { return "generator seed " + std::to_string(kSeed); }

void expectSameHashes(const MessageKey& a, const MessageKey& b) {
    EXPECT_EQ(MessageKey::HasherWithSender()(a), MessageKey::HasherWithSender()(b));
    EXPECT_EQ(MessageKey::HasherWithDestination()(a), MessageKey::HasherWithDestination()(b));
    EXPECT_EQ(MessageKey::Hasher()(a), MessageKey::Hasher()(b));
}

TEST(MessageKey, EqualKeysHashEquallyUnderEveryHasher) {
    SCOPED_TRACE(seedText());
    KeyGenerator gen(kSeed);
    const auto keys = messageKeys(gen);
    int equalPairs = 0;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        for (std::size_t j = i; j < keys.size(); ++j) {
            const bool equal = keys[i] == keys[j];
            ASSERT_EQ(equal, sameParts(keys[i], keys[j])) << "keys " << i << " and " << j;
            ASSERT_EQ(equal, keys[j] == keys[i]) << "keys " << i << " and " << j;
            if (!equal) continue;
            if (i != j) ++equalPairs;
            SCOPED_TRACE("keys " + std::to_string(i) + " and " + std::to_string(j));
            expectSameHashes(keys[i], keys[j]);
        }
    }
    EXPECT_GT(equalPairs, 20) << "the generator should make equal keys often";
}

TEST(MessageKey, KeyWithEmptyHasherEqualsAndHashesLikeItsCopiesWithHashers) {
    SCOPED_TRACE(seedText());
    KeyGenerator gen(kSeed);
    for (const MessageKey& k : messageKeys(gen)) {
        const MessageKey plain(k.id(), k.sender(), k.destination(), {});
        const MessageKey copies[] = {
            MessageKey(plain),
            MessageKey(k.id(), k.sender(), k.destination(), MessageKey::HasherWithSender()),
            MessageKey(k.id(), k.sender(), k.destination(), MessageKey::HasherWithDestination()),
            MessageKey(k.id(), k.sender(), k.destination(), MessageKey::Hasher()),
        };
        for (const MessageKey& copy : copies) {
            ASSERT_TRUE(plain == copy);
            expectSameHashes(plain, copy);
        }
    }
}

TEST(MessageKey, KeysWithEmptyHasherFindTheKeysStoredInBothTables) {
    SCOPED_TRACE(seedText());
    KeyGenerator gen(kSeed);
    std::unordered_map<MessageKey, std::size_t, MessageKey::HasherWithSender> subscriptions;
    std::unordered_map<MessageKey, std::size_t, MessageKey::HasherWithDestination> services;
    std::vector<MessageKey> lookups;
    for (std::size_t i = 0; i < static_cast<std::size_t>(kKeys); ++i) {
        const unsigned long id = gen.id();
        const Address sender = gen.address();
        const Address destination = gen.address();
        subscriptions.emplace(MessageKey(id, sender, {}, MessageKey::HasherWithSender()), i);
        services.emplace(MessageKey(id, {}, destination, MessageKey::HasherWithDestination()), i);
        lookups.emplace_back(id, sender, destination, MessageKey::HashFunction());
    }
    for (const MessageKey& k : lookups) {
        EXPECT_EQ(subscriptions.count(MessageKey(k.id(), k.sender(), {}, {})), 1U);
        EXPECT_EQ(services.count(MessageKey(k.id(), {}, k.destination(), {})), 1U);
    }
}

TEST(MessageKey, CoversIsExactlySameIdentifierAndPrefixOnBothSides) {
    SCOPED_TRACE(seedText());
    KeyGenerator gen(kSeed);
    const auto messages = messageKeys(gen);
    std::vector<MessageKey> tableKeys;
    for (const MessageKey& m : messages) {
        // Half made from prefixes of message keys, so that covering is common.
        if (gen.pick(2) == 0) {
            tableKeys.emplace_back(m.id(), gen.prefixOf(m.sender()), gen.prefixOf(m.destination()), gen.hasher());
        } else {
            tableKeys.emplace_back(gen.id(), gen.address(), gen.address(), gen.hasher());
        }
    }
    int covering = 0;
    int notCovering = 0;
    for (std::size_t t = 0; t < tableKeys.size(); ++t) {
        for (std::size_t m = 0; m < messages.size(); ++m) {
            const MessageKey& table = tableKeys[t];
            const MessageKey& message = messages[m];
            const bool expected = table.id() == message.id() && isPrefix(table.sender(), message.sender()) &&
                                  isPrefix(table.destination(), message.destination());
            ASSERT_EQ(table.covers(message), expected) << "table key " << t << ", message key " << m;
            ++(expected ? covering : notCovering);
        }
    }
    EXPECT_GT(covering, 1000);
    EXPECT_GT(notCovering, 1000);
}

// Relation 3 for one side: every table key of that side that covers a message
// key is among the message key's candidates, by equality and by set lookup.
void checkCandidates(Group group) {
    SCOPED_TRACE(seedText());
    KeyGenerator gen(kSeed);
    const auto messages = messageKeys(gen);
    std::vector<MessageKey> tableKeys;
    for (const MessageKey& m : messages) {
        const bool fromMessage = gen.pick(2) == 0;
        const unsigned long id = fromMessage ? m.id() : gen.id();
        if (group == Group::Sender) {
            const Address sender = fromMessage ? gen.prefixOf(m.sender()) : gen.address();
            tableKeys.emplace_back(id, sender, Address{}, MessageKey::HasherWithSender());
        } else {
            const Address destination = fromMessage ? gen.prefixOf(m.destination()) : gen.address();
            tableKeys.emplace_back(id, Address{}, destination, MessageKey::HasherWithDestination());
        }
    }
    int covering = 0;
    for (std::size_t m = 0; m < messages.size(); ++m) {
        const auto candidates = MessageKey::hashMessagesList(messages[m], group);
        for (std::size_t t = 0; t < tableKeys.size(); ++t) {
            if (!tableKeys[t].covers(messages[m])) continue;
            ++covering;
            const bool held = std::any_of(candidates.begin(), candidates.end(),
                                          [&](const MessageKey& c) { return c == tableKeys[t]; });
            ASSERT_TRUE(held) << "table key " << t << " covers message key " << m
                              << " but is not among its candidates";
            ASSERT_EQ(candidates.count(tableKeys[t]), 1U) << "table key " << t << ", message key " << m;
        }
    }
    EXPECT_GT(covering, 500);
}

TEST(MessageKey, CandidatesHoldEverySubscriptionKeyThatCoversTheMessage) { checkCandidates(Group::Sender); }

TEST(MessageKey, CandidatesHoldEveryServiceKeyThatCoversTheMessage) { checkCandidates(Group::Destination); }

}  // namespace
