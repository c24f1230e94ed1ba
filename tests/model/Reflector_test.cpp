#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Forwarder.h>
#include <kest/model/Identifier.h>
#include <kest/model/MessageKey.h>
#include <kest/model/MessageKeyData.h>
#include <kest/model/Reflector.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::HasElement;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::MirroredObject;
using Kest::MetaData::Reflector;
using Kest::MetaData::ReflectorBase;
using Kest::MetaData::ReflectorNoWriteParend;
using Kest::MetaData::SetAs;
using Kest::Msgs::Identifier;
using Kest::Msgs::Communications::Forwarder::ServiceData;
using Kest::Msgs::Structs::MessageKeyData;
using KestTest::CaptureStdout;

static_assert(std::is_base_of_v<ReflectorNoWriteParend<unsigned long, true>,
                                Reflector<unsigned long, false, true>>);
static_assert(std::is_base_of_v<ReflectorBase, ReflectorNoWriteParend<unsigned long, true>>);
static_assert(std::is_base_of_v<MirroredObject, MessageKeyData>);
static_assert(std::is_base_of_v<MirroredObject, ServiceData>);
// Fields are rebound to their record when it is copied; a plain field copy would not be.
static_assert(!std::is_copy_constructible_v<Reflector<unsigned long, false, true>>);

// A record with one field of each scalar kind.
class Scalars : public MirroredObject {
public:
    Reflector<unsigned long, false, true> count{this, "Count", false};
    Reflector<Identifier, false, true> id{this, "Id", true};
    Reflector<std::string, false, true> text{this, "Text", false};
};

void fill(Scalars& s) {
    s.count.assign(7);
    s.id.assign(Identifier(3, 4));
    s.text.assign("seven");
}

std::string readErrorText(const Reflector<unsigned long, false, true>& field) {
    try {
        (void)field();
    } catch (const MetaDataException& e) {
        return e.what();
    }
    return "";
}

TEST(Reflector, AssignStoresValueAndMarksInitialised) {
    Scalars s;
    EXPECT_FALSE(s.count.initialized());
    s.count.assign(12);
    EXPECT_TRUE(s.count.initialized());
    EXPECT_EQ(s.count(), 12U);
}

TEST(Reflector, ResetStoresDefaultAndMarksUninitialised) {
    Scalars s;
    fill(s);
    s.count.reset();
    s.id.reset();
    s.text.reset();
    EXPECT_FALSE(s.count.initialized());
    EXPECT_FALSE(s.id.initialized());
    EXPECT_FALSE(s.text.initialized());
    s.count.init();
    s.id.init();
    s.text.init();
    EXPECT_EQ(s.count(), 0U);
    EXPECT_EQ(static_cast<unsigned long>(s.id()), 0UL);
    EXPECT_EQ(s.text(), "");
}

TEST(Reflector, ReadingUnsetFieldThrowsNamingTheReflectorOperator) {
    Scalars s;
    EXPECT_THROW((void)s.count(), MetaDataException);
    EXPECT_THROW((void)s.id(), MetaDataException);
    EXPECT_THROW((void)s.text(), MetaDataException);
    EXPECT_NE(readErrorText(s.count).find("Kest::MetaData::Reflector::operator()()"), std::string::npos)
        << readErrorText(s.count);
}

TEST(Reflector, ReadingUnsetRecordFieldThrows) {
    ServiceData data;
    EXPECT_THROW((void)data.key(), MetaDataException);
    try {
        (void)data.key();
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("Kest::MetaData::Reflector::operator()()"), std::string::npos);
    }
}

TEST(Reflector, CopyToMetaDataOfUnsetFieldLeavesTreeWithoutThatName) {
    Scalars s;
    Element tree;
    s.count.copyToMetaData(tree);
    EXPECT_EQ(tree.GetElementType(), Element::EmptyType);

    s.text.assign("x");
    s.copyToMetaData(tree);
    EXPECT_TRUE(HasElement(tree, "Text"));
    EXPECT_FALSE(HasElement(tree, "Count"));
    EXPECT_FALSE(HasElement(tree, "Id"));
}

