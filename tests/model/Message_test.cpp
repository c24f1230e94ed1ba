#include <kest/metadata/Element.h>
#include <kest/model/Forwarder.h>
#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::HasElement;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::MirroredObject;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageKey;
using Kest::Msgs::Communications::CommunicationsMessage;
using KestTest::Address;
namespace Forwarder = Kest::Msgs::Communications::Forwarder;

static_assert(!std::is_copy_constructible_v<Message>);
static_assert(!std::is_copy_assignable_v<Message>);
static_assert(std::has_virtual_destructor_v<Message>);
static_assert(std::is_base_of_v<MirroredObject, Message>);
static_assert(std::is_base_of_v<Message, CommunicationsMessage>);
static_assert(std::is_base_of_v<CommunicationsMessage, Forwarder::Base>);
static_assert(std::is_base_of_v<Forwarder::Base, Forwarder::ServiceRankNotification>);

TEST(Message, ConstructorWithIdentifierOnlyLeavesBothAddressesUnset) {
    Message m(Identifier(1, 2));
    EXPECT_EQ(static_cast<unsigned long>(m.id()), static_cast<unsigned long>(Identifier(1, 2)));
    EXPECT_FALSE(m.sender.initialized());
    EXPECT_FALSE(m.destination.initialized());
}

TEST(Message, GivenSenderIsSetEvenWhenEmpty) {
    Message m(Identifier(1), Address{});
    EXPECT_TRUE(m.sender.initialized());
    EXPECT_TRUE(m.sender().empty());
    EXPECT_FALSE(m.destination.initialized());

    Message n(Identifier(1), Address{"plant", "line2"});
    EXPECT_TRUE(n.sender.initialized());
    EXPECT_EQ(n.sender(), (Address{"plant", "line2"}));
    EXPECT_FALSE(n.destination.initialized());
}

TEST(Message, GivenSenderAndDestinationAreSetEvenWhenEmpty) {
    Message m(Identifier(1), Address{}, Address{});
    EXPECT_TRUE(m.sender.initialized());
    EXPECT_TRUE(m.destination.initialized());
    EXPECT_TRUE(m.sender().empty());
    EXPECT_TRUE(m.destination().empty());

    Message n(Identifier(1), Address{"s"}, Address{"d1", "d2"});
    EXPECT_EQ(n.sender(), Address{"s"});
    EXPECT_EQ(n.destination(), (Address{"d1", "d2"}));
}

TEST(Message, IdentityIsSetAndNotEmpty) {
    Message m(Identifier(1));
    ASSERT_TRUE(m.identity.initialized());
    EXPECT_FALSE(m.identity().empty());
}

TEST(Message, EveryConstructorGivesAFreshIdentity) {
    std::set<std::string> seen;
    auto add = [&](const Message& m) {
        ASSERT_TRUE(m.identity.initialized());
        EXPECT_TRUE(seen.insert(m.identity()).second) << "repeated identity " << m.identity();
    };
    for (int i = 0; i < 3; ++i) {
        add(Message(Identifier(1)));
        add(Message(Identifier(1), Address{"s"}));
        add(Message(Identifier(1), Address{"s"}, Address{"d"}));
        add(CommunicationsMessage(Identifier(1), Address{}, Address{}));
        add(Forwarder::Base(5, Address{}, Address{}));
        add(Forwarder::ServiceRankNotification());
        add(Forwarder::ServiceChangeNotification(Forwarder::ServiceData()));
        add(Forwarder::SubscriptionAddedNotification(Forwarder::ServiceData(), Address{"s"}, Address{}));
    }
    EXPECT_EQ(seen.size(), 24U);
}

TEST(Message, ForwarderBasePassesSetEmptySenderAndDestination) {
    Forwarder::Base m(9, Address{}, Address{});
    EXPECT_EQ(m.id().category(), Forwarder::Category);
    EXPECT_EQ(m.id().type(), 9);
    EXPECT_TRUE(m.sender.initialized());
    EXPECT_TRUE(m.destination.initialized());
    EXPECT_TRUE(m.sender().empty());
    EXPECT_TRUE(m.destination().empty());
}

TEST(Message, ForwarderBasePassesGivenAddresses) {
    Forwarder::Base m(6, Address{"from"}, Address{"to", "there"});
    EXPECT_EQ(m.sender(), Address{"from"});
    EXPECT_EQ(m.destination(), (Address{"to", "there"}));
}

