#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Reflector.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::HasElement;
using Kest::MetaData::MirroredObject;
using Kest::MetaData::ReflectorArray;
using Kest::MetaData::ReflectorBase;
using Kest::MetaData::SetAs;
using Kest::Msgs::ReflectedAddress;
using KestTest::Address;
using KestTest::CaptureStdout;

static_assert(std::is_base_of_v<ReflectorArray<std::string>, ReflectedAddress>);
static_assert(std::is_base_of_v<ReflectorBase, ReflectorArray<std::string>>);

const std::string kArrayExpected =
    "Exception MetaDat::ReflectorArray Should have gotten an Array, but didn't";
const std::string kCorruptPrefix = "Exception MetaDat::ReflectorArray MetaData Array corrupt for ";

class Route : public MirroredObject {
public:
    ReflectedAddress sender{this, "Sender"};
    ReflectedAddress destination{this, "Destination"};
};

// An array element holding the given strings.
Element stringArray(const Address& values) {
    Element e;
    Array& a = e;
    a.resize(values.size());
    for (unsigned long i = 0; i < values.size(); ++i) SetAs<std::string>(values[i], a[i]);
    return e;
}

Address readArray(const Element& tree, const std::string& name) {
    const Array& a = tree[name];
    Address values;
    for (const Element& e : a) {
        std::string s;
        GetAs<std::string>(e, s);
        values.push_back(s);
    }
    return values;
}

TEST(ReflectedAddress, AssignStoresListAndMarksInitialised) {
    Route r;
    EXPECT_FALSE(r.sender.initialized());
    EXPECT_TRUE(r.sender().empty());
    r.sender.assign(Address{"plant", "line2"});
    EXPECT_TRUE(r.sender.initialized());
    EXPECT_EQ(r.sender(), (Address{"plant", "line2"}));
}

TEST(ReflectedAddress, AddressMissingFromTreeBecomesEmptyAndUninitialised) {
    Route r;
    r.sender.assign(Address{"a", "b"});
    Element tree;
    tree["Destination"] = stringArray({"x"});
    CaptureStdout capture;
    r.copyFromMetaData(tree);
    EXPECT_EQ(capture.text(), "");
    EXPECT_FALSE(r.sender.initialized());
    EXPECT_TRUE(r.sender().empty());
    EXPECT_TRUE(r.destination.initialized());
}

TEST(ReflectedAddress, AddressWhoseElementIsScalarPrintsArrayExpectedAndKeepsContents) {
    Route r;
    r.sender.assign(Address{"a", "b"});
    Element tree;
    SetAs<std::string>("a.b", tree["Sender"]);
    CaptureStdout capture;
    r.sender.copyFromMetaData(tree);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{kArrayExpected});
    EXPECT_TRUE(r.sender.initialized());
    EXPECT_EQ(r.sender(), (Address{"a", "b"}));
}

TEST(ReflectedAddress, AddressWhoseElementIsNumberObjectOrEmptyPrintsArrayExpected) {
    Element wrongKinds[3];
    SetAs<unsigned long>(1, wrongKinds[0]);
    wrongKinds[1]["0"];
    // wrongKinds[2] is an empty element: present, but not an array.
    for (const Element& wrong : wrongKinds) {
        Route r;
        r.sender.assign(Address{"keep"});
        Element tree;
        tree["Sender"] = wrong;
        CaptureStdout capture;
        r.sender.copyFromMetaData(tree);
        EXPECT_EQ(capture.lines(), std::vector<std::string>{kArrayExpected})
            << "element type " << wrong.GetElementType();
        EXPECT_EQ(r.sender(), Address{"keep"});
        EXPECT_TRUE(r.sender.initialized());
    }
}

TEST(ReflectedAddress, UnsetAddressWhoseElementIsScalarStaysUnset) {
    Route r;
    Element tree;
    SetAs<unsigned long>(1, tree["Sender"]);
    CaptureStdout capture;
    r.sender.copyFromMetaData(tree);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{kArrayExpected});
    EXPECT_FALSE(r.sender.initialized());
}

