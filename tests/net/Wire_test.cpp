// Messages through encode() and decode(): every kind of message comes back
// field for field and identity for identity, as its concrete type when that
// is registered, and encoding what was decoded gives the same bytes.

#include <kest/metadata/Element.h>
#include <kest/model/ForwarderNotifications.h>
#include <kest/model/Message.h>
#include <kest/model/MessageKey.h>
#include <kest/model/Reflector.h>
#include <kest/net.h>

#include <support/TreeSupport.h>

#include "WireTestSupport.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::Object;
using Kest::MetaData::Reflector;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::MessageKey;
using Kest::Net::decode;
using Kest::Net::decodeWithEnvelope;
using Kest::Net::encode;
using Kest::Net::encodeTo;
using Kest::Net::Envelope;
using Kest::Net::GenericMessage;
using Kest::Net::MessageTypes;
using Kest::Net::Scope;
using KestTest::describeTree;
using KestTest::sameTree;
using KestTest::treeOf;
namespace Forwarder = Kest::Msgs::Communications::Forwarder;

using Address = std::vector<std::string>;

// A message type of our own, registered below, with fields of four kinds.
class Reading : public Message {
public:
    static constexpr Identifier kId{0x0A01, 1};
    Reading() : Message(kId), value(this, "Value", false), label(this, "Label", false),
                offset(this, "Offset", false), valid(this, "Valid", false) {}

    Reflector<double, false, true> value;
    Reflector<std::string, false, true> label;
    Reflector<long, false, true> offset;
    Reflector<bool, false, true> valid;
};

// The same fields, never registered: it must arrive as a GenericMessage.
class UnregisteredReading : public Message {
public:
    static constexpr Identifier kId{0x0A01, 2};
    UnregisteredReading() : Message(kId, {"plant", "line"}), value(this, "Value", false), label(this, "Label", false) {}

    Reflector<double, false, true> value;
    Reflector<std::string, false, true> label;
};

// A Message in every respect but its type: written through its tree.
class PlainByTree : public Message {
public:
    using Message::Message;
};

const bool readingRegistered = (MessageTypes::add<Reading>(Reading::kId), true);

// Everything a receiver can observe of a message: identifier, both addresses
// with their set flags, identity, and the whole tree.
void expectSameMessage(const Message& sent, const Message& received) {
    EXPECT_EQ(static_cast<unsigned long>(received.id()), static_cast<unsigned long>(sent.id()));
    EXPECT_EQ(received.sender.initialized(), sent.sender.initialized());
    EXPECT_EQ(received.sender(), sent.sender());
    EXPECT_EQ(received.destination.initialized(), sent.destination.initialized());
    EXPECT_EQ(received.destination(), sent.destination());
    ASSERT_TRUE(received.identity.initialized());
    EXPECT_EQ(received.identity(), sent.identity());
    const Element sentTree = treeOf(sent);
    const Element receivedTree = treeOf(received);
    EXPECT_TRUE(sameTree(sentTree, receivedTree)) << "sent     " << describeTree(sentTree) << "\nreceived "
                                                  << describeTree(receivedTree);
}

// Decodes `message`'s bytes, checks it came back, and that encoding the
// result gives the same bytes again.
std::shared_ptr<const Message> roundTrip(const Message& message) {
    const std::string bytes = encode(message);
    std::shared_ptr<const Message> received = decode(bytes);
    EXPECT_TRUE(received);
    if (!received) return received;
    expectSameMessage(message, *received);
    EXPECT_EQ(encode(*received), bytes) << "encode, decode, encode changed the bytes";
    return received;
}