TEST(Reflector, CopyToMetaDataOfUnsetRecordFieldLeavesTreeWithoutThatName) {
    ServiceData data;
    data.count.assign(1);
    Element tree;
    data.copyToMetaData(tree);
    EXPECT_FALSE(HasElement(tree, "Key"));
    EXPECT_FALSE(HasElement(tree, "Rank"));
    EXPECT_TRUE(HasElement(tree, "Count"));
}

TEST(Reflector, CopyToMetaDataWritesNumbersIdentifiersAndStringsUnderTheirNames) {
    Scalars s;
    fill(s);
    Element tree;
    s.copyToMetaData(tree);
    const Element& t = tree;
    ASSERT_EQ(t["Count"].GetElementType(), Element::NumberType);
    ASSERT_EQ(t["Id"].GetElementType(), Element::NumberType);
    ASSERT_EQ(t["Text"].GetElementType(), Element::StringType);
    unsigned long count = 0;
    unsigned long id = 0;
    std::string text;
    GetAs(t["Count"], count);
    GetAs(t["Id"], id);
    GetAs(t["Text"], text);
    EXPECT_EQ(count, 7U);
    EXPECT_EQ(id, static_cast<unsigned long>(Identifier(3, 4)));
    EXPECT_EQ(text, "seven");
}

TEST(Reflector, CopyToMetaDataOverwritesElementOfAnotherKind) {
    Scalars s;
    s.count.assign(9);
    Element tree;
    SetAs<std::string>("old", tree["Count"]);
    s.copyToMetaData(tree);
    unsigned long count = 0;
    GetAs(static_cast<const Element&>(tree)["Count"], count);
    EXPECT_EQ(count, 9U);
}

TEST(Reflector, ScalarFieldsRoundTripThroughTree) {
    Scalars s;
    fill(s);
    Element tree;
    s.copyToMetaData(tree);
    Scalars r;
    r.copyFromMetaData(tree);
    EXPECT_EQ(r.count(), 7U);
    EXPECT_EQ(r.id().category(), 3);
    EXPECT_EQ(r.id().type(), 4);
    EXPECT_EQ(r.text(), "seven");
}

TEST(Reflector, NumericFieldWithMissingElementBecomesZeroAndUninitialisedSilently) {
    Scalars s;
    fill(s);
    Element tree;
    SetAs<std::string>("x", tree["Unrelated"]);
    CaptureStdout capture;
    s.copyFromMetaData(tree);
    EXPECT_EQ(capture.text(), "");
    EXPECT_FALSE(s.count.initialized());
    s.count.init();
    EXPECT_EQ(s.count(), 0U);
}

TEST(Reflector, NumericFieldWithWrongKindElementBecomesZeroAndUninitialisedSilently) {
    Element wrongKinds[4];
    SetAs<std::string>("7", wrongKinds[0]);
    wrongKinds[1]["inner"];
    static_cast<Array&>(wrongKinds[2]).resize(1);
    // wrongKinds[3] stays empty.
    for (const Element& wrong : wrongKinds) {
        Scalars s;
        fill(s);
        Element tree;
        tree["Count"] = wrong;
        CaptureStdout capture;
        s.count.copyFromMetaData(tree);
        EXPECT_EQ(capture.text(), "");
        EXPECT_FALSE(s.count.initialized()) << "element type " << wrong.GetElementType();
        s.count.init();
        EXPECT_EQ(s.count(), 0U) << "element type " << wrong.GetElementType();
    }
}

TEST(Reflector, FieldReadFromTreeThatIsNotAnObjectIsReset) {
    Scalars s;
    fill(s);
    Element tree;
    SetAs<unsigned long>(5, tree);
    CaptureStdout capture;
    s.copyFromMetaData(tree);
    EXPECT_EQ(capture.text(), "");
    EXPECT_FALSE(s.count.initialized());
    EXPECT_FALSE(s.id.initialized());
    EXPECT_FALSE(s.text.initialized());
}

TEST(Reflector, IdentifierFieldWithWrongKindElementBecomesIdentifierZeroAndUninitialised) {
    Scalars s;
    fill(s);
    Element tree;
    SetAs<std::string>("3:4", tree["Id"]);
    s.id.copyFromMetaData(tree);
    EXPECT_FALSE(s.id.initialized());
    s.id.init();
    EXPECT_EQ(static_cast<unsigned long>(s.id()), 0UL);
}

