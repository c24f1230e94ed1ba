#include <kest/metadata/Element.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::HasElement;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::Object;
using Kest::MetaData::SetAs;

static_assert(std::is_base_of_v<std::runtime_error, MetaDataException>);
static_assert(std::is_same_v<decltype(std::declval<const Element&>().GetElementType()), std::uint16_t>);
static_assert(Element::EmptyType == 0);
static_assert(Element::NumberType == 1);
static_assert(Element::StringType == 2);
static_assert(Element::ObjectType == 4);
static_assert(Element::ArrayType == 5);

Element number(unsigned long value) { return Element(value); }
Element text(const std::string& value) { return Element(value); }
Element object() {
    Element e;
    e["member"] = Element(1UL);
    return e;
}
Element array() {
    Element e;
    static_cast<Array&>(e).resize(2);
    return e;
}

TEST(Element, TypeCodesAreZeroOneTwoFourFive) {
    EXPECT_EQ(Element().GetElementType(), 0);
    EXPECT_EQ(number(7).GetElementType(), 1);
    EXPECT_EQ(text("seven").GetElementType(), 2);
    EXPECT_EQ(object().GetElementType(), 4);
    EXPECT_EQ(array().GetElementType(), 5);
    EXPECT_EQ(Element(Object()).GetElementType(), 4);
    EXPECT_EQ(Element(Array()).GetElementType(), 5);
}

TEST(Element, NonConstSubscriptTurnsEmptyIntoObjectWithNewEmptyMember) {
    Element e;
    Element& member = e["name"];
    EXPECT_EQ(e.GetElementType(), Element::ObjectType);
    EXPECT_EQ(member.GetElementType(), Element::EmptyType);
    EXPECT_TRUE(HasElement(e, "name"));
    EXPECT_EQ(static_cast<const Object&>(e).size(), 1U);
}

TEST(Element, NonConstSubscriptReturnsExistingMemberUnchanged) {
    Element e;
    SetAs<unsigned long>(42, e["n"]);
    e["other"];
    unsigned long value = 0;
    GetAs<unsigned long>(e["n"], value);
    EXPECT_EQ(value, 42U);
    EXPECT_EQ(&e["n"], &e["n"]);
    EXPECT_EQ(static_cast<const Object&>(e).size(), 2U);
}

TEST(Element, NonConstSubscriptOnScalarOrArrayThrows) {
    Element n = number(1);
    Element s = text("x");
    Element a = array();
    EXPECT_THROW(n["x"], MetaDataException);
    EXPECT_THROW(s["x"], MetaDataException);
    EXPECT_THROW(a["x"], MetaDataException);
    EXPECT_EQ(n.GetElementType(), Element::NumberType);
}

TEST(Element, ConstSubscriptThrowsOnElementThatIsNotAnObject) {
    const Element empty;
    const Element n = number(1);
    const Element s = text("x");
    const Element a = array();
    EXPECT_THROW(empty["member"], MetaDataException);
    EXPECT_THROW(n["member"], MetaDataException);
    EXPECT_THROW(s["member"], MetaDataException);
    EXPECT_THROW(a["member"], MetaDataException);
    // The const lookup never changes the element.
    EXPECT_EQ(empty.GetElementType(), Element::EmptyType);
}

TEST(Element, ConstSubscriptThrowsOnMissingMember) {
    const Element o = object();
    EXPECT_THROW(o["absent"], MetaDataException);
    EXPECT_FALSE(HasElement(o, "absent"));
}

TEST(Element, ConstSubscriptReturnsPresentMember) {
    const Element o = object();
    unsigned long value = 0;
    GetAs<unsigned long>(o["member"], value);
    EXPECT_EQ(value, 1U);
}

TEST(Element, ArrayConversionTurnsEmptyIntoEmptyArray) {
    Element e;
    Array& a = e;
    EXPECT_EQ(e.GetElementType(), Element::ArrayType);
    EXPECT_EQ(a.size(), 0U);
    a.resize(3);
    EXPECT_EQ(static_cast<const Array&>(static_cast<const Element&>(e)).size(), 3U);
}

TEST(Element, ArrayConversionKeepsExistingArray) {
    Element e = array();
    Array& a = e;
    EXPECT_EQ(a.size(), 2U);
}

TEST(Element, ArrayConversionThrowsOnOtherKinds) {
    Element n = number(1);
    Element s = text("x");
    Element o = object();
    EXPECT_THROW((void)static_cast<Array&>(n), MetaDataException);
    EXPECT_THROW((void)static_cast<Array&>(s), MetaDataException);
    EXPECT_THROW((void)static_cast<Array&>(o), MetaDataException);
    EXPECT_EQ(o.GetElementType(), Element::ObjectType);
}

TEST(Element, ConstArrayConversionThrowsOnWrongKind) {
    const Element empty;
    const Element n = number(1);
    const Element o = object();
    EXPECT_THROW((void)static_cast<const Array&>(empty), MetaDataException);
    EXPECT_THROW((void)static_cast<const Array&>(n), MetaDataException);
    EXPECT_THROW((void)static_cast<const Array&>(o), MetaDataException);
    const Element a = array();
    EXPECT_EQ(static_cast<const Array&>(a).size(), 2U);
}

