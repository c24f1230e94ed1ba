// The metadata tree and the reflector base when memory runs out: every
// operation of Element, Array, Object, the free GetAs, SetAs and HasElement,
// MetaDataException and ReflectorBase. Every operation that allocates gives
// the strong guarantee (after a failure the tree is equal, by value, to what
// it was), and the others allocate nothing.

#include "AllocHarness.h"
#include "Describe.h"

#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>

using namespace KestAlloc;
using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::HasElement;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::Object;
using Kest::MetaData::SetAs;

namespace {

// Long enough that every copy of it needs the heap.
const std::string kLong = "a text well beyond the inline buffer of a std::string";
const std::string kLongName = "a-member-name-beyond-the-inline-buffer";

// An object holding every kind of element, nested, with long strings.
Element sampleTree() {
    Element tree;
    tree["text"] = Element(kLong);
    tree["unsigned"] = Element(7ul);
    tree["signed"] = Element(-3);
    tree["float"] = Element(0.25);
    tree["flag"] = Element(true);
    tree["nothing"] = Element();
    Array& list = tree["list"];
    list.push_back(Element(kLong));
    list.push_back(Element(5u));
    Element inner;
    inner[kLongName] = Element(kLong);
    list.push_back(inner);
    tree[kLongName]["deeper"]["deepest"] = Element(kLong);
    return tree;
}

// A tree, a second one, and what an operation made, read or threw.
struct Trees {
    Element tree = sampleTree();
    Element other;
    Object object = static_cast<const Object&>(static_cast<const Element&>(tree));
    std::optional<Element> made;
    std::string text = "short";
    std::string thrown;
    std::string name = kLongName;
    std::string newName = kLongName + "-new";
    std::string missing = kLongName + "-missing";
    std::string existing = "text";
    unsigned long number = 0;
};

std::string describeTrees(Trees& s) {
    return "tree " + describe(s.tree) + " other " + describe(s.other) + " object " + describe(Element(s.object)) +
           " made " +
           (s.made ? describe(*s.made) : std::string("nothing")) + " text " + s.text + " thrown " + s.thrown +
           " number " + std::to_string(s.number);
}

std::shared_ptr<Trees> trees() { return std::make_shared<Trees>(); }

std::shared_ptr<Trees> otherIsAScalar() {
    auto s = trees();
    s->other = Element(12ul);
    return s;
}

std::shared_ptr<Trees> otherIsEmpty() { return trees(); }

std::shared_ptr<Trees> otherIsAnArray() {
    auto s = trees();
    static_cast<Array&>(s->other).push_back(Element(kLong));
    return s;
}

std::shared_ptr<Trees> otherIsAString() {
    auto s = trees();
    s->other = Element(kLong);
    return s;
}

// Runs `op`, noting a MetaDataException instead of letting it leave.
template <class Op>
auto noting(Op op) {
    return [op](Trees& s) {
        try {
            op(s);
        } catch (const MetaDataException&) {
            s.thrown = "MetaDataException";
        }
    };
}

template <class Op>
void strong(const std::string& name, Op op, std::shared_ptr<Trees> (*setup)() = trees) {
    coverStrong<Trees>(name, setup, op, describeTrees);
}

template <class Op>
void none(const std::string& name, Op op, std::shared_ptr<Trees> (*setup)() = trees) {
    coverNoAllocation<Trees>(name, setup, op);
}

// A field of a record, for ReflectorBase: its value is its name.
class NameField : public Kest::MetaData::ReflectorBase {
public:
    using ReflectorBase::ReflectorBase;
    void copyToMetaData(Element& tree) const override { SetAs<std::string>(name(), tree[name()]); }
    void copyFromMetaData(const Element&) override {}
};

class TwoFields : public Kest::MetaData::MirroredObject {
public:
    NameField first{this, kLongName, true};
    NameField second{this, "second", false};
};

struct Record {
    TwoFields record;
    std::optional<NameField> extra;  // registered with `record` once made
    NameField loose{nullptr, "loose", false};
    std::string thrown;
};

std::string describeRecordState(Record& s) {
    return describeRecord(s.record) + " loose " + describeField(s.loose) + " thrown " + s.thrown;
}

}  // namespace

class MetadataAllocation : public AllocTest {};

