#include <kest/metadata/Element.h>
#include <kest/model/Forwarder.h>
#include <kest/model/MessageKeyData.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::HasElement;
using Kest::MetaData::MirroredObject;
using Kest::MetaData::Reflector;
using Kest::MetaData::ReflectorBase;
using Kest::Msgs::Identifier;
using Kest::Msgs::Communications::Forwarder::ServiceData;
using Kest::Msgs::Structs::MessageKeyData;
using KestTest::Address;

std::vector<const ReflectorBase*> fieldsOf(const MirroredObject& record) {
    std::vector<const ReflectorBase*> fields;
    record.forEachField([&](const ReflectorBase& f) { fields.push_back(&f); });
    return fields;
}

void expectFieldsBelongTo(const MessageKeyData& key) {
    auto fields = fieldsOf(key);
    ASSERT_EQ(fields.size(), 3U);
    EXPECT_EQ(fields[0], &key.id);
    EXPECT_EQ(fields[1], &key.sender);
    EXPECT_EQ(fields[2], &key.destination);
    for (const ReflectorBase* f : fields) EXPECT_EQ(f->parent(), &key);
}

TEST(MessageKeyData, DefaultHasUnsetRequiredIdentifierAndUnsetAddresses) {
    MessageKeyData key;
    EXPECT_TRUE(key.id.isRequired());
    EXPECT_FALSE(key.id.initialized());
    EXPECT_FALSE(key.sender.initialized());
    EXPECT_FALSE(key.destination.initialized());
    expectFieldsBelongTo(key);
}

TEST(MessageKeyData, ConstructorFromPartsSetsEveryField) {
    MessageKeyData key(Identifier(1, 2), {"s"}, {});
    EXPECT_EQ(static_cast<unsigned long>(key.id()), static_cast<unsigned long>(Identifier(1, 2)));
    EXPECT_TRUE(key.sender.initialized());
    EXPECT_TRUE(key.destination.initialized());
    EXPECT_EQ(key.sender(), Address{"s"});
    EXPECT_TRUE(key.destination().empty());
}

TEST(MessageKeyData, FieldsAreNamedIdSenderDestinationInTree) {
    MessageKeyData key(Identifier(0, 7), {"s"}, {"d"});
    Element tree;
    key.copyToMetaData(tree);
    EXPECT_TRUE(HasElement(tree, "Id"));
    EXPECT_TRUE(HasElement(tree, "Sender"));
    EXPECT_TRUE(HasElement(tree, "Destination"));
    unsigned long id = 0;
    GetAs<unsigned long>(static_cast<const Element&>(tree)["Id"], id);
    EXPECT_EQ(id, 7U);
}

TEST(MessageKeyData, CopyingKeyWithUnsetIdentifierIntoRequiredFieldYieldsInitialisedZero) {
    MessageKeyData source;  // identifier unset
    source.sender.assign(Address{"a"});
    MessageKeyData target(Identifier(9, 9), {"x"}, {"y"});
    ASSERT_TRUE(target.id.isRequired());
    target = source;
    EXPECT_TRUE(target.id.initialized());
    EXPECT_EQ(static_cast<unsigned long>(target.id()), 0UL);
    EXPECT_EQ(target.sender(), Address{"a"});
}

TEST(MessageKeyData, CopyingKeyWithUnsetIdentifierIntoOptionalFieldLeavesItUnset) {
    // Field assignment carries the required flag, so this makes the target's
    // identifier optional.
    Reflector<Identifier, false, true> optionalId(nullptr, "Id", false);
    MessageKeyData target(Identifier(9, 9), {"x"}, {"y"});
    target.id = optionalId;
    target.id.assign(Identifier(9, 9));
    ASSERT_FALSE(target.id.isRequired());

    MessageKeyData source;
    target = source;
    EXPECT_FALSE(target.id.initialized());
    target.id.init();
    EXPECT_EQ(static_cast<unsigned long>(target.id()), 0UL);
}