TEST(ReflectedAddress, AddressArrayWithNonStringElementPrintsCorruptWithFieldNameAndKeepsContents) {
    Route r;
    r.destination.assign(Address{"old", "path"});
    Element tree;
    tree["Destination"] = stringArray({"new", "x", "y"});
    SetAs<unsigned long>(3, static_cast<Array&>(tree["Destination"])[1]);
    CaptureStdout capture;
    r.destination.copyFromMetaData(tree);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{kCorruptPrefix + "Destination"});
    EXPECT_TRUE(r.destination.initialized());
    EXPECT_EQ(r.destination(), (Address{"old", "path"}));
}

TEST(ReflectedAddress, CorruptArrayKeepsAnUnsetAddressUnset) {
    Route r;
    Element tree;
    tree["Sender"] = stringArray({"a"});
    Element& entry = static_cast<Array&>(tree["Sender"])[0];
    entry = Element();
    entry["nested"];
    CaptureStdout capture;
    r.sender.copyFromMetaData(tree);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{kCorruptPrefix + "Sender"});
    EXPECT_FALSE(r.sender.initialized());
    EXPECT_TRUE(r.sender().empty());
}

TEST(ReflectedAddress, EachFaultyFieldPrintsItsOwnLineInFieldOrder) {
    Route r;
    Element tree;
    tree["Sender"] = stringArray({"a"});
    static_cast<Array&>(tree["Sender"])[0] = Element();
    SetAs<std::string>("d", tree["Destination"]);
    CaptureStdout capture;
    r.copyFromMetaData(tree);
    EXPECT_EQ(capture.lines(), (std::vector<std::string>{kCorruptPrefix + "Sender", kArrayExpected}));
}

TEST(ReflectedAddress, ReadsArrayOfStrings) {
    Route r;
    Element tree;
    tree["Sender"] = stringArray({"plant", "line2", "press"});
    CaptureStdout capture;
    r.copyFromMetaData(tree);
    EXPECT_EQ(capture.text(), "");
    EXPECT_TRUE(r.sender.initialized());
    EXPECT_EQ(r.sender(), (Address{"plant", "line2", "press"}));
}

TEST(ReflectedAddress, EmptyArrayReadsAsSetEmptyAddress) {
    Route r;
    r.sender.assign(Address{"a"});
    Element tree;
    tree["Sender"] = stringArray({});
    r.copyFromMetaData(tree);
    EXPECT_TRUE(r.sender.initialized());
    EXPECT_TRUE(r.sender().empty());
}

TEST(ReflectedAddress, CopyToMetaDataWritesArrayOfStringsUnderItsName) {
    Route r;
    r.sender.assign(Address{"plant", "line2"});
    Element tree;
    r.copyToMetaData(tree);
    const Element& t = tree;
    ASSERT_EQ(t["Sender"].GetElementType(), Element::ArrayType);
    EXPECT_EQ(readArray(t, "Sender"), (Address{"plant", "line2"}));
}

TEST(ReflectedAddress, SetEmptyAddressWritesEmptyArray) {
    Route r;
    r.sender.assign(Address{});
    Element tree;
    r.copyToMetaData(tree);
    const Element& t = tree;
    ASSERT_TRUE(HasElement(t, "Sender"));
    ASSERT_EQ(t["Sender"].GetElementType(), Element::ArrayType);
    EXPECT_EQ(static_cast<const Array&>(t["Sender"]).size(), 0U);
}

TEST(ReflectedAddress, CopyToMetaDataOfUnsetAddressLeavesTreeWithoutThatName) {
    Route r;
    Element tree;
    r.sender.copyToMetaData(tree);
    EXPECT_EQ(tree.GetElementType(), Element::EmptyType);
    r.destination.assign(Address{"x"});
    r.copyToMetaData(tree);
    EXPECT_FALSE(HasElement(tree, "Sender"));
    EXPECT_TRUE(HasElement(tree, "Destination"));
}