TEST(Reflector, StringFieldWithWrongKindElementBecomesEmptyAndUninitialised) {
    Scalars s;
    fill(s);
    Element tree;
    SetAs<unsigned long>(1, tree["Text"]);
    s.text.copyFromMetaData(tree);
    EXPECT_FALSE(s.text.initialized());
    s.text.init();
    EXPECT_EQ(s.text(), "");
}

TEST(Reflector, RecordFieldWithMissingElementFallsBackToDefaultRecord) {
    ServiceData data(Kest::Msgs::MessageKey(5, {"a"}, {"b"}, {}), 1, 2);
    Element tree;
    SetAs<unsigned long>(3, tree["Count"]);
    CaptureStdout capture;
    data.copyFromMetaData(tree);
    EXPECT_EQ(capture.text(), "");
    EXPECT_FALSE(data.key.initialized());
    EXPECT_FALSE(data.rank.initialized());
    EXPECT_EQ(data.count(), 3U);
    data.key.init();
    const MessageKeyData& key = data.key();
    // The default record is stored by record assignment, which gives a
    // required identifier the value 0.
    EXPECT_EQ(static_cast<unsigned long>(key.id()), 0UL);
    EXPECT_FALSE(key.sender.initialized());
    EXPECT_FALSE(key.destination.initialized());
    EXPECT_TRUE(key.sender().empty());
    EXPECT_TRUE(key.destination().empty());
}

TEST(Reflector, RecordFieldWithWrongKindElementReadsEachOfItsFieldsFromIt) {
    ServiceData data(Kest::Msgs::MessageKey(5, {"a"}, {"b"}, {}), 1, 2);
    Element tree;
    data.copyToMetaData(tree);
    SetAs<unsigned long>(17, tree["Key"]);
    CaptureStdout capture;
    EXPECT_NO_THROW(data.copyFromMetaData(tree));
    // Reading a record never throws, so the record field reads its fields
    // from the number and stays set: the identifier finds no element and is
    // reset, each address finds no field and keeps its value, with one line.
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{
                  "Exception MetaDat::ReflectorArray MetaData Array corrupt for Sender",
                  "Exception MetaDat::ReflectorArray MetaData Array corrupt for Destination"}));
    ASSERT_TRUE(data.key.initialized());
    EXPECT_FALSE(data.key().id.initialized());
    EXPECT_TRUE(data.key().sender.initialized());
    EXPECT_EQ(data.key().sender(), std::vector<std::string>{"a"});
    EXPECT_TRUE(data.key().destination.initialized());
    EXPECT_EQ(data.key().destination(), std::vector<std::string>{"b"});
    EXPECT_EQ(data.count(), 1U);
    EXPECT_EQ(data.rank(), 2U);
}

TEST(Reflector, RecordFieldWithEmptyElementReadsItAsAnEmptyRecord) {
    ServiceData data(Kest::Msgs::MessageKey(5, {"a"}, {"b"}, {}), 1, 2);
    Element tree;
    data.copyToMetaData(tree);
    tree["Key"] = Element();
    CaptureStdout capture;
    EXPECT_NO_THROW(data.copyFromMetaData(tree));
    EXPECT_EQ(capture.text(), "");
    ASSERT_TRUE(data.key.initialized());
    EXPECT_FALSE(data.key().id.initialized());
    EXPECT_FALSE(data.key().sender.initialized());
    EXPECT_TRUE(data.key().sender().empty());
    EXPECT_FALSE(data.key().destination.initialized());
    EXPECT_TRUE(data.key().destination().empty());
}

// copyFromMetaData hands the tree to the virtual assign(const Element&).
class CountingField : public Reflector<unsigned long, false, true> {
public:
    using Reflector::Reflector;
    using Reflector::assign;
    void assign(const Element& tree) override {
        ++treeAssignments;
        Reflector::assign(tree);
    }
    int treeAssignments = 0;
};

TEST(Reflector, CopyFromMetaDataCallsTheVirtualAssignFromTree) {
    CountingField field(nullptr, "N", false);
    Element tree;
    SetAs<unsigned long>(4, tree["N"]);
    static_cast<Kest::MetaData::PartiallySerializableInterface&>(field).copyFromMetaData(tree);
    EXPECT_EQ(field.treeAssignments, 1);
    EXPECT_EQ(field(), 4U);
}

}  // namespace
