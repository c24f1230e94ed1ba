// The metadata tree as JSON text and back: every kind, the numbers at their
// ends, and every text fromJson must refuse.

#include <kest/metadata/Element.h>
#include <kest/net/Json.h>
#include <kest/net/WireError.h>

#include <support/TreeSupport.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::Object;
using Kest::Net::fromJson;
using Kest::Net::Limits;
using Kest::Net::toJson;
using Kest::Net::WireError;
using KestTest::describeTree;
using KestTest::RandomTrees;
using KestTest::sameTree;

void expectRefused(const std::string& json, const char* part, const Limits& limits = Limits()) {
    try {
        const Element tree = fromJson(json, limits);
        ADD_FAILURE() << "read " << describeTree(tree) << " from a text that should be refused (" << part << ")";
    } catch (const WireError& error) {
        EXPECT_NE(std::string(error.what()).find(part), std::string::npos) << error.what();
    }
}

// What a tree reads back as: a signed element that is not negative comes
// back unsigned; everything else as it was.
Element afterJson(const Element& e) {
    switch (e.GetElementType()) {
        case Element::SignedType: {
            long value = 0;
            Kest::MetaData::GetAs(e, value);
            return value >= 0 ? Element(static_cast<unsigned long>(value)) : e;
        }
        case Element::ObjectType: {
            Element out(Object{});
            for (const auto& member : static_cast<const Object&>(e)) out[member.first] = afterJson(member.second);
            return out;
        }
        case Element::ArrayType: {
            Array out;
            for (const Element& item : static_cast<const Array&>(e)) out.push_back(afterJson(item));
            return Element(out);
        }
        default:
            return e;
    }
}

TEST(Json, EveryKindIsWrittenAsItsJsonForm) {
    Element tree(Object{});
    tree["a"] = Element();
    tree["b"] = Element(7ul);
    tree["c"] = Element(-7l);
    tree["d"] = Element(0.5);
    tree["e"] = Element(true);
    tree["f"] = Element("x\"y");
    tree["g"] = Element(Object{});
    tree["h"] = Element(Array{});
    static_cast<Array&>(tree["h"]).push_back(Element(false));
    EXPECT_EQ(toJson(tree), R"({"a":null,"b":7,"c":-7,"d":0.5,"e":true,"f":"x\"y","g":{},"h":[false]})");
}

TEST(Json, WholeDoubleIsWrittenWithAFractionSoItReadsBackAsADouble) {
    EXPECT_EQ(toJson(Element(5.0)), "5.0");
    EXPECT_EQ(toJson(Element(-0.0)), "-0.0");
    const Element back = fromJson("5.0");
    EXPECT_EQ(back.GetElementType(), Element::FloatType);
    EXPECT_TRUE(sameTree(back, Element(5.0)));
    EXPECT_TRUE(sameTree(fromJson(toJson(Element(1e300))), Element(1e300)));
    EXPECT_TRUE(sameTree(fromJson("-0.0"), Element(-0.0)));
}

TEST(Json, NumbersReadAsTheKindTheirFormSays) {
    EXPECT_EQ(fromJson("5").GetElementType(), Element::NumberType);
    EXPECT_EQ(fromJson("-5").GetElementType(), Element::SignedType);
    EXPECT_TRUE(sameTree(fromJson("-0"), Element(0ul)));
    EXPECT_EQ(fromJson("5e0").GetElementType(), Element::FloatType);
    EXPECT_EQ(fromJson("0.0").GetElementType(), Element::FloatType);
    EXPECT_TRUE(sameTree(fromJson("18446744073709551615"), Element(std::numeric_limits<unsigned long>::max())));
    EXPECT_TRUE(sameTree(fromJson("-9223372036854775808"), Element(std::numeric_limits<long>::min())));
}

TEST(Json, NonNegativeSignedIntegerReadsBackAsUnsignedWithTheSameValue) {
    const Element back = fromJson(toJson(Element(5l)));
    EXPECT_EQ(back.GetElementType(), Element::NumberType);
    long value = 0;
    Kest::MetaData::GetAs(back, value);
    EXPECT_EQ(value, 5);
}

