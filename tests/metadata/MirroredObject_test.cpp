#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::HasElement;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::MirroredObject;
using Kest::MetaData::ReflectorBase;
using Kest::MetaData::SetAs;

// A minimal field: one number, written under its name when set, and a log of
// the order in which fields were visited.
class NumberField : public ReflectorBase {
public:
    NumberField(MirroredObject* parent, std::string name, bool required,
                std::vector<std::string>* log = nullptr)
        : ReflectorBase(parent, std::move(name), required), log_(log) {}
    NumberField(MirroredObject* parent, const NumberField& other)
        : ReflectorBase(parent, other), value(other.value), log_(other.log_) {}
    NumberField& operator=(const NumberField& other) {
        ReflectorBase::operator=(other);
        value = other.value;
        return *this;
    }

    void copyToMetaData(Element& tree) const override {
        if (log_ != nullptr) log_->push_back("to " + name());
        if (initialized()) SetAs<unsigned long>(value, tree[name()]);
    }
    void copyFromMetaData(const Element& tree) override {
        if (log_ != nullptr) log_->push_back("from " + name());
        try {
            GetAs<unsigned long>(tree[name()], value);
            init();
        } catch (const MetaDataException&) {
            value = 0;
            uninit();
        }
    }

    unsigned long value = 0;

private:
    std::vector<std::string>* log_;
};

class Pair : public MirroredObject {
public:
    explicit Pair(std::vector<std::string>* log = nullptr)
        : second(this, "Second", false, log), first(this, "First", true, log) {}
    Pair(const Pair& other) : MirroredObject(other), second(this, other.second), first(this, other.first) {}

    // Declared in this order on purpose: the tree is ordered by name, the
    // fields by declaration.
    NumberField second;
    NumberField first;
};

std::vector<const ReflectorBase*> fieldsOf(const MirroredObject& record) {
    std::vector<const ReflectorBase*> fields;
    record.forEachField([&](const ReflectorBase& f) { fields.push_back(&f); });
    return fields;
}

TEST(ReflectorBase, KeepsNameRequiredFlagAndStartsUninitialised) {
    Pair p;
    EXPECT_EQ(p.first.name(), "First");
    EXPECT_TRUE(p.first.isRequired());
    EXPECT_FALSE(p.second.isRequired());
    EXPECT_FALSE(p.first.initialized());
    EXPECT_EQ(p.first.parent(), &p);
}

TEST(ReflectorBase, InitAndUninitSwitchTheInitialisedFlag) {
    NumberField f(nullptr, "F", false);
    f.init();
    EXPECT_TRUE(f.initialized());
    f.uninit();
    EXPECT_FALSE(f.initialized());
}

TEST(ReflectorBase, ThrowIfUninitedThrowsMetaDataExceptionNamingWhere) {
    NumberField f(nullptr, "Count", true);
    try {
        f.throwIfUninited("SomeClass::someOperation()");
        FAIL() << "no exception for an unset field";
    } catch (const MetaDataException& e) {
        EXPECT_NE(std::string(e.what()).find("SomeClass::someOperation()"), std::string::npos)
            << e.what();
    }
}

TEST(ReflectorBase, ThrowIfUninitedIsSilentForInitialisedField) {
    NumberField f(nullptr, "Count", true);
    f.init();
    EXPECT_NO_THROW(f.throwIfUninited("where"));
}

TEST(ReflectorBase, AssignmentCopiesStateButKeepsItsRecord) {
    Pair a;
    Pair b;
    a.first.value = 3;
    a.first.init();
    b.second = a.first;
    EXPECT_EQ(b.second.name(), "First");
    EXPECT_TRUE(b.second.isRequired());
    EXPECT_TRUE(b.second.initialized());
    EXPECT_EQ(b.second.value, 3U);
    EXPECT_EQ(b.second.parent(), &b);
    EXPECT_EQ(fieldsOf(b).size(), 2U);
    EXPECT_EQ(fieldsOf(a).size(), 2U);
}

TEST(MirroredObject, KnowsItsFieldsInDeclarationOrder) {
    Pair p;
    auto fields = fieldsOf(p);
    ASSERT_EQ(fields.size(), 2U);
    EXPECT_EQ(fields[0], &p.second);
    EXPECT_EQ(fields[1], &p.first);
}

TEST(MirroredObject, CopiesFieldsToAndFromTreeInDeclarationOrder) {
    std::vector<std::string> log;
    Pair p(&log);
    Element tree;
    p.copyToMetaData(tree);
    p.copyFromMetaData(tree);
    EXPECT_EQ(log, (std::vector<std::string>{"to Second", "to First", "from Second", "from First"}));
}

TEST(MirroredObject, WritesOnlyInitialisedFields) {
    Pair p;
    p.first.value = 11;
    p.first.init();
    p.second.value = 22;  // not initialised
    Element tree;
    p.copyToMetaData(tree);
    EXPECT_TRUE(HasElement(tree, "First"));
    EXPECT_FALSE(HasElement(tree, "Second"));
}

TEST(MirroredObject, RoundTripThroughTreeKeepsValues) {
    Pair p;
    p.first.value = 11;
    p.first.init();
    p.second.value = 22;
    p.second.init();
    Element tree;
    p.copyToMetaData(tree);

    Pair q;
    q.copyFromMetaData(tree);
    EXPECT_TRUE(q.first.initialized());
    EXPECT_TRUE(q.second.initialized());
    EXPECT_EQ(q.first.value, 11U);
    EXPECT_EQ(q.second.value, 22U);
}

TEST(MirroredObject, CopyRegistersFieldsWithTheCopy) {
    auto original = std::make_unique<Pair>();
    original->first.value = 5;
    original->first.init();
    Pair copy(*original);

    auto fields = fieldsOf(copy);
    ASSERT_EQ(fields.size(), 2U);
    EXPECT_EQ(fields[0], &copy.second);
    EXPECT_EQ(fields[1], &copy.first);
    copy.forEachField([&](const ReflectorBase& f) { EXPECT_EQ(f.parent(), &copy); });
    EXPECT_EQ(fieldsOf(*original).size(), 2U);

    // The copy writes its own values, after the original is gone.
    original.reset();
    copy.first.value = 6;
    Element tree;
    copy.copyToMetaData(tree);
    unsigned long value = 0;
    GetAs<unsigned long>(static_cast<const Element&>(tree)["First"], value);
    EXPECT_EQ(value, 6U);
    EXPECT_FALSE(HasElement(tree, "Second"));
}

TEST(MirroredObject, DestroyedFieldLeavesTheRecordsFieldList) {
    Pair p;
    {
        NumberField extra(&p, "Extra", false);
        EXPECT_EQ(fieldsOf(p).size(), 3U);
        EXPECT_EQ(fieldsOf(p).back(), &extra);
    }
    auto fields = fieldsOf(p);
    ASSERT_EQ(fields.size(), 2U);
    EXPECT_EQ(fields[0], &p.second);
    EXPECT_EQ(fields[1], &p.first);
    // A new field goes to the end again.
    NumberField later(&p, "Later", false);
    EXPECT_EQ(fieldsOf(p).back(), &later);
}

TEST(MirroredObject, FieldOutlivingItsRecordNoLongerPointsAtIt) {
    auto record = std::make_unique<MirroredObject>();
    NumberField field(record.get(), "F", false);
    EXPECT_EQ(field.parent(), record.get());
    record.reset();
    EXPECT_EQ(field.parent(), nullptr);
}

}  // namespace