TEST(Message, NotificationCarriesSetEmptyAddressesAndItsType) {
    Forwarder::SubscriptionRemovedNotification n(Forwarder::ServiceData(MessageKey(3, {"a"}, {}, {}), 1, 0));
    EXPECT_EQ(n.id().category(), Forwarder::Category);
    EXPECT_EQ(n.id().type(), 10);
    EXPECT_TRUE(n.sender.initialized());
    EXPECT_TRUE(n.destination.initialized());
    EXPECT_TRUE(n.sender().empty());
    EXPECT_TRUE(n.destination().empty());
    EXPECT_EQ(Forwarder::ServiceRankNotification().id().type(), 5);
    EXPECT_EQ(Forwarder::ServiceChangeNotification().id().type(), 6);
    EXPECT_EQ(Forwarder::SubscriptionAddedNotification().id().type(), 9);
}

TEST(Message, FieldsAreNamedIdSenderDestinationIdentityInTree) {
    Message m(Identifier(2, 3), Address{"s"}, Address{"d"});
    Element tree;
    m.copyToMetaData(tree);
    EXPECT_TRUE(HasElement(tree, "Id"));
    EXPECT_TRUE(HasElement(tree, "Sender"));
    EXPECT_TRUE(HasElement(tree, "Destination"));
    EXPECT_TRUE(HasElement(tree, "Identity"));
    std::string identity;
    GetAs<std::string>(static_cast<const Element&>(tree)["Identity"], identity);
    EXPECT_EQ(identity, m.identity());
}

TEST(Message, CopiedThroughTreeKeepsIdentifierAddressesAndIdentity) {
    Message original(Identifier(0xABCD, 0x0102), Address{"plant", "line2"}, Address{"press"});
    Element tree;
    original.copyToMetaData(tree);

    Message copy(Identifier(0));
    ASSERT_NE(copy.identity(), original.identity());
    copy.copyFromMetaData(tree);
    EXPECT_EQ(static_cast<unsigned long>(copy.id()), static_cast<unsigned long>(original.id()));
    EXPECT_TRUE(copy.sender.initialized());
    EXPECT_TRUE(copy.destination.initialized());
    EXPECT_EQ(copy.sender(), original.sender());
    EXPECT_EQ(copy.destination(), original.destination());
    EXPECT_EQ(copy.identity(), original.identity());
}

TEST(Message, UnsetAddressStaysUnsetThroughTree) {
    Message original(Identifier(4), Address{});
    Element tree;
    original.copyToMetaData(tree);
    EXPECT_FALSE(HasElement(tree, "Destination"));

    Message copy(Identifier(0), Address{"x"}, Address{"y"});
    copy.copyFromMetaData(tree);
    EXPECT_TRUE(copy.sender.initialized());
    EXPECT_TRUE(copy.sender().empty());
    EXPECT_FALSE(copy.destination.initialized());
    EXPECT_EQ(static_cast<unsigned long>(copy.id()), 4UL);
}

TEST(Message, IdentifierMissingFromTreeReadsAsZero) {
    Message m(Identifier(5, 5));
    Element tree;
    Kest::MetaData::SetAs<std::string>("x", tree["Identity"]);
    m.copyFromMetaData(tree);
    EXPECT_EQ(static_cast<unsigned long>(m.id()), 0UL);
    EXPECT_EQ(m.identity(), "x");
}

TEST(Message, IdentityMissingFromTreeMakesReadingItThrow) {
    Message m(Identifier(5));
    Element tree;
    Kest::MetaData::SetAs<unsigned long>(5, tree["Id"]);
    m.copyFromMetaData(tree);
    EXPECT_FALSE(m.identity.initialized());
    try {
        (void)m.identity();
        FAIL() << "reading an unset identity did not throw";
    } catch (const MetaDataException& e) {
        EXPECT_NE(std::string(e.what()).find("Kest::MetaData::Reflector::operator()()"), std::string::npos);
    }
}

TEST(Message, ReadingMalformedTreeDoesNotThrow) {
    Message m(Identifier(1), Address{"s"}, Address{"d"});
    const std::string identity = m.identity();
    Element tree;
    Kest::MetaData::SetAs<std::string>("not a number", tree["Id"]);
    Kest::MetaData::SetAs<unsigned long>(3, tree["Sender"]);
    static_cast<Kest::MetaData::Array&>(tree["Destination"]).resize(1);
    tree["Identity"]["nested"];
    KestTest::CaptureStdout capture;
    EXPECT_NO_THROW(m.copyFromMetaData(tree));
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "Exception MetaDat::ReflectorArray Should have gotten an Array, but didn't",
                  "Exception MetaDat::ReflectorArray MetaData Array corrupt for Destination"}));
    EXPECT_EQ(static_cast<unsigned long>(m.id()), 0UL);
    EXPECT_EQ(m.sender(), Address{"s"});
    EXPECT_EQ(m.destination(), Address{"d"});
    EXPECT_FALSE(m.identity.initialized());
}

