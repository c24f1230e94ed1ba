// PayloadMessage: identifier, addresses of each constructor, the payload
// copy, and the message's way through a metadata tree.

// First, so that the header is shown to compile on its own.
#include <kest/model/PayloadMessage.h>

#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Message.h>
#include <kest/model/Reflector.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kest::MetaData::Element;
using Kest::MetaData::HasElement;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::MirroredObject;
using Kest::MetaData::Reflector;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Msgs::PayloadAccessorIf;
using Kest::Msgs::PayloadMessage;
using Address = std::vector<std::string>;

// A payload record as users write one: fields of three kinds, and a copy
// that registers its fields with itself.
class Sample : public MirroredObject {
public:
    Sample() = default;
    Sample(double v, bool ok, std::string u) : Sample() {
        value.assign(v);
        valid.assign(ok);
        unit.assign(u);
    }
    Sample(const Sample& other)
        : MirroredObject(other), value(this, other.value), valid(this, other.valid), unit(this, other.unit) {}
    Sample& operator=(const Sample& other) {
        value = other.value;
        valid = other.valid;
        unit = other.unit;
        return *this;
    }

    Reflector<double, false, true> value{this, "Value", true};
    Reflector<bool, false, true> valid{this, "Valid", true};
    Reflector<std::string, false, true> unit{this, "Unit", false};
};

using SampleMessage = PayloadMessage<0x0123, 7, Sample>;

static_assert(std::is_base_of_v<Message, SampleMessage>);
static_assert(std::is_base_of_v<PayloadAccessorIf<SampleMessage, Sample>, SampleMessage>);
static_assert(std::has_virtual_destructor_v<SampleMessage>);
static_assert(!std::is_copy_constructible_v<SampleMessage>);
static_assert(!std::is_copy_assignable_v<SampleMessage>);
static_assert(std::is_default_constructible_v<SampleMessage>);
static_assert(std::is_same_v<decltype(std::declval<const SampleMessage&>().payload()), const Sample&>);

std::vector<std::string> fieldNames(const MirroredObject& record) {
    std::vector<std::string> names;
    record.forEachField([&](const Kest::MetaData::ReflectorBase& f) { names.push_back(f.name()); });
    return names;
}

}  // namespace

TEST(PayloadMessage, IdentifierIsTheCategoryAndTypeOfTheTemplate) {
    EXPECT_EQ(SampleMessage::Id.category(), 0x0123u);
    EXPECT_EQ(SampleMessage::Id.type(), 7u);
    SampleMessage m(Sample(1.0, true, "K"), Address{"a"});
    EXPECT_EQ(static_cast<unsigned long>(m.id()), static_cast<unsigned long>(Identifier(0x0123, 7)));
    EXPECT_EQ(static_cast<unsigned long>(SampleMessage().id()), static_cast<unsigned long>(SampleMessage::Id));
}

TEST(PayloadMessage, SenderOnlyFormSetsTheSenderAndLeavesTheDestinationUnset) {
    SampleMessage m(Sample(-3.25, false, "degC"), Address{"plant", "line1", "thermo"});
    EXPECT_TRUE(m.sender.initialized());
    EXPECT_EQ(m.sender(), (Address{"plant", "line1", "thermo"}));
    EXPECT_FALSE(m.destination.initialized());

    SampleMessage empty(Sample(0.0, true, ""), Address{});
    EXPECT_TRUE(empty.sender.initialized());
    EXPECT_FALSE(empty.destination.initialized());
}

TEST(PayloadMessage, DestinationFormSetsBothAddressesEvenWhenEmpty) {
    SampleMessage m(Sample(1.5, true, "bar"), Address{"hmi"}, Address{"plant", "calibration"});
    EXPECT_TRUE(m.sender.initialized());
    EXPECT_TRUE(m.destination.initialized());
    EXPECT_EQ(m.destination(), (Address{"plant", "calibration"}));

    SampleMessage request(Sample(1.5, true, "bar"), Address{}, Address{});
    EXPECT_TRUE(request.destination.initialized());
    EXPECT_TRUE(request.destination().empty());
}