Element deepPayload() {
    Element payload(Object{});
    payload["empty"] = Element();
    payload["unsigned"] = Element(std::numeric_limits<unsigned long>::max());
    payload["zero"] = Element(0ul);
    payload["signed"] = Element(std::numeric_limits<long>::min());
    payload["signedPositive"] = Element(5l);
    payload["double"] = Element(-0.0);
    payload["nan"] = Element(std::numeric_limits<double>::quiet_NaN());
    payload["infinity"] = Element(std::numeric_limits<double>::infinity());
    payload["whole"] = Element(5.0);
    payload["true"] = Element(true);
    payload["false"] = Element(false);
    payload["text"] = Element(std::string("nul\0byte \xff\xfe not UTF-8", 22));
    payload["emptyText"] = Element("");
    payload["emptyObject"] = Element(Object{});
    payload["emptyArray"] = Element(Array{});
    // Forty levels of alternating objects and arrays, a scalar of each kind at the bottom.
    Element leaf(Array{});
    Array& leaves = leaf;
    leaves.push_back(Element(1ul));
    leaves.push_back(Element(-1l));
    leaves.push_back(Element(0.25));
    leaves.push_back(Element(true));
    leaves.push_back(Element("bottom"));
    leaves.push_back(Element());
    Element nested = leaf;
    for (int level = 0; level < 40; ++level) {
        if (level % 2 == 0) {
            Element object(Object{});
            object["level" + std::to_string(level)] = nested;
            nested = object;
        } else {
            Array array;
            array.push_back(nested);
            array.push_back(Element(static_cast<unsigned long>(level)));
            nested = Element(array);
        }
    }
    payload["deep"] = nested;
    return payload;
}

TEST(Wire, PlainMessageWithoutAddressesComesBackWithBothUnset) {
    const Message message(Identifier(100, 1));
    auto received = roundTrip(message);
    ASSERT_TRUE(received);
    EXPECT_FALSE(received->sender.initialized());
    EXPECT_FALSE(received->destination.initialized());
}

TEST(Wire, MessageWithSenderComesBackWithItsSenderAndNoDestination) {
    const Message message(Identifier(100, 2), Address{"plant", "line2", "press"});
    auto received = roundTrip(message);
    ASSERT_TRUE(received);
    EXPECT_EQ(received->sender(), (Address{"plant", "line2", "press"}));
    EXPECT_FALSE(received->destination.initialized());
}

TEST(Wire, MessageWithSenderAndDestinationComesBackWithBoth) {
    const Message message(Identifier(100, 3), Address{"a"}, Address{"x", "y"});
    auto received = roundTrip(message);
    ASSERT_TRUE(received);
    EXPECT_EQ(received->destination(), (Address{"x", "y"}));
}

TEST(Wire, SetButEmptyAddressesStaySetAndEmpty) {
    const Message message(Identifier(100, 4), Address{}, Address{});
    auto received = roundTrip(message);
    ASSERT_TRUE(received);
    EXPECT_TRUE(received->sender.initialized());
    EXPECT_TRUE(received->sender().empty());
    EXPECT_TRUE(received->destination.initialized());
    EXPECT_TRUE(received->destination().empty());
}

TEST(Wire, UnsetSenderWithSetDestinationComesBackSo) {
    GenericMessage message(Identifier(100, 5), std::nullopt, Address{"d"}, Element());
    auto received = roundTrip(message);
    ASSERT_TRUE(received);
    EXPECT_FALSE(received->sender.initialized());
    EXPECT_TRUE(received->destination.initialized());
}

TEST(Wire, AddressPartsKeepAnyBytes) {
    const Message message(Identifier(100, 6), Address{"", std::string("a\0b", 3), "\xff"}, Address{""});
    roundTrip(message);
}

template <class Notification>
void expectNotificationRoundTrip(unsigned long rank) {
    const MessageKey key(Identifier(7, 1), Address{"plant", "line"}, Address{"svc"}, {});
    const Notification sent{Forwarder::ServiceData(key, 1, rank)};
    auto received = roundTrip(sent);
    ASSERT_TRUE(received);
    auto typed = std::dynamic_pointer_cast<const Notification>(received);
    ASSERT_TRUE(typed) << "notification type " << Notification::Type << " did not come back as its own type";
    EXPECT_EQ(static_cast<unsigned long>(typed->id()),
              static_cast<unsigned long>(Identifier(Forwarder::Category, Notification::Type)));
    const Forwarder::ServiceData& payload = typed->payload();
    EXPECT_EQ(static_cast<unsigned long>(payload.key().id()), static_cast<unsigned long>(Identifier(7, 1)));
    EXPECT_EQ(payload.key().sender(), (Address{"plant", "line"}));
    EXPECT_EQ(payload.key().destination(), (Address{"svc"}));
    EXPECT_EQ(payload.count(), 1ul);
    EXPECT_EQ(payload.rank(), rank);
}

