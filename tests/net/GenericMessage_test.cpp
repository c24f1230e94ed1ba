#include <kest/metadata/Element.h>
#include <kest/model/Message.h>
#include <kest/net/GenericMessage.h>

#include <support/TestSupport.h>
#include <support/TreeSupport.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::Object;
using Kest::Msgs::Identifier;
using Kest::Msgs::Message;
using Kest::Net::GenericMessage;
using KestTest::describeTree;
using KestTest::sameTree;
using KestTest::treeOf;

using Address = std::vector<std::string>;

static_assert(std::is_base_of_v<Message, GenericMessage>);
static_assert(std::is_default_constructible_v<GenericMessage>);
static_assert(std::is_final_v<GenericMessage>);

Element samplePayload() {
    Element payload(Object{});
    payload["Level"] = Element(-3l);
    payload["Name"] = Element("press");
    payload["List"] = Element(Array{});
    static_cast<Array&>(payload["List"]).push_back(Element(1.5));
    return payload;
}

TEST(GenericMessage, DefaultConstructedHasIdentifierZeroNoAddressesAndAnEmptyObjectPayload) {
    const GenericMessage message;
    EXPECT_EQ(static_cast<unsigned long>(message.id()), 0ul);
    EXPECT_FALSE(message.sender.initialized());
    EXPECT_FALSE(message.destination.initialized());
    EXPECT_TRUE(message.identity.initialized());
    EXPECT_EQ(message.tree().GetElementType(), Element::ObjectType);
    EXPECT_EQ(static_cast<const Object&>(message.tree()).size(), 0u);
}

TEST(GenericMessage, ConstructorTakesIdentifierAddressesAndPayload) {
    const GenericMessage message(Identifier(4, 2), Address{"s"}, std::nullopt, samplePayload());
    EXPECT_EQ(static_cast<unsigned long>(message.id()), static_cast<unsigned long>(Identifier(4, 2)));
    EXPECT_EQ(message.sender(), Address{"s"});
    EXPECT_FALSE(message.destination.initialized());
    EXPECT_TRUE(sameTree(message.tree(), samplePayload()));
}

TEST(GenericMessage, EmptyPayloadMeansNoMembers) {
    const GenericMessage message(Identifier(1), std::nullopt, Address{}, Element());
    EXPECT_EQ(message.tree().GetElementType(), Element::ObjectType);
    EXPECT_TRUE(message.destination.initialized());
}

TEST(GenericMessage, EachMessageGetsAFreshIdentity) {
    const GenericMessage a(Identifier(1), std::nullopt, std::nullopt, Element());
    const GenericMessage b(Identifier(1), std::nullopt, std::nullopt, Element());
    EXPECT_NE(a.identity(), b.identity());
}

TEST(GenericMessage, PayloadMemberNamedLikeAMessageFieldIsRefused) {
    for (const char* name : {"Id", "Sender", "Destination", "Identity"}) {
        Element payload = samplePayload();
        payload[name] = Element(1ul);
        EXPECT_THROW(GenericMessage(Identifier(1), std::nullopt, std::nullopt, payload), std::invalid_argument)
            << name;
    }
}

TEST(GenericMessage, PayloadThatIsNotAnObjectIsRefused) {
    EXPECT_THROW(GenericMessage(Identifier(1), std::nullopt, std::nullopt, Element(5ul)), std::invalid_argument);
    EXPECT_THROW(GenericMessage(Identifier(1), std::nullopt, std::nullopt, Element(Array{})), std::invalid_argument);
}

TEST(GenericMessage, CopyToMetaDataWritesMessageFieldsAndPayloadMembers) {
    const GenericMessage message(Identifier(4, 2), Address{"s"}, Address{"d"}, samplePayload());
    Element expected = samplePayload();
    expected["Id"] = Element(static_cast<unsigned long>(Identifier(4, 2)));
    expected["Identity"] = Element(message.identity());
    expected["Sender"] = Element(Array{});
    static_cast<Array&>(expected["Sender"]).push_back(Element("s"));
    expected["Destination"] = Element(Array{});
    static_cast<Array&>(expected["Destination"]).push_back(Element("d"));
    const Element tree = treeOf(message);
    EXPECT_TRUE(sameTree(tree, expected)) << describeTree(tree);
}

TEST(GenericMessage, CopyFromMetaDataKeepsEveryMemberOfTheTree) {
    const GenericMessage original(Identifier(4, 2), Address{"s"}, std::nullopt, samplePayload());
    GenericMessage copy;
    copy.copyFromMetaData(treeOf(original));
    EXPECT_EQ(static_cast<unsigned long>(copy.id()), static_cast<unsigned long>(Identifier(4, 2)));
    EXPECT_EQ(copy.identity(), original.identity());
    EXPECT_EQ(copy.sender(), Address{"s"});
    EXPECT_FALSE(copy.destination.initialized());
    EXPECT_TRUE(sameTree(copy.tree(), samplePayload())) << describeTree(copy.tree());
    EXPECT_TRUE(sameTree(treeOf(copy), treeOf(original)));
}

TEST(GenericMessage, CopyFromMetaDataReplacesThePreviousPayload) {
    GenericMessage message(Identifier(1), std::nullopt, std::nullopt, samplePayload());
    Element tree;
    tree["Id"] = Element(2ul);
    tree["Identity"] = Element("x");
    tree["Other"] = Element(true);
    message.copyFromMetaData(tree);
    Element expected(Object{});
    expected["Other"] = Element(true);
    EXPECT_TRUE(sameTree(message.tree(), expected)) << describeTree(message.tree());
}

TEST(GenericMessage, CopyFromATreeThatIsNotAnObjectThrowsNothingAndReadsNoPayload) {
    for (const Element& tree : {Element(5ul), Element("text"), Element(Array{})}) {
        GenericMessage message(Identifier(1), std::vector<std::string>{"from"}, std::nullopt,
                               samplePayload());
        KestTest::CaptureStdout output;
        EXPECT_NO_THROW(message.copyFromMetaData(tree));
        // The tree holds no member: the payload is empty, the scalar fields
        // reset, the set sender keeps its value and says so.
        EXPECT_TRUE(sameTree(message.tree(), Element(Object{}))) << describeTree(message.tree());
        EXPECT_EQ(message.id(), Identifier(0));
        EXPECT_FALSE(message.identity.initialized());
        ASSERT_TRUE(message.sender.initialized());
        EXPECT_EQ(message.sender.values(), std::vector<std::string>{"from"});
        EXPECT_EQ(output.lines(), (std::vector<std::string>{
                                      "Exception MetaDat::ReflectorArray MetaData Array corrupt for Sender",
                                      "Exception MetaDat::ReflectorArray MetaData Array corrupt for Destination"}));
    }
}

TEST(GenericMessage, CopyFromAnEmptyTreeReadsEveryFieldAsMissing) {
    GenericMessage message(Identifier(1), std::vector<std::string>{"from"}, std::nullopt, samplePayload());
    KestTest::CaptureStdout output;
    message.copyFromMetaData(Element());
    EXPECT_TRUE(sameTree(message.tree(), Element(Object{})));
    EXPECT_FALSE(message.sender.initialized());
    EXPECT_FALSE(message.identity.initialized());
    EXPECT_EQ(output.text(), "");
}

}  // namespace