TEST(Message, NotificationCopiedThroughTreeKeepsItsDataField) {
    Forwarder::ServiceRankNotification original(
        Forwarder::ServiceData(MessageKey(Identifier(7, 8), {}, {"svc", "a"}, {}), 1, 12), Address{"fwd"},
        Address{});
    Element tree;
    original.copyToMetaData(tree);
    ASSERT_TRUE(HasElement(tree, "Data"));

    Forwarder::ServiceRankNotification copy;
    copy.copyFromMetaData(tree);
    EXPECT_EQ(copy.identity(), original.identity());
    EXPECT_EQ(static_cast<unsigned long>(copy.id()), static_cast<unsigned long>(original.id()));
    EXPECT_EQ(copy.sender(), Address{"fwd"});
    const Forwarder::ServiceData& data = copy.payload();
    EXPECT_EQ(static_cast<unsigned long>(data.key().id()), static_cast<unsigned long>(Identifier(7, 8)));
    EXPECT_TRUE(data.key().sender.initialized());
    EXPECT_TRUE(data.key().sender().empty());
    EXPECT_EQ(data.key().destination(), (Address{"svc", "a"}));
    EXPECT_EQ(data.count(), 1U);
    EXPECT_EQ(data.rank(), 12U);
}

TEST(Message, NotificationReadFromTreeWithoutDataHasNoPayload) {
    Forwarder::ServiceChangeNotification n(Forwarder::ServiceData(MessageKey(1, {}, {}, {}), 1, 0));
    Element tree;
    Message plain(Identifier(1));
    plain.copyToMetaData(tree);
    n.copyFromMetaData(tree);
    EXPECT_FALSE(n.data.initialized());
    EXPECT_THROW((void)n.payload(), MetaDataException);
}

TEST(Message, PayloadFieldIsRegisteredWithItsMessage) {
    Forwarder::SubscriptionAddedNotification n(Forwarder::ServiceData(MessageKey(1, {"s"}, {}, {}), 1, 0));
    EXPECT_EQ(n.data.parent(), &n);
    EXPECT_EQ(n.data.name(), "Data");
    EXPECT_EQ(n.payload().key.parent(), &n.payload());
    int fields = 0;
    n.forEachField([&](const Kest::MetaData::ReflectorBase&) { ++fields; });
    EXPECT_EQ(fields, 5);  // Id, Sender, Destination, Identity, Data
}

TEST(Message, KeyOfMessageTakesIdentifierAndAddresses) {
    Message m(Identifier(1, 1), Address{"s"}, Address{"d", "e"});
    MessageKey key(m, {});
    EXPECT_EQ(key.id(), static_cast<unsigned long>(Identifier(1, 1)));
    EXPECT_EQ(key.sender(), Address{"s"});
    EXPECT_EQ(key.destination(), (Address{"d", "e"}));
}

TEST(Message, KeyOfMessageCountsUnsetAddressesAsEmpty) {
    Message m(Identifier(3));
    MessageKey key(m, MessageKey::HasherWithSender());
    EXPECT_EQ(key, MessageKey(3, {}, {}, {}));
}

}  // namespace

// ---- Reading trees of every kind ---------------------------------------------

namespace {

const std::string kCorruptPrefix = "Exception MetaDat::ReflectorArray MetaData Array corrupt for ";

// A tree of each kind: empty, number, string, array (of strings) and object.
Element treeOfKind(std::uint16_t kind) {
    Element tree;
    switch (kind) {
        case Element::NumberType: Kest::MetaData::SetAs<unsigned long>(42, tree); break;
        case Element::StringType: Kest::MetaData::SetAs<std::string>("Sender", tree); break;
        case Element::ArrayType: {
            Kest::MetaData::Array& array = tree;
            array.resize(1);
            Kest::MetaData::SetAs<std::string>("x", array[0]);
            break;
        }
        case Element::ObjectType:
            Kest::MetaData::SetAs<unsigned long>(static_cast<unsigned long>(Identifier(9, 9)), tree["Id"]);
            static_cast<Kest::MetaData::Array&>(tree["Sender"]).resize(1);
            Kest::MetaData::SetAs<std::string>("from-tree", static_cast<Kest::MetaData::Array&>(tree["Sender"])[0]);
            Kest::MetaData::SetAs<std::string>("identity-from-tree", tree["Identity"]);
            break;
        default: break;
    }
    return tree;
}

const std::vector<std::uint16_t> kAllKinds{Element::EmptyType, Element::NumberType, Element::StringType,
                                           Element::ArrayType, Element::ObjectType};

}  // namespace

