// Seeded random trees of every kind as the payloads of messages: each comes
// back exactly, and encode, decode, encode gives the same bytes.

#include <kest/metadata/Element.h>
#include <kest/net.h>

#include <support/TreeSupport.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using Kest::MetaData::Element;
using Kest::Msgs::Identifier;
using Kest::Net::decodeWithEnvelope;
using Kest::Net::encode;
using Kest::Net::Envelope;
using Kest::Net::GenericMessage;
using Kest::Net::Scope;
using KestTest::describeTree;
using KestTest::RandomTrees;
using KestTest::sameTree;
using KestTest::treeOf;

TEST(WireProperty, RandomTreesOfEveryKindComeBackExactly) {
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        RandomTrees random(seed);
        std::optional<std::vector<std::string>> sender;
        std::optional<std::vector<std::string>> destination;
        if (random.pick(3) != 0) sender = std::vector<std::string>(random.pick(4), random.text(5));
        if (random.pick(3) != 0) destination = std::vector<std::string>(random.pick(4), random.text(5));
        const GenericMessage sent(Identifier(random.unsignedNumber()), sender, destination,
                                  random.object(1 + random.pick(8)));
        Envelope envelope;
        envelope.origin = random.text(10);
        envelope.epoch = random.unsignedNumber();
        envelope.hops = static_cast<std::uint32_t>(random.unsignedNumber());
        envelope.scope = static_cast<Scope>(1 + random.pick(3));
        envelope.sequence = random.unsignedNumber();

        const std::string bytes = encode(sent, envelope);
        const Kest::Net::Decoded decoded = decodeWithEnvelope(bytes);
        auto received = std::dynamic_pointer_cast<const GenericMessage>(decoded.message);
        ASSERT_TRUE(received) << "seed " << seed;
        EXPECT_TRUE(sameTree(received->tree(), sent.tree()))
            << "seed " << seed << "\nsent     " << describeTree(sent.tree()) << "\nreceived "
            << describeTree(received->tree());
        EXPECT_TRUE(sameTree(treeOf(*received), treeOf(sent))) << "seed " << seed;
        EXPECT_EQ(received->sender.initialized(), sent.sender.initialized()) << "seed " << seed;
        EXPECT_EQ(received->destination.initialized(), sent.destination.initialized()) << "seed " << seed;
        EXPECT_EQ(received->identity(), sent.identity());
        EXPECT_EQ(decoded.envelope.origin, envelope.origin);
        EXPECT_EQ(decoded.envelope.epoch, envelope.epoch);
        EXPECT_EQ(decoded.envelope.hops, envelope.hops);
        EXPECT_EQ(decoded.envelope.scope, envelope.scope);
        EXPECT_EQ(decoded.envelope.sequence, envelope.sequence);
        EXPECT_EQ(encode(*received, decoded.envelope), bytes) << "seed " << seed;
    }
}

}  // namespace