TEST(Wire, ServiceRankNotificationComesBackAsItselfWithItsPayload) {
    expectNotificationRoundTrip<Forwarder::ServiceRankNotification>(3);
}

TEST(Wire, ServiceChangeNotificationComesBackAsItselfWithItsPayload) {
    expectNotificationRoundTrip<Forwarder::ServiceChangeNotification>(std::numeric_limits<unsigned long>::max());
}

TEST(Wire, SubscriptionAddedNotificationComesBackAsItselfWithItsPayload) {
    expectNotificationRoundTrip<Forwarder::SubscriptionAddedNotification>(0);
}

TEST(Wire, SubscriptionRemovedNotificationComesBackAsItselfWithItsPayload) {
    expectNotificationRoundTrip<Forwarder::SubscriptionRemovedNotification>(0);
}

TEST(Wire, NotificationKeepsItsSetEmptyAddresses) {
    const Forwarder::SubscriptionAddedNotification sent{
        Forwarder::ServiceData(MessageKey(Identifier(1), Address{}, Address{}, {}), 1, 0)};
    auto received = roundTrip(sent);
    ASSERT_TRUE(received);
    EXPECT_TRUE(received->sender.initialized());
    EXPECT_TRUE(received->destination.initialized());
}

TEST(Wire, GenericMessageWithDeepPayloadOfEveryKindComesBackExactly) {
    const GenericMessage sent(Identifier(0x0B00, 9), Address{"tool"}, Address{"svc", "a"}, deepPayload());
    auto received = roundTrip(sent);
    ASSERT_TRUE(received);
    auto generic = std::dynamic_pointer_cast<const GenericMessage>(received);
    ASSERT_TRUE(generic);
    EXPECT_TRUE(sameTree(generic->tree(), sent.tree())) << describeTree(generic->tree());
}

TEST(Wire, RegisteredTypeComesBackAsThatTypeWithEveryField) {
    ASSERT_TRUE(readingRegistered);
    Reading sent;
    sent.sender.assign({"sensor", "7"});
    sent.value.assign(-2.5);
    sent.label.assign("temperature");
    sent.offset.assign(-40);
    sent.valid.assign(true);
    auto received = std::dynamic_pointer_cast<const Reading>(roundTrip(sent));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->value(), -2.5);
    EXPECT_EQ(received->label(), "temperature");
    EXPECT_EQ(received->offset(), -40);
    EXPECT_TRUE(received->valid());
}

TEST(Wire, RegisteredTypeKeepsItsUnsetFieldsUnset) {
    Reading sent;
    sent.label.assign("only this");
    auto received = std::dynamic_pointer_cast<const Reading>(roundTrip(sent));
    ASSERT_TRUE(received);
    EXPECT_FALSE(received->value.initialized());
    EXPECT_FALSE(received->offset.initialized());
    EXPECT_FALSE(received->sender.initialized());
}

TEST(Wire, UnregisteredTypeComesBackAsGenericMessageHoldingItsFields) {
    UnregisteredReading sent;
    sent.value.assign(0.5);
    sent.label.assign("x");
    auto received = roundTrip(sent);
    auto generic = std::dynamic_pointer_cast<const GenericMessage>(received);
    ASSERT_TRUE(generic);
    Element expected(Object{});
    expected["Value"] = Element(0.5);
    expected["Label"] = Element("x");
    EXPECT_TRUE(sameTree(generic->tree(), expected)) << describeTree(generic->tree());
}

TEST(Wire, EnvelopeComesBackItemForItem) {
    const Message message(Identifier(1, 1));
    for (Scope scope : {Scope::Subscribers, Scope::Services, Scope::Both}) {
        Envelope sent;
        sent.origin = std::string("host\0pid 42", 11);
        sent.epoch = std::numeric_limits<std::uint64_t>::max();
        sent.hops = std::numeric_limits<std::uint32_t>::max();
        sent.scope = scope;
        sent.sequence = 1ull << 63;
        const Kest::Net::Decoded decoded = decodeWithEnvelope(encode(message, sent));
        EXPECT_EQ(decoded.envelope.origin, sent.origin);
        EXPECT_EQ(decoded.envelope.epoch, sent.epoch);
        EXPECT_EQ(decoded.envelope.hops, sent.hops);
        EXPECT_EQ(decoded.envelope.scope, scope);
        EXPECT_EQ(decoded.envelope.sequence, sent.sequence);
        ASSERT_TRUE(decoded.message);
        expectSameMessage(message, *decoded.message);
    }
}