TEST(Message, ReadingATreeOfEveryKindNeverThrowsAndFollowsTheFieldRules) {
    for (std::uint16_t kind : kAllKinds) {
        SCOPED_TRACE("tree of element type " + std::to_string(kind));
        Message m(Identifier(1, 2), Address{"s"}, Address{"d"});
        const Element tree = treeOfKind(kind);
        KestTest::CaptureStdout capture;
        EXPECT_NO_THROW(m.copyFromMetaData(tree));

        if (kind == Element::ObjectType) {
            // For reference: an object is read field by field.
            EXPECT_EQ(capture.text(), "");
            EXPECT_EQ(static_cast<unsigned long>(m.id()), static_cast<unsigned long>(Identifier(9, 9)));
            EXPECT_TRUE(m.sender.initialized());
            EXPECT_EQ(m.sender(), Address{"from-tree"});
            EXPECT_FALSE(m.destination.initialized());
            EXPECT_TRUE(m.destination().empty());
            ASSERT_TRUE(m.identity.initialized());
            EXPECT_EQ(m.identity(), "identity-from-tree");
            continue;
        }
        // Scalar fields find no element and are reset, in every case.
        EXPECT_EQ(static_cast<unsigned long>(m.id()), 0UL);
        EXPECT_FALSE(m.identity.initialized());
        if (kind == Element::EmptyType) {
            // An empty tree is an empty object: both addresses are missing.
            EXPECT_EQ(capture.text(), "");
            EXPECT_FALSE(m.sender.initialized());
            EXPECT_TRUE(m.sender().empty());
            EXPECT_FALSE(m.destination.initialized());
            EXPECT_TRUE(m.destination().empty());
        } else {
            // A number, string or array holds no field: each address says so and keeps its value.
            EXPECT_EQ(capture.lines(),
                      (std::vector<std::string>{kCorruptPrefix + "Sender", kCorruptPrefix + "Destination"}));
            EXPECT_TRUE(m.sender.initialized());
            EXPECT_EQ(m.sender(), Address{"s"});
            EXPECT_TRUE(m.destination.initialized());
            EXPECT_EQ(m.destination(), Address{"d"});
        }
    }
}

TEST(Message, NotificationReadingATreeOfEveryKindNeverThrowsAndFollowsTheFieldRules) {
    for (std::uint16_t kind : kAllKinds) {
        SCOPED_TRACE("tree of element type " + std::to_string(kind));
        Forwarder::ServiceRankNotification n(
            Forwarder::ServiceData(MessageKey(Identifier(7, 8), {}, {"svc", "a"}, {}), 1, 12), Address{"fwd"},
            Address{});
        Element tree = treeOfKind(kind);
        if (kind == Element::ObjectType) {
            // For reference: the payload read back from a tree written by another notification.
            Forwarder::ServiceRankNotification other(
                Forwarder::ServiceData(MessageKey(Identifier(3, 4), {}, {"x"}, {}), 1, 5));
            Element written;
            other.copyToMetaData(written);
            tree["Data"] = written["Data"];
        }
        KestTest::CaptureStdout capture;
        EXPECT_NO_THROW(n.copyFromMetaData(tree));

        if (kind == Element::ObjectType) {
            EXPECT_EQ(capture.text(), "");
            EXPECT_EQ(static_cast<unsigned long>(n.id()), static_cast<unsigned long>(Identifier(9, 9)));
            EXPECT_EQ(n.sender(), Address{"from-tree"});
            EXPECT_FALSE(n.destination.initialized());
            EXPECT_EQ(n.identity(), "identity-from-tree");
            ASSERT_TRUE(n.data.initialized());
            EXPECT_EQ(static_cast<unsigned long>(n.payload().key().id()), static_cast<unsigned long>(Identifier(3, 4)));
            EXPECT_EQ(n.payload().key().destination(), Address{"x"});
            EXPECT_EQ(n.payload().rank(), 5U);
            continue;
        }
        // Scalar and record fields find no element and are reset, in every case.
        EXPECT_EQ(static_cast<unsigned long>(n.id()), 0UL);
        EXPECT_FALSE(n.identity.initialized());
        EXPECT_FALSE(n.data.initialized());
        EXPECT_THROW((void)n.payload(), MetaDataException);
        if (kind == Element::EmptyType) {
            EXPECT_EQ(capture.text(), "");
            EXPECT_FALSE(n.sender.initialized());
            EXPECT_TRUE(n.sender().empty());
            EXPECT_FALSE(n.destination.initialized());
            EXPECT_TRUE(n.destination().empty());
        } else {
            EXPECT_EQ(capture.lines(),
                      (std::vector<std::string>{kCorruptPrefix + "Sender", kCorruptPrefix + "Destination"}));
            EXPECT_TRUE(n.sender.initialized());
            EXPECT_EQ(n.sender(), Address{"fwd"});
            EXPECT_TRUE(n.destination.initialized());
            EXPECT_TRUE(n.destination().empty());
        }
    }
}