TEST(Element, ConstObjectConversionThrowsOnWrongKind) {
    const Element empty;
    const Element s = text("x");
    const Element a = array();
    EXPECT_THROW((void)static_cast<const Object&>(empty), MetaDataException);
    EXPECT_THROW((void)static_cast<const Object&>(s), MetaDataException);
    EXPECT_THROW((void)static_cast<const Object&>(a), MetaDataException);
    const Element o = object();
    EXPECT_TRUE(static_cast<const Object&>(o).contains("member"));
}

TEST(Element, GetAsReadsValueOfItsKind) {
    unsigned long n = 0;
    std::string s;
    GetAs<unsigned long>(number(0xFFFFFFFFFFFFFFFFUL), n);
    GetAs<std::string>(text("hello"), s);
    EXPECT_EQ(n, 0xFFFFFFFFFFFFFFFFUL);
    EXPECT_EQ(s, "hello");
}

TEST(Element, GetAsThrowsOnWrongKind) {
    unsigned long n = 5;
    std::string s = "keep";
    EXPECT_THROW(GetAs<unsigned long>(text("1"), n), MetaDataException);
    EXPECT_THROW(GetAs<unsigned long>(Element(), n), MetaDataException);
    EXPECT_THROW(GetAs<unsigned long>(object(), n), MetaDataException);
    EXPECT_THROW(GetAs<std::string>(number(1), s), MetaDataException);
    EXPECT_THROW(GetAs<std::string>(array(), s), MetaDataException);
    EXPECT_EQ(n, 5U);
    EXPECT_EQ(s, "keep");
}

TEST(Element, SetAsOverwritesWhateverTheElementHeld) {
    Element e = object();
    SetAs<unsigned long>(9, e);
    EXPECT_EQ(e.GetElementType(), Element::NumberType);
    EXPECT_FALSE(HasElement(e, "member"));

    SetAs<std::string>("now text", e);
    EXPECT_EQ(e.GetElementType(), Element::StringType);
    std::string s;
    GetAs<std::string>(e, s);
    EXPECT_EQ(s, "now text");

    Element a = array();
    SetAs<unsigned long>(3, a);
    unsigned long n = 0;
    GetAs<unsigned long>(a, n);
    EXPECT_EQ(n, 3U);
    EXPECT_THROW((void)static_cast<const Array&>(static_cast<const Element&>(a)), MetaDataException);
}

TEST(Element, HasElementIsFalseAndNeverThrowsOnNonObjects) {
    EXPECT_NO_THROW(EXPECT_FALSE(HasElement(Element(), "x")));
    EXPECT_NO_THROW(EXPECT_FALSE(HasElement(number(1), "x")));
    EXPECT_NO_THROW(EXPECT_FALSE(HasElement(text("x"), "x")));
    EXPECT_NO_THROW(EXPECT_FALSE(HasElement(array(), "x")));
}

TEST(Element, HasElementTellsPresentFromAbsentMembers) {
    Element o = object();
    EXPECT_TRUE(HasElement(o, "member"));
    EXPECT_FALSE(HasElement(o, "Member"));
    EXPECT_FALSE(HasElement(o, ""));
}

TEST(Element, CopyIsDeep) {
    Element original;
    static_cast<Array&>(original["list"]).resize(1);
    SetAs<std::string>("a", static_cast<Array&>(original["list"])[0]);

    Element copy(original);
    SetAs<std::string>("changed", static_cast<Array&>(original["list"])[0]);
    original["extra"];

    std::string value;
    GetAs<std::string>(static_cast<const Array&>(static_cast<const Element&>(copy)["list"])[0], value);
    EXPECT_EQ(value, "a");
    EXPECT_FALSE(HasElement(copy, "extra"));
}

TEST(Element, AssigningOwnMemberReplacesElementWithThatMember) {
    Element tree;
    SetAs<unsigned long>(4, tree["inner"]["n"]);
    tree = tree["inner"];
    ASSERT_TRUE(HasElement(tree, "n"));
    unsigned long n = 0;
    GetAs<unsigned long>(static_cast<const Element&>(tree)["n"], n);
    EXPECT_EQ(n, 4U);
}

TEST(Element, ObjectMembersAreOrderedByName) {
    Element e;
    e["b"];
    e["B"];
    e["a"];
    e["ab"];
    std::string order;
    for (const auto& member : static_cast<const Object&>(e)) order += member.first + ",";
    EXPECT_EQ(order, "B,a,ab,b,");
}

TEST(Element, ArrayResizeKeepsLeadingElementsAndAddsEmptyOnes) {
    Element e;
    Array& a = e;
    a.resize(1);
    SetAs<unsigned long>(8, a[0]);
    a.resize(3);
    EXPECT_EQ(a.size(), 3U);
    EXPECT_EQ(a[0].GetElementType(), Element::NumberType);
    EXPECT_EQ(a[2].GetElementType(), Element::EmptyType);
    a.resize(0);
    EXPECT_EQ(a.begin(), a.end());
}

TEST(MetaDataException, IsARuntimeErrorCarryingItsText) {
    try {
        throw MetaDataException("what it says");
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "what it says");
        return;
    }
    FAIL() << "not caught as std::runtime_error";
}

TEST(MetaDataException, TreeErrorsAreCatchableAsRuntimeError) {
    const Element empty;
    EXPECT_THROW(empty["x"], std::runtime_error);
}

}  // namespace