TEST_F(MetadataAllocation, ScalarConstructorsMovesAndQueriesAllocateNothing) {
    none("Element()", [](Trees& s) { s.made.emplace(); });
    none("Element(unsigned long)", [](Trees& s) { s.made.emplace(5ul); });
    none("Element(unsigned int)", [](Trees& s) { s.made.emplace(5u); });
    none("Element(long)", [](Trees& s) { s.made.emplace(-5l); });
    none("Element(int)", [](Trees& s) { s.made.emplace(-5); });
    none("Element(double)", [](Trees& s) { s.made.emplace(0.5); });
    none("Element(bool)", [](Trees& s) { s.made.emplace(true); });
    none("Element(Element&&)", [](Trees& s) { s.made.emplace(std::move(s.tree)); });
    none("Element::operator=(Element&&)", [](Trees& s) { s.other = std::move(s.tree); });
    none("Element::GetElementType", [](Trees& s) { s.number = s.tree.GetElementType(); });
    none("Element::operator[] of an existing member", [](Trees& s) { (void)s.tree[s.existing]; });
    none("Element::operator[] const of an existing member",
         [](Trees& s) { (void)static_cast<const Element&>(s.tree)[s.existing]; });
    none("Element::operator Array& of an array", [](Trees& s) { (void)static_cast<Array&>(s.other); },
         otherIsAnArray);
    none("Element::operator const Array& of an array",
         [](Trees& s) { (void)static_cast<const Array&>(static_cast<const Element&>(s.other)); }, otherIsAnArray);
    none("Element::operator const Object& of an object",
         [](Trees& s) { (void)static_cast<const Object&>(static_cast<const Element&>(s.tree)); });
    none("Element::operator const Object& of an empty element",
         [](Trees& s) { (void)static_cast<const Object&>(static_cast<const Element&>(s.other)); }, otherIsEmpty);
    none("HasElement", [](Trees& s) { s.number = HasElement(s.tree, s.name) + HasElement(s.other, s.name); });
    none("Array::operator[], size, begin, end", [](Trees& s) {
        Array& list = s.tree["list"];
        s.number = list.size() + (list.begin() != list.end()) + list[0].GetElementType();
    });
    none("Object::contains, size, begin, end", [](Trees& s) {
        const Object& object = s.tree;
        s.number = object.contains(s.name) + object.size() + (object.begin() != object.end());
    });
    none("Object::at of an existing member", [](Trees& s) {
        const Object& object = s.tree;
        s.number = object.at(s.existing).GetElementType();
    });
}

TEST_F(MetadataAllocation, GetAsAndSetAsOfNumbersAndBooleansAllocateNothing) {
    const auto numbers = [] {
        auto s = trees();
        s->other = Element(42ul);
        return s;
    };
    none("GetAs<unsigned long>", [](Trees& s) { GetAs<unsigned long>(s.other, s.number); }, numbers);
    none("GetAs<unsigned int>", [](Trees& s) { unsigned int v = 0; GetAs<unsigned int>(s.other, v); s.number = v; }, numbers);
    none("GetAs<long>", [](Trees& s) { long v = 0; GetAs<long>(s.other, v); s.number = static_cast<unsigned long>(v); }, numbers);
    none("GetAs<int>", [](Trees& s) { int v = 0; GetAs<int>(s.other, v); s.number = static_cast<unsigned long>(v); }, numbers);
    none("GetAs<double>", [](Trees& s) { double v = 0; GetAs<double>(s.other, v); s.number = static_cast<unsigned long>(v); }, numbers);
    none("GetAs<float>", [](Trees& s) { float v = 0; GetAs<float>(s.other, v); s.number = static_cast<unsigned long>(v); }, numbers);
    none("GetAs<bool>", [](Trees& s) { bool v = false; GetAs<bool>(s.tree["flag"], v); s.number = v; });
    // Replacing a whole tree by a number only frees.
    none("SetAs<unsigned long>", [](Trees& s) { SetAs<unsigned long>(1ul, s.tree); });
    none("SetAs<unsigned int>", [](Trees& s) { SetAs<unsigned int>(1u, s.tree); });
    none("SetAs<long>", [](Trees& s) { SetAs<long>(-1l, s.tree); });
    none("SetAs<int>", [](Trees& s) { SetAs<int>(-1, s.tree); });
    none("SetAs<double>", [](Trees& s) { SetAs<double>(0.5, s.tree); });
    none("SetAs<float>", [](Trees& s) { SetAs<float>(0.5f, s.tree); });
    none("SetAs<bool>", [](Trees& s) { SetAs<bool>(true, s.tree); });
}

TEST_F(MetadataAllocation, ConstructorsAndCopiesMakeNothingWhenMemoryRunsOut) {
    strong("Element(std::string)", [](Trees& s) { s.made.emplace(kLong); });
    strong("Element(const char*)", [](Trees& s) { s.made.emplace(kLong.c_str()); });
    strong("Element(const Object&)", [](Trees& s) { s.made.emplace(static_cast<const Object&>(s.tree)); });
    strong("Element(const Array&)",
           [](Trees& s) { s.made.emplace(static_cast<const Array&>(static_cast<const Element&>(s.tree["list"]))); });
    strong("Element(const Element&)", [](Trees& s) { s.made.emplace(s.tree); });
    strong("Element::operator=(const Element&) onto a tree", [](Trees& s) { s.other = s.tree; }, otherIsAnArray);
    // Assigning a tree a member of itself.
    strong("Element::operator=(const Element&) from its own member", [](Trees& s) { s.tree = s.tree["list"]; });
}

