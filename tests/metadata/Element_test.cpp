#include <kest/metadata/Element.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <limits>
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
static_assert(Element::SignedType == 3);
static_assert(Element::ObjectType == 4);
static_assert(Element::ArrayType == 5);
static_assert(Element::FloatType == 6);
static_assert(Element::BooleanType == 7);

// The scalar kinds share storage: three more kinds did not make an element bigger.
static_assert(sizeof(Element) <= sizeof(std::string) + 4 * sizeof(void*));
static_assert(std::is_nothrow_move_constructible_v<Element>);
static_assert(std::is_nothrow_move_assignable_v<Element>);
// A character, a null pointer, and types whose every constructor would be an
// equally good match do not make an element; no scalar converts implicitly.
static_assert(!std::is_constructible_v<Element, char>);
static_assert(!std::is_constructible_v<Element, std::nullptr_t>);
static_assert(!std::is_constructible_v<Element, long long>);
static_assert(!std::is_constructible_v<Element, long double>);
static_assert(!std::is_convertible_v<int, Element>);
static_assert(!std::is_convertible_v<bool, Element>);
static_assert(!std::is_convertible_v<const char*, Element>);

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

// The kind and exact value of an element, subtree included, as text: two
// elements show the same exactly when they hold the same tree (a double
// is shown in hexadecimal, so -0.0 and 0.0 differ and NaN shows as nan).
std::string show(const Element& e) {
    switch (e.GetElementType()) {
        case Element::EmptyType:
            return "empty";
        case Element::NumberType: {
            unsigned long n = 0;
            GetAs(e, n);
            return "unsigned " + std::to_string(n);
        }
        case Element::SignedType: {
            long n = 0;
            GetAs(e, n);
            return "signed " + std::to_string(n);
        }
        case Element::FloatType: {
            double d = 0;
            GetAs(e, d);
            char text[64];
            std::snprintf(text, sizeof text, "%a", d);
            return std::string("float ") + text;
        }
        case Element::BooleanType: {
            bool b = false;
            GetAs(e, b);
            return b ? "boolean true" : "boolean false";
        }
        case Element::StringType: {
            std::string t;
            GetAs(e, t);
            return "string '" + t + "'";
        }
        case Element::ObjectType: {
            std::string out = "{";
            for (const auto& member : static_cast<const Object&>(e)) {
                out += member.first + ": " + show(member.second) + "; ";
            }
            return out + "}";
        }
        case Element::ArrayType: {
            std::string out = "[";
            for (const Element& item : static_cast<const Array&>(e)) out += show(item) + "; ";
            return out + "]";
        }
    }
    return "unknown type " + std::to_string(e.GetElementType());
}

// One element of every kind, scalars at the edges of their ranges. Each is
// built in place by `fill` and expected to show as `shown`, so that the
// expectations owe nothing to the copies and moves under test.
struct Sample {
    const char* shown;
    void (*fill)(Element&);
};

const Sample kEveryKind[] = {
    {"empty", [](Element&) {}},
    {"unsigned 18446744073709551615",
     [](Element& e) { SetAs<unsigned long>(std::numeric_limits<unsigned long>::max(), e); }},
    {"signed -9223372036854775808",
     [](Element& e) { SetAs<long>(std::numeric_limits<long>::min(), e); }},
    {"float -0x0p+0", [](Element& e) { SetAs<double>(-0.0, e); }},
    {"float nan", [](Element& e) { SetAs<double>(std::numeric_limits<double>::quiet_NaN(), e); }},
    {"float -inf", [](Element& e) { SetAs<double>(-std::numeric_limits<double>::infinity(), e); }},
    {"boolean true", [](Element& e) { SetAs<bool>(true, e); }},
    {"boolean false", [](Element& e) { SetAs<bool>(false, e); }},
    {"string 'a string longer than any small-string buffer, so that it owns memory'",
     [](Element& e) {
         SetAs<std::string>("a string longer than any small-string buffer, so that it owns memory", e);
     }},
    {"{list: [float 0x1p-2; ]; signed: signed -1; }",
     [](Element& e) {
         SetAs<long>(-1, e["signed"]);
         static_cast<Array&>(e["list"]).resize(1);
         SetAs<double>(0.25, static_cast<Array&>(e["list"])[0]);
     }},
    {"[empty; empty; ]", [](Element& e) { static_cast<Array&>(e).resize(2); }},
};