TEST(PayloadMessage, PayloadIsACopyWhoseFieldsBelongToTheMessagesRecord) {
    Sample original(-3.25, false, "degC");
    SampleMessage m(original, Address{"s"});
    original.value.assign(99.0);
    original.unit.uninit();

    const Sample& payload = m.payload();
    EXPECT_EQ(&payload, &m.data());
    EXPECT_TRUE(m.data.initialized());
    EXPECT_EQ(payload.value(), -3.25);
    EXPECT_FALSE(payload.valid());
    EXPECT_EQ(payload.unit(), "degC");
    EXPECT_EQ(payload.value.parent(), &payload);
    EXPECT_EQ(payload.valid.parent(), &payload);
    EXPECT_EQ(payload.unit.parent(), &payload);
}

TEST(PayloadMessage, DefaultFormHasNoAddressesAndAnUnsetPayloadThatThrowsWhenRead) {
    SampleMessage m;
    EXPECT_FALSE(m.sender.initialized());
    EXPECT_FALSE(m.destination.initialized());
    EXPECT_TRUE(m.identity.initialized());
    EXPECT_FALSE(m.data.initialized());
    try {
        (void)m.payload();
        FAIL() << "reading an unset payload did not throw";
    } catch (const MetaDataException& e) {
        EXPECT_NE(std::string(e.what()).find("Kest::MetaData::Reflector::operator()()"), std::string::npos)
            << e.what();
        EXPECT_NE(std::string(e.what()).find("Data"), std::string::npos) << e.what();
    }
}

TEST(PayloadMessage, FieldsAreThoseOfMessageThenData) {
    SampleMessage m(Sample(1.0, true, "K"), Address{"a"});
    EXPECT_EQ(fieldNames(m), (std::vector<std::string>{"Id", "Sender", "Destination", "Identity", "Data"}));
    EXPECT_EQ(fieldNames(m.payload()), (std::vector<std::string>{"Value", "Valid", "Unit"}));
}

TEST(PayloadMessage, DefaultFormReadsEverythingBackFromTheTreeOfASentMessage) {
    SampleMessage sent(Sample(-3.25, false, "degC"), Address{"plant", "line1"}, Address{"plant", "lab"});
    Element tree;
    sent.copyToMetaData(tree);
    ASSERT_TRUE(HasElement(tree, "Data"));
    EXPECT_EQ(static_cast<const Element&>(tree)["Data"].GetElementType(), Element::ObjectType);

    SampleMessage received;
    received.copyFromMetaData(tree);
    EXPECT_EQ(static_cast<unsigned long>(received.id()), static_cast<unsigned long>(SampleMessage::Id));
    EXPECT_EQ(received.sender(), (Address{"plant", "line1"}));
    ASSERT_TRUE(received.destination.initialized());
    EXPECT_EQ(received.destination(), (Address{"plant", "lab"}));
    EXPECT_EQ(received.identity(), sent.identity());
    EXPECT_EQ(received.payload().value(), -3.25);
    EXPECT_FALSE(received.payload().valid());
    EXPECT_EQ(received.payload().unit(), "degC");
}

TEST(PayloadMessage, SenderOnlyMessageStaysWithoutDestinationThroughATree) {
    SampleMessage sent(Sample(2.0, true, "K"), Address{"a"});
    Element tree;
    sent.copyToMetaData(tree);
    EXPECT_FALSE(HasElement(tree, "Destination"));
    SampleMessage received;
    received.copyFromMetaData(tree);
    EXPECT_FALSE(received.destination.initialized());
    EXPECT_TRUE(received.data.initialized());
}

TEST(PayloadMessage, TreeWithoutDataLeavesThePayloadUnset) {
    Message plain(SampleMessage::Id, Address{"a"});
    Element tree;
    plain.copyToMetaData(tree);
    SampleMessage received;
    received.copyFromMetaData(tree);
    EXPECT_FALSE(received.data.initialized());
    EXPECT_THROW((void)received.payload(), MetaDataException);
}