TEST_F(MetadataAllocation, MemberAccessThatCreatesGivesTheStrongGuarantee) {
    // An empty element becomes an object only together with its new member.
    strong("Element::operator[] on an empty element", [](Trees& s) { (void)s.other[s.name]; }, otherIsEmpty);
    strong("Element::operator[] creating a member", [](Trees& s) { (void)s.tree[s.newName]; });
    strong("Element::operator Array& of an empty element", [](Trees& s) { (void)static_cast<Array&>(s.other); },
           otherIsEmpty);
    strong("Object::operator[] creating a member", [](Trees& s) { (void)s.object[s.newName]; });
    strong("Array::resize", [](Trees& s) { static_cast<Array&>(s.tree["list"]).resize(40); });
    strong("Array::push_back", [](Trees& s) { static_cast<Array&>(s.tree["list"]).push_back(s.tree["text"]); });
}

TEST_F(MetadataAllocation, StringsReadAndWrittenGiveTheStrongGuarantee) {
    strong("GetAs<std::string>", [](Trees& s) { GetAs<std::string>(s.tree["text"], s.text); });
    strong("SetAs<std::string> onto a tree", [](Trees& s) { SetAs<std::string>(kLong, s.tree); });
    strong("SetAs<std::string> onto a string", [](Trees& s) { SetAs<std::string>(s.text, s.other); }, [] {
        auto s = otherIsAString();
        s->text = kLong + kLong;
        return s;
    });
}

TEST_F(MetadataAllocation, ErrorsThrowMetaDataExceptionOrBadAllocAndChangeNothing) {
    // Building the exception's text allocates; running out of memory there
    // throws std::bad_alloc instead, and the tree is unchanged either way.
    strong("Element::operator[] on a number", noting([](Trees& s) { (void)s.other[s.name]; }), otherIsAScalar);
    strong("Element::operator[] const of a missing member",
           noting([](Trees& s) { (void)static_cast<const Element&>(s.tree)[s.missing]; }));
    strong("Element::operator Array& of a string", noting([](Trees& s) { (void)static_cast<Array&>(s.other); }),
           otherIsAString);
    strong("Element::operator const Array& of an object",
           noting([](Trees& s) { (void)static_cast<const Array&>(static_cast<const Element&>(s.tree)); }));
    strong("Element::operator const Object& of a number",
           noting([](Trees& s) { (void)static_cast<const Object&>(static_cast<const Element&>(s.other)); }),
           otherIsAScalar);
    strong("Object::at of a missing member", noting([](Trees& s) {
               const Object& object = s.tree;
               (void)object.at(s.missing);
           }));
    strong("GetAs<std::string> of a number", noting([](Trees& s) { GetAs<std::string>(s.other, s.text); }),
           otherIsAScalar);
    strong("GetAs<unsigned long> of a string", noting([](Trees& s) { GetAs<unsigned long>(s.tree["text"], s.number); }));
    strong("GetAs<unsigned long> of a negative number",
           noting([](Trees& s) { GetAs<unsigned long>(s.tree["signed"], s.number); }));
    strong("GetAs<float> of a number it cannot hold", noting([](Trees& s) {
               float v = 0;
               GetAs<float>(s.other, v);
           }), [] {
        auto s = trees();
        s->other = Element(0.1);
        return s;
    });
    strong("GetAs<bool> of a number", noting([](Trees& s) {
               bool v = false;
               GetAs<bool>(s.other, v);
           }), otherIsAScalar);
    strong("MetaDataException(const std::string&)", noting([](Trees& s) { throw MetaDataException(s.name); }));
}

TEST_F(MetadataAllocation, ReflectorBaseRegistersWholeOrNotAtAll) {
    const auto records = [] { return std::make_shared<Record>(); };
    // A field made with a name that needs the heap: if making it fails, the
    // record's list of fields is as it was.
    coverStrong<Record>(
        "ReflectorBase::ReflectorBase", records,
        [](Record& s) { s.extra.emplace(&s.record, kLongName, false); },
        [](Record& s) { return describeRecordState(s) + (s.extra ? " extra " + describeField(*s.extra) : ""); });
    coverStrong<Record>(
        "ReflectorBase::operator=", records, [](Record& s) { s.loose = s.record.first; },
        describeRecordState);
    coverStrong<Record>(
        "ReflectorBase::throwIfUninited", records,
        [](Record& s) {
            try {
                s.record.second.throwIfUninited(kLongName);
            } catch (const MetaDataException&) {
                s.thrown = "MetaDataException";
            }
        },
        describeRecordState);
    coverNoAllocation<Record>("ReflectorBase::init, uninit, initialized, isRequired, name", records, [](Record& s) {
        s.record.first.init();
        s.record.second.uninit();
        s.thrown = s.record.first.initialized() && s.record.second.isRequired() ? "x" : "";
        (void)s.record.first.name();
    });
}