TEST(Element, TypeCodesAreZeroToSevenByKind) {
    EXPECT_EQ(Element().GetElementType(), 0);
    EXPECT_EQ(number(7).GetElementType(), 1);
    EXPECT_EQ(text("seven").GetElementType(), 2);
    EXPECT_EQ(Element(-7L).GetElementType(), 3);
    EXPECT_EQ(object().GetElementType(), 4);
    EXPECT_EQ(array().GetElementType(), 5);
    EXPECT_EQ(Element(7.5).GetElementType(), 6);
    EXPECT_EQ(Element(false).GetElementType(), 7);
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
    const Element s = text("x");
    const Element a = array();
    EXPECT_THROW((void)static_cast<const Object&>(s), MetaDataException);
    EXPECT_THROW((void)static_cast<const Object&>(a), MetaDataException);
    const Element o = object();
    EXPECT_TRUE(static_cast<const Object&>(o).contains("member"));
}

TEST(Element, EmptyElementReadsAsAnObjectWithoutMembers) {
    const Element empty;
    const Object& members = empty;
    EXPECT_EQ(members.size(), 0U);
    EXPECT_FALSE(members.contains("member"));
    EXPECT_THROW((void)members.at("member"), MetaDataException);
    // The conversion changes nothing: the element stays empty.
    EXPECT_EQ(empty.GetElementType(), Element::EmptyType);
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

TEST(Element, ConstructorsMakeTheKindOfTheArgumentsType) {
    EXPECT_EQ(show(Element(5)), "signed 5");
    EXPECT_EQ(show(Element(-1)), "signed -1");
    EXPECT_EQ(show(Element(0)), "signed 0");
    EXPECT_EQ(show(Element(5U)), "unsigned 5");
    EXPECT_EQ(show(Element(5L)), "signed 5");
    EXPECT_EQ(show(Element(5UL)), "unsigned 5");
    EXPECT_EQ(show(Element(std::uint64_t{5})), "unsigned 5");
    EXPECT_EQ(show(Element(std::int32_t{-5})), "signed -5");
    EXPECT_EQ(show(Element(std::uint32_t{4000000000U})), "unsigned 4000000000");
    // Narrower than int: promoted to int, so signed.
    EXPECT_EQ(show(Element(std::uint16_t{7})), "signed 7");
    EXPECT_EQ(show(Element(1.5)), "float 0x1.8p+0");
    EXPECT_EQ(show(Element(1.5F)), "float 0x1.8p+0");
    EXPECT_EQ(show(Element(true)), "boolean true");
    EXPECT_EQ(show(Element(false)), "boolean false");
    // A string literal is text, not a pointer turned into a boolean.
    EXPECT_EQ(show(Element("text")), "string 'text'");
    EXPECT_EQ(show(Element(std::string("text"))), "string 'text'");
}

TEST(Element, SamplesOfEveryKindShowWhatTheyHold) {
    for (const Sample& sample : kEveryKind) {
        Element e;
        sample.fill(e);
        EXPECT_EQ(show(e), sample.shown);
    }
}

TEST(Element, CopyOfEveryKindHoldsTheSameTreeAndLeavesTheOriginal) {
    for (const Sample& sample : kEveryKind) {
        Element original;
        sample.fill(original);
        Element copy(original);
        EXPECT_EQ(show(copy), sample.shown);
        EXPECT_EQ(show(original), sample.shown);
    }
}

TEST(Element, CopyAssignmentOfEveryKindOverEveryKindHoldsTheSource) {
    for (const Sample& source : kEveryKind) {
        for (const Sample& target : kEveryKind) {
            Element from;
            source.fill(from);
            Element assigned;
            target.fill(assigned);
            assigned = from;
            EXPECT_EQ(show(assigned), source.shown) << "over " << target.shown;
            EXPECT_EQ(show(from), source.shown);
        }
    }
}

TEST(Element, MoveOfEveryKindTakesTheTreeAndLeavesTheSourceEmpty) {
    for (const Sample& sample : kEveryKind) {
        Element source;
        sample.fill(source);
        Element moved(std::move(source));
        EXPECT_EQ(show(moved), sample.shown);
        EXPECT_EQ(show(source), "empty");  // NOLINT(bugprone-use-after-move)
    }
}

TEST(Element, MoveAssignmentOfEveryKindOverEveryKindTakesTheTreeAndLeavesTheSourceEmpty) {
    for (const Sample& source : kEveryKind) {
        for (const Sample& target : kEveryKind) {
            Element from;
            source.fill(from);
            Element assigned;
            target.fill(assigned);
            assigned = std::move(from);
            EXPECT_EQ(show(assigned), source.shown) << "over " << target.shown;
            EXPECT_EQ(show(from), "empty");  // NOLINT(bugprone-use-after-move)
        }
    }
}

TEST(Element, SelfAssignmentOfEveryKindKeepsTheTree) {
    for (const Sample& sample : kEveryKind) {
        Element e;
        sample.fill(e);
        Element& alias = e;
        e = alias;
        EXPECT_EQ(show(e), sample.shown);
        e = std::move(alias);
        EXPECT_EQ(show(e), sample.shown);
    }
}

TEST(Element, ElementsOfEveryKindInAnArraySurviveItsGrowth) {
    // Growing the vector moves every element into new storage.
    Element list;
    Array& items = list;
    for (const Sample& sample : kEveryKind) {
        items.resize(items.size() + 1);
        sample.fill(items[items.size() - 1]);
    }
    ASSERT_EQ(items.size(), std::size(kEveryKind));
    for (unsigned long i = 0; i < items.size(); ++i) EXPECT_EQ(show(items[i]), kEveryKind[i].shown);
}

TEST(Element, SetAsGivesTheKindOfItsType) {
    Element e = object();
    SetAs<long>(-3, e);
    EXPECT_EQ(show(e), "signed -3");
    SetAs<int>(-4, e);
    EXPECT_EQ(show(e), "signed -4");
    SetAs<unsigned int>(4000000000U, e);
    EXPECT_EQ(show(e), "unsigned 4000000000");
    SetAs<unsigned long>(6, e);
    EXPECT_EQ(show(e), "unsigned 6");
    SetAs<double>(-2.5, e);
    EXPECT_EQ(show(e), "float -0x1.4p+1");
    // A float widens to the double of exactly its value.
    SetAs<float>(0.1F, e);
    EXPECT_EQ(show(e), "float 0x1.99999ap-4");
    SetAs<bool>(true, e);
    EXPECT_EQ(show(e), "boolean true");
    SetAs<std::string>("s", e);
    EXPECT_EQ(show(e), "string 's'");
    SetAs<bool>(false, e);
    EXPECT_EQ(show(e), "boolean false");
}

TEST(Element, SetAsOverAStringOrSubtreeDropsIt) {
    Element e = text("old");
    SetAs<double>(1.0, e);
    std::string s = "keep";
    EXPECT_THROW(GetAs<std::string>(e, s), MetaDataException);
    EXPECT_EQ(s, "keep");

    Element tree = object();
    SetAs<bool>(true, tree);
    EXPECT_FALSE(HasElement(tree, "member"));
    EXPECT_THROW((void)static_cast<const Object&>(static_cast<const Element&>(tree)), MetaDataException);

    Element list = array();
    SetAs<long>(1, list);
    EXPECT_THROW((void)static_cast<const Array&>(static_cast<const Element&>(list)), MetaDataException);
}

TEST(Element, NewScalarKindsRefuseMemberAndArrayAccessLikeTheOtherScalars) {
    for (Element scalar : {Element(-1L), Element(0.5), Element(true)}) {
        const std::string before = show(scalar);
        EXPECT_THROW(scalar["x"], MetaDataException) << before;
        EXPECT_THROW((void)static_cast<Array&>(scalar), MetaDataException) << before;
        const Element& constant = scalar;
        EXPECT_THROW(constant["x"], MetaDataException) << before;
        EXPECT_THROW((void)static_cast<const Array&>(constant), MetaDataException) << before;
        EXPECT_THROW((void)static_cast<const Object&>(constant), MetaDataException) << before;
        EXPECT_NO_THROW(EXPECT_FALSE(HasElement(constant, "x"))) << before;
        // A refused access leaves the element as it was.
        EXPECT_EQ(show(scalar), before);
    }
}

TEST(Element, AssigningOwnScalarMemberReplacesElementWithThatScalar) {
    Element tree;
    SetAs<double>(-0.75, tree["inner"]);
    tree = tree["inner"];
    EXPECT_EQ(show(tree), "float -0x1.8p-1");
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