TEST(MessageKeyData, CopyingKeyWithSetIdentifierCopiesItByValue) {
    MessageKeyData source(Identifier(4, 5), {"s"}, {"d"});
    MessageKeyData target;
    target = source;
    EXPECT_TRUE(target.id.initialized());
    EXPECT_EQ(target.id().category(), 4);
    EXPECT_EQ(target.id().type(), 5);
}

TEST(MessageKeyData, AssignmentCopiesAddressesWhole) {
    MessageKeyData source;
    source.id.assign(Identifier(1));
    source.sender.assign(Address{"p", "q"});
    // source.destination stays unset
    MessageKeyData target(Identifier(2), {"old"}, {"stale", "dest"});
    target = source;
    EXPECT_TRUE(target.sender.initialized());
    EXPECT_EQ(target.sender(), (Address{"p", "q"}));
    EXPECT_FALSE(target.destination.initialized());
    EXPECT_TRUE(target.destination().empty());
    expectFieldsBelongTo(target);
}

TEST(MessageKeyData, AssigningIntoRecordFieldMarksThatFieldInitialised) {
    ServiceData data;
    ASSERT_FALSE(data.key.initialized());
    MessageKeyData unsetId;
    data.key.assign(unsetId);
    EXPECT_TRUE(data.key.initialized());
    EXPECT_TRUE(data.key().id.initialized());
    EXPECT_EQ(static_cast<unsigned long>(data.key().id()), 0UL);
    expectFieldsBelongTo(data.key());
}

TEST(MessageKeyData, CopyHasItsFieldsRegisteredWithTheCopy) {
    auto original = std::make_unique<MessageKeyData>(Identifier(3, 1), Address{"s1", "s2"}, Address{"d"});
    MessageKeyData copy(*original);
    expectFieldsBelongTo(copy);
    expectFieldsBelongTo(*original);

    original.reset();
    Element tree;
    copy.copyToMetaData(tree);
    MessageKeyData back;
    back.copyFromMetaData(tree);
    EXPECT_EQ(static_cast<unsigned long>(back.id()), static_cast<unsigned long>(Identifier(3, 1)));
    EXPECT_EQ(back.sender(), (Address{"s1", "s2"}));
    EXPECT_EQ(back.destination(), Address{"d"});
}

TEST(MessageKeyData, CopyWritesItsOwnValuesNotTheOriginals) {
    MessageKeyData original(Identifier(3, 1), {"s"}, {"d"});
    MessageKeyData copy(original);
    original.sender.assign(Address{"changed"});
    original.id.assign(Identifier(8, 8));
    copy.destination.assign(Address{"copy"});

    Element tree;
    copy.copyToMetaData(tree);
    MessageKeyData back;
    back.copyFromMetaData(tree);
    EXPECT_EQ(back.id().type(), 1);
    EXPECT_EQ(back.sender(), Address{"s"});
    EXPECT_EQ(back.destination(), Address{"copy"});
}

TEST(MessageKeyData, CopyKeepsInitialisedFlags) {
    MessageKeyData original;
    original.sender.assign(Address{});
    MessageKeyData copy(original);
    EXPECT_FALSE(copy.id.initialized());
    EXPECT_TRUE(copy.sender.initialized());
    EXPECT_FALSE(copy.destination.initialized());
}

TEST(MessageKeyData, RoundTripThroughTreeKeepsEveryField) {
    MessageKeyData key(Identifier(65535, 0), {"plant", "line"}, {});
    Element tree;
    key.copyToMetaData(tree);
    MessageKeyData back;
    back.copyFromMetaData(tree);
    EXPECT_EQ(static_cast<unsigned long>(back.id()), static_cast<unsigned long>(key.id()));
    EXPECT_EQ(back.sender(), key.sender());
    EXPECT_TRUE(back.destination.initialized());
    EXPECT_TRUE(back.destination().empty());
}

}  // namespace