TEST(ReflectedAddress, CopyToMetaDataResizesLongerArrayInTree) {
    Route r;
    r.sender.assign(Address{"one"});
    Element tree;
    tree["Sender"] = stringArray({"a", "b", "c"});
    r.copyToMetaData(tree);
    EXPECT_EQ(readArray(tree, "Sender"), Address{"one"});
}

TEST(ReflectedAddress, OptionDoesNotChangeWhatIsWritten) {
    MirroredObject withOption;
    MirroredObject without;
    ReflectorArray<std::string> a(&withOption, "A", false, true);
    ReflectorArray<std::string> b(&without, "A", false, false);
    a.assign(Address{"x", "y"});
    b.assign(Address{"x", "y"});
    EXPECT_TRUE(a.option());
    EXPECT_FALSE(b.option());
    Element ta;
    Element tb;
    withOption.copyToMetaData(ta);
    without.copyToMetaData(tb);
    EXPECT_EQ(readArray(ta, "A"), readArray(tb, "A"));
    EXPECT_EQ(readArray(ta, "A"), (Address{"x", "y"}));
}

TEST(ReflectedAddress, RoundTripThroughTreeKeepsListAndState) {
    Route r;
    r.sender.assign(Address{"s1", "s2"});
    r.destination.assign(Address{});
    Element tree;
    r.copyToMetaData(tree);
    Route back;
    back.destination.assign(Address{"stale"});
    back.copyFromMetaData(tree);
    EXPECT_TRUE(back.sender.initialized());
    EXPECT_TRUE(back.destination.initialized());
    EXPECT_EQ(back.sender(), (Address{"s1", "s2"}));
    EXPECT_TRUE(back.destination().empty());
}

TEST(ReflectedAddress, AssignmentCopiesStateListAndOption) {
    ReflectorArray<std::string> source(nullptr, "From", true, true);
    source.assign(Address{"a"});
    ReflectorArray<std::string> target(nullptr, "To", false, false);
    target = source;
    EXPECT_EQ(target.name(), "From");
    EXPECT_TRUE(target.isRequired());
    EXPECT_TRUE(target.initialized());
    EXPECT_TRUE(target.option());
    EXPECT_EQ(target(), Address{"a"});
}

// Reading from a tree goes through the two virtual assign operations.
class RecordingAddress : public ReflectorArray<std::string> {
public:
    using ReflectorArray::ReflectorArray;
    void assign(const Element& tree) override {
        ++treeAssignments;
        ReflectorArray::assign(tree);
    }
    void assign(const std::vector<std::string>& values) override {
        ++listAssignments;
        ReflectorArray::assign(values);
    }
    int treeAssignments = 0;
    int listAssignments = 0;
};

TEST(ReflectedAddress, ReadingFromTreeGoesThroughTheVirtualAssignments) {
    RecordingAddress field(nullptr, "Path", false);
    Element tree;
    tree["Path"] = stringArray({"p"});
    static_cast<Kest::MetaData::PartiallySerializableInterface&>(field).copyFromMetaData(tree);
    EXPECT_EQ(field.treeAssignments, 1);
    EXPECT_EQ(field.listAssignments, 1);
    EXPECT_EQ(field(), Address{"p"});
}

// Reading from a tree turns an exception of the list assignment into the
// "corrupt" line too.
class RefusingAddress : public ReflectorArray<std::string> {
public:
    using ReflectorArray::ReflectorArray;
    using ReflectorArray::assign;
    void assign(const std::vector<std::string>&) override { throw std::runtime_error("refused"); }
};

TEST(ReflectedAddress, ExceptionFromListAssignmentPrintsCorruptAndKeepsContents) {
    RefusingAddress field(nullptr, "Path", false);
    Element tree;
    tree["Path"] = stringArray({"p"});
    CaptureStdout capture;
    EXPECT_NO_THROW(field.copyFromMetaData(tree));
    EXPECT_EQ(capture.lines(), std::vector<std::string>{kCorruptPrefix + "Path"});
    EXPECT_FALSE(field.initialized());
    EXPECT_TRUE(field().empty());
}

// Trees that are not objects: an empty one, a number, a string and an array.
struct NonObjectTree {
    const char* kind;
    Element tree;
};