TEST(Wire, EncodeWithoutEnvelopeWritesTheDefaultEnvelope) {
    const Message message(Identifier(1, 1));
    EXPECT_EQ(encode(message), encode(message, Envelope()));
    const Kest::Net::Decoded decoded = decodeWithEnvelope(encode(message));
    EXPECT_EQ(decoded.envelope.origin, "");
    EXPECT_EQ(decoded.envelope.hops, 0u);
    EXPECT_EQ(decoded.envelope.scope, Scope::Both);
}

TEST(Wire, EncodeToReplacesTheContentAndReusesTheCapacity) {
    const Message message(Identifier(1, 1), Address{"a", "b"});
    std::string out(4096, 'x');
    const auto capacity = out.capacity();
    const char* storage = out.data();
    encodeTo(out, message, Envelope());
    EXPECT_EQ(out, encode(message));
    EXPECT_EQ(out.capacity(), capacity);
    EXPECT_EQ(out.data(), storage);
}

TEST(Wire, PlainMessageIsWrittenExactlyAsItsTreeWouldBe) {
    // A plain Message is written from its fields, any other type from its
    // tree: the two ways must give the same bytes.
    const Message plain(Identifier(3, 4), Address{"s", "t"}, Address{"d"});
    PlainByTree byTree(Identifier(3, 4), Address{"s", "t"}, Address{"d"});
    byTree.identity.assign(plain.identity());
    EXPECT_EQ(encode(plain), encode(byTree));

    const Message bare(Identifier(3, 5));
    PlainByTree bareByTree(Identifier(3, 5));
    bareByTree.identity.assign(bare.identity());
    EXPECT_EQ(encode(bare), encode(bareByTree));
}

// A record whose field names fall before, between and after Message's own
// ("Destination" < "Id" < "Identity" < "Sender").
class Interleaved : public Message {
public:
    Interleaved()
        : Message(Identifier(3, 6), {"s"}, {"d"}), alpha(this, "Alpha", false), dz(this, "Dz", false),
          ida(this, "Ida", false), ie(this, "Ie", false), zulu(this, "Zulu", false) {}
    Reflector<std::string, false, true> alpha;
    Reflector<unsigned long, false, true> dz;
    Reflector<long, false, true> ida;
    Reflector<bool, false, true> ie;
    Reflector<double, false, true> zulu;
};

TEST(Wire, GenericMessageIsWrittenExactlyAsItsTreeWouldBe) {
    Interleaved record;
    record.alpha.assign("a");
    record.dz.assign(1);
    record.ida.assign(-2);
    record.ie.assign(false);
    record.zulu.assign(3.5);
    Element payload(Object{});
    payload["Alpha"] = Element("a");
    payload["Dz"] = Element(1ul);
    payload["Ida"] = Element(-2l);
    payload["Ie"] = Element(false);
    payload["Zulu"] = Element(3.5);
    GenericMessage generic(Identifier(3, 6), Address{"s"}, Address{"d"}, payload);
    generic.identity.assign(record.identity());
    EXPECT_EQ(encode(generic), encode(record));
}

TEST(Wire, SignedIntegersAreWrittenInSignedFormatsEvenWhenNotNegative) {
    Element payload(Object{});
    payload["a"] = Element(5l);
    payload["b"] = Element(-5l);
    payload["c"] = Element(5ul);
    GenericMessage message(Identifier(1, 1), std::nullopt, std::nullopt, payload);
    const std::string bytes = encode(message);
    // "a": int 8 (0xd0) 5; "b": negative fixint -5 (0xfb); "c": positive fixint 5.
    EXPECT_NE(bytes.find(std::string("\xa1" "a" "\xd0\x05", 4)), std::string::npos);
    EXPECT_NE(bytes.find(std::string("\xa1" "b" "\xfb", 3)), std::string::npos);
    EXPECT_NE(bytes.find(std::string("\xa1" "c" "\x05", 3)), std::string::npos);
    auto received = std::dynamic_pointer_cast<const GenericMessage>(decode(bytes));
    ASSERT_TRUE(received);
    EXPECT_EQ(received->tree()["a"].GetElementType(), Element::SignedType);
    EXPECT_EQ(received->tree()["c"].GetElementType(), Element::NumberType);
}

