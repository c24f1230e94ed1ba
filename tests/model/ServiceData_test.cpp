#include <kest/metadata/Element.h>
#include <kest/model/Forwarder.h>
#include <kest/model/MessageKey.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using Kest::MetaData::Element;
using Kest::MetaData::HasElement;
using Kest::MetaData::MirroredObject;
using Kest::MetaData::ReflectorBase;
using Kest::Msgs::Identifier;
using Kest::Msgs::MessageKey;
using Kest::Msgs::Communications::Forwarder::ServiceData;
using KestTest::Address;

std::vector<const ReflectorBase*> fieldsOf(const MirroredObject& record) {
    std::vector<const ReflectorBase*> fields;
    record.forEachField([&](const ReflectorBase& f) { fields.push_back(&f); });
    return fields;
}

// Every field of `data`, and of the key record inside it, is registered with
// its own record.
void expectFieldsBelongTo(const ServiceData& data) {
    auto fields = fieldsOf(data);
    ASSERT_EQ(fields.size(), 3U);
    EXPECT_EQ(fields[0], &data.key);
    EXPECT_EQ(fields[1], &data.count);
    EXPECT_EQ(fields[2], &data.rank);
    for (const ReflectorBase* f : fields) EXPECT_EQ(f->parent(), &data);

    const auto& key = data.key();
    auto keyFields = fieldsOf(key);
    ASSERT_EQ(keyFields.size(), 3U);
    for (const ReflectorBase* f : keyFields) EXPECT_EQ(f->parent(), &key);
}

void expectEqual(const ServiceData& a, const ServiceData& b) {
    ASSERT_EQ(a.key.initialized(), b.key.initialized());
    ASSERT_EQ(a.count.initialized(), b.count.initialized());
    ASSERT_EQ(a.rank.initialized(), b.rank.initialized());
    if (a.key.initialized()) {
        EXPECT_EQ(a.key().id.initialized(), b.key().id.initialized());
        EXPECT_EQ(static_cast<unsigned long>(a.key().id()), static_cast<unsigned long>(b.key().id()));
        EXPECT_EQ(a.key().sender.initialized(), b.key().sender.initialized());
        EXPECT_EQ(a.key().sender(), b.key().sender());
        EXPECT_EQ(a.key().destination.initialized(), b.key().destination.initialized());
        EXPECT_EQ(a.key().destination(), b.key().destination());
    }
    if (a.count.initialized()) {
        EXPECT_EQ(a.count(), b.count());
    }
    if (a.rank.initialized()) {
        EXPECT_EQ(a.rank(), b.rank());
    }
}

TEST(ServiceData, DefaultHasEveryFieldUnset) {
    ServiceData data;
    EXPECT_FALSE(data.key.initialized());
    EXPECT_FALSE(data.count.initialized());
    EXPECT_FALSE(data.rank.initialized());
    EXPECT_TRUE(data.key.isRequired());
}

TEST(ServiceData, ConstructorFromKeyConvertsTheKey) {
    ServiceData data(MessageKey(Identifier(2, 3), {"s"}, {"d1", "d2"}, {}), 1, 40);
    EXPECT_EQ(static_cast<unsigned long>(data.key().id()), static_cast<unsigned long>(Identifier(2, 3)));
    EXPECT_EQ(data.key().sender(), Address{"s"});
    EXPECT_EQ(data.key().destination(), (Address{"d1", "d2"}));
    EXPECT_EQ(data.count(), 1U);
    EXPECT_EQ(data.rank(), 40U);
    expectFieldsBelongTo(data);
}

TEST(ServiceData, FieldsAreNamedKeyCountRankInTree) {
    ServiceData data(MessageKey(1, {}, {"d"}, {}), 1, 0);
    Element tree;
    data.copyToMetaData(tree);
    ASSERT_TRUE(HasElement(tree, "Key"));
    EXPECT_TRUE(HasElement(tree, "Count"));
    EXPECT_TRUE(HasElement(tree, "Rank"));
    const Element& key = static_cast<const Element&>(tree)["Key"];
    EXPECT_EQ(key.GetElementType(), Element::ObjectType);
    EXPECT_TRUE(HasElement(key, "Id"));
    EXPECT_TRUE(HasElement(key, "Sender"));
    EXPECT_TRUE(HasElement(key, "Destination"));
}

TEST(ServiceData, CopiedThroughTreeAndBackEqualsTheOriginal) {
    ServiceData original(MessageKey(Identifier(0x0F0D, 5), {"a", "b"}, {"c"}, {}), 1, 0xFFFFFFFFFFFFFFFFUL);
    Element tree;
    original.copyToMetaData(tree);
    ServiceData back;
    back.copyFromMetaData(tree);
    expectEqual(original, back);
    EXPECT_EQ(back.rank(), 0xFFFFFFFFFFFFFFFFUL);
}

TEST(ServiceData, PartlySetRecordCopiedThroughTreeKeepsWhichFieldsAreSet) {
    ServiceData original;
    original.rank.assign(3);
    Kest::Msgs::Structs::MessageKeyData key;
    key.sender.assign(Address{"only", "sender"});
    original.key.assign(key);
    Element tree;
    original.copyToMetaData(tree);
    ServiceData back(MessageKey(9, {"x"}, {"y"}, {}), 9, 9);
    back.copyFromMetaData(tree);
    expectEqual(original, back);
    EXPECT_FALSE(back.count.initialized());
    EXPECT_FALSE(back.key().destination.initialized());
}

TEST(ServiceData, CopyHasItsFieldsRegisteredWithTheCopy) {
    auto original = std::make_unique<ServiceData>(MessageKey(7, {"s"}, {"d"}, {}), 1, 2);
    ServiceData copy(*original);
    expectFieldsBelongTo(copy);
    expectFieldsBelongTo(*original);

    original.reset();
    Element tree;
    copy.copyToMetaData(tree);
    ServiceData back;
    back.copyFromMetaData(tree);
    EXPECT_EQ(static_cast<unsigned long>(back.key().id()), 7UL);
    EXPECT_EQ(back.key().sender(), Address{"s"});
    EXPECT_EQ(back.key().destination(), Address{"d"});
    EXPECT_EQ(back.count(), 1U);
    EXPECT_EQ(back.rank(), 2U);
}

TEST(ServiceData, CopyWritesItsOwnValuesAfterTheOriginalChanges) {
    ServiceData original(MessageKey(7, {"s"}, {"d"}, {}), 1, 2);
    ServiceData copy(original);
    original.rank.assign(99);
    original.key.assign(Kest::Msgs::Structs::MessageKeyData(Identifier(8), {"other"}, {}));

    Element tree;
    copy.copyToMetaData(tree);
    ServiceData back;
    back.copyFromMetaData(tree);
    EXPECT_EQ(back.rank(), 2U);
    EXPECT_EQ(static_cast<unsigned long>(back.key().id()), 7UL);
    EXPECT_EQ(back.key().sender(), Address{"s"});
}

TEST(ServiceData, AssignedRecordKeepsItsFieldsRegisteredWithItself) {
    auto source = std::make_unique<ServiceData>(MessageKey(7, {"s"}, {"d"}, {}), 1, 2);
    ServiceData target;
    target = *source;
    source.reset();
    expectFieldsBelongTo(target);
    Element tree;
    target.copyToMetaData(tree);
    ServiceData back;
    back.copyFromMetaData(tree);
    EXPECT_EQ(back.key().sender(), Address{"s"});
    EXPECT_EQ(back.rank(), 2U);
}

}  // namespace