std::vector<NonObjectTree> nonObjectTrees() {
    std::vector<NonObjectTree> trees(4);
    trees[0].kind = "empty";
    trees[1].kind = "number";
    SetAs<unsigned long>(7, trees[1].tree);
    trees[2].kind = "string";
    SetAs<std::string>("Sender", trees[2].tree);
    trees[3].kind = "array";
    trees[3].tree = stringArray({"a", "b"});
    return trees;
}

TEST(ReflectedAddress, EmptyTreeReadsAsEmptyObjectSoTheAddressBecomesEmptyAndUnset) {
    Route r;
    r.sender.assign(Address{"keep"});
    CaptureStdout capture;
    EXPECT_NO_THROW(r.sender.copyFromMetaData(Element()));
    EXPECT_EQ(capture.text(), "");
    EXPECT_FALSE(r.sender.initialized());
    EXPECT_TRUE(r.sender().empty());
}

TEST(ReflectedAddress, NumberStringOrArrayTreePrintsCorruptWithFieldNameAndKeepsTheAddress) {
    for (const NonObjectTree& t : nonObjectTrees()) {
        if (t.tree.GetElementType() == Element::EmptyType) continue;
        SCOPED_TRACE(t.kind);
        Route r;
        r.destination.assign(Address{"keep", "this"});
        CaptureStdout capture;
        EXPECT_NO_THROW(r.copyFromMetaData(t.tree));
        EXPECT_EQ(capture.text(), kCorruptPrefix + "Sender\n" + kCorruptPrefix + "Destination\n");
        EXPECT_FALSE(r.sender.initialized());
        EXPECT_TRUE(r.sender().empty());
        EXPECT_TRUE(r.destination.initialized());
        EXPECT_EQ(r.destination(), (Address{"keep", "this"}));
    }
}

TEST(ReflectedAddress, ReadingATreeOfEveryKindGoesThroughTheVirtualAssignmentOnlyForObjectsAndEmpty) {
    std::vector<NonObjectTree> trees = nonObjectTrees();
    trees.push_back({"object", Element()});
    trees.back().tree["Path"] = stringArray({"p"});
    for (const NonObjectTree& t : trees) {
        SCOPED_TRACE(t.kind);
        RecordingAddress field(nullptr, "Path", false);
        CaptureStdout capture;
        static_cast<Kest::MetaData::PartiallySerializableInterface&>(field).copyFromMetaData(t.tree);
        const bool readable = t.tree.GetElementType() == Element::EmptyType ||
                              t.tree.GetElementType() == Element::ObjectType;
        EXPECT_EQ(field.treeAssignments, readable ? 1 : 0);
        EXPECT_EQ(capture.text(), readable ? std::string() : kCorruptPrefix + "Path\n");
    }
}

// Counts the flushes that reach standard output.
class FlushCountingBuffer : public std::stringbuf {
public:
    int flushes = 0;

protected:
    int sync() override {
        ++flushes;
        return std::stringbuf::sync();
    }
};

class RedirectStdout {
public:
    explicit RedirectStdout(std::streambuf* to) : old_(std::cout.rdbuf(to)) {}
    ~RedirectStdout() { std::cout.rdbuf(old_); }
    RedirectStdout(const RedirectStdout&) = delete;
    RedirectStdout& operator=(const RedirectStdout&) = delete;

private:
    std::streambuf* old_;
};

TEST(ReflectedAddress, DiagnosticLinesAreFlushed) {
    Element scalar;
    SetAs<unsigned long>(1, scalar["Sender"]);
    Element corrupt;
    corrupt["Sender"] = stringArray({"a"});
    SetAs<unsigned long>(1, static_cast<Array&>(corrupt["Sender"])[0]);

    for (const Element* tree : {&scalar, &corrupt}) {
        FlushCountingBuffer buffer;
        {
            RedirectStdout redirect(&buffer);
            Route r;
            r.sender.copyFromMetaData(*tree);
        }
        EXPECT_EQ(buffer.str().back(), '\n');
        EXPECT_GE(buffer.flushes, 1) << buffer.str();
    }
}

}  // namespace