TEST(Wire, EverySignedWidthKeepsItsKindAndValue) {
    Element payload(Object{});
    const long values[] = {0, 1, -1, -32, -33, 127, 128, -128, -129, 32767, 32768, -32768, -32769,
                           2147483647, 2147483648l, -2147483648l, -2147483649l,
                           std::numeric_limits<long>::max(), std::numeric_limits<long>::min()};
    int i = 0;
    for (long value : values) payload["v" + std::to_string(i++)] = Element(value);
    GenericMessage message(Identifier(1, 1), std::nullopt, std::nullopt, payload);
    roundTrip(message);
}

TEST(Wire, Float32InputIsReadAsADouble) {
    const std::string bytes = KestTest::wireBytes(KestTest::goodVersion, KestTest::goodEnvelope,
                                                  KestTest::treeWith("F", [](KestTest::Packer& p) { p.pack_float(0.5f); }));
    auto received = std::dynamic_pointer_cast<const GenericMessage>(decode(bytes));
    ASSERT_TRUE(received);
    EXPECT_TRUE(sameTree(received->tree()["F"], Element(0.5)));
}

TEST(Wire, HandMadeBytesDecodeToTheMessageTheySpell) {
    const Kest::Net::Decoded decoded = decodeWithEnvelope(KestTest::wireBytes());
    EXPECT_EQ(decoded.envelope.origin, "origin");
    EXPECT_EQ(decoded.envelope.epoch, 7u);
    EXPECT_EQ(decoded.envelope.hops, 2u);
    EXPECT_EQ(decoded.envelope.scope, Scope::Both);
    EXPECT_EQ(decoded.envelope.sequence, 11u);
    auto generic = std::dynamic_pointer_cast<const GenericMessage>(decoded.message);
    ASSERT_TRUE(generic);
    EXPECT_EQ(static_cast<unsigned long>(generic->id()), 42ul);
    EXPECT_EQ(generic->identity(), "i-1");
    EXPECT_EQ(generic->sender(), (Address{"a", "b"}));
    EXPECT_FALSE(generic->destination.initialized());
    Element expected(Object{});
    expected["Value"] = Element(-3l);
    EXPECT_TRUE(sameTree(generic->tree(), expected)) << describeTree(generic->tree());
}

TEST(Wire, NewerMinorVersionIsReadAndItsExtraItemsIgnored) {
    const std::string bytes = KestTest::packed([](KestTest::Packer& p) {
        p.pack_array(4);
        p.pack_array(2);
        p.pack_uint64(1);
        p.pack_uint64(7);
        p.pack_array(7);
        KestTest::packString(p, "origin");
        p.pack_uint64(1);
        p.pack_uint64(2);
        p.pack_uint64(1);
        p.pack_uint64(4);
        p.pack_map(1);  // items of a later minor version, of any known kind
        KestTest::packString(p, "future");
        p.pack_array(0);
        p.pack_fix_int8(-1);
        KestTest::goodTree(p);
        p.pack_nil();  // and a fourth outer item
    });
    const Kest::Net::Decoded decoded = decodeWithEnvelope(bytes);
    EXPECT_EQ(decoded.envelope.scope, Scope::Subscribers);
    EXPECT_EQ(decoded.envelope.sequence, 4u);
    ASSERT_TRUE(decoded.message);
    EXPECT_EQ(decoded.message->identity(), "i-1");
}

TEST(Wire, MembersAreWrittenInNameOrderWhateverOrderTheyWereAddedIn) {
    Element first(Object{});
    first["b"] = Element(1ul);
    first["a"] = Element(2ul);
    Element second(Object{});
    second["a"] = Element(2ul);
    second["b"] = Element(1ul);
    GenericMessage one(Identifier(1, 1), std::nullopt, std::nullopt, first);
    GenericMessage two(Identifier(1, 1), std::nullopt, std::nullopt, second);
    two.identity.assign(one.identity());
    EXPECT_EQ(encode(one), encode(two));
}

}  // namespace