TEST(Json, RandomTreesComeBackExactlyButForTheSignOfTheirIntegers) {
    for (std::uint64_t seed = 1; seed <= 300; ++seed) {
        RandomTrees random(seed, true);
        const Element tree = random.value(1 + random.pick(8));
        const std::string json = toJson(tree);
        const Element back = fromJson(json);
        EXPECT_TRUE(sameTree(back, afterJson(tree)))
            << "seed " << seed << "\n" << json << "\nread back " << describeTree(back);
        EXPECT_EQ(toJson(back), json) << "seed " << seed;
    }
}

TEST(Json, StringsKeepEveryUnicodeCharacterAndEscape) {
    const std::string text = std::string("nul ") + '\0' + " tab \t quote \" backslash \\ e\xc3\xa9 euro \xe2\x82\xac";
    EXPECT_TRUE(sameTree(fromJson(toJson(Element(text))), Element(text)));
    EXPECT_TRUE(sameTree(fromJson(R"("\u00e9\ud83d\ude00")"), Element("\xc3\xa9\xf0\x9f\x98\x80")));
}

TEST(Json, NanAndInfinitiesCannotBeWritten) {
    for (double value : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity()}) {
        Element tree(Object{});
        tree["deep"] = Element(Array{});
        static_cast<Array&>(tree["deep"]).push_back(Element(value));
        EXPECT_THROW(toJson(tree), WireError);
    }
}

TEST(Json, TextThatIsNotUtf8CannotBeWritten) {
    EXPECT_THROW(toJson(Element("\xff")), WireError);
    Element tree(Object{});
    tree["\xc3"] = Element(1ul);
    EXPECT_THROW(toJson(tree), WireError);
}

TEST(Json, MalformedTextIsRefused) {
    expectRefused("", "fromJson");
    expectRefused("{", "fromJson");
    expectRefused("[1,]", "fromJson");
    expectRefused("{\"a\" 1}", "fromJson");
    expectRefused("nul", "fromJson");
    expectRefused("01", "fromJson");
    expectRefused("NaN", "fromJson");
    expectRefused("1 2", "fromJson");
    expectRefused("{} x", "fromJson");
    expectRefused("\"\xff\"", "fromJson");
    expectRefused("\"unterminated", "fromJson");
    expectRefused("[1] // comment", "fromJson");
}

TEST(Json, TruncatedTextIsRefusedAtEveryLength) {
    const std::string json = R"({"a":[1,-2,3.5,true,null,"s"],"b":{"c":{}}})";
    ASSERT_NO_THROW(fromJson(json));
    for (std::size_t length = 0; length < json.size(); ++length) {
        EXPECT_THROW(fromJson(json.substr(0, length)), WireError) << length;
    }
}

TEST(Json, MemberNameTwiceInOneObjectIsRefused) { expectRefused(R"({"a":1,"a":2})", "twice"); }

TEST(Json, IntegersBeyondSixtyFourBitsAreRefused) {
    expectRefused("18446744073709551616", "beyond the 64-bit range");
    expectRefused("-9223372036854775809", "beyond the 64-bit range");
    expectRefused("1e400", "fromJson");
}

TEST(Json, TextBeyondTheSizeLimitIsRefused) {
    Limits limits;
    limits.maxBytes = 4;
    EXPECT_NO_THROW(fromJson("[1]", limits));
    expectRefused("[1,2]", "more than the limit of 4", limits);
}

TEST(Json, NestingBeyondTheDepthLimitIsRefused) {
    const auto nested = [](int levels) { return std::string(levels, '[') + std::string(levels, ']'); };
    EXPECT_NO_THROW(fromJson(nested(64)));
    expectRefused(nested(65), "nesting deeper than 64 levels");
    expectRefused(std::string(1 << 20, '['), "nesting deeper");
}

TEST(Json, ObjectsAndArraysBeyondTheirCountLimitsAreRefused) {
    Limits limits;
    limits.maxMembersPerObject = 2;
    limits.maxElementsPerArray = 3;
    EXPECT_NO_THROW(fromJson(R"({"a":1,"b":[1,2,3]})", limits));
    expectRefused(R"({"a":1,"b":2,"c":3})", "more than 2 members", limits);
    expectRefused("[1,2,3,4]", "more than 3 elements", limits);
}

}  // namespace
