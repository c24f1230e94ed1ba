#include <kest/metadata/Element.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <limits>
#include <optional>
#include <string>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::Object;
using Kest::MetaData::SetAs;

constexpr double kTwo53 = 9007199254740992.0;  // 2^53
constexpr unsigned long kTwo53Unsigned = 9007199254740992UL;
constexpr double kTwo63 = 9223372036854775808.0;  // 2^63
constexpr double kTwo64 = 18446744073709551616.0;  // 2^64
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// What GetAs<T> reads from `e`, or nothing when it throws MetaDataException.
// A refused read must leave the value it was given untouched: the value
// starts as `sentinel` and is checked after the throw.
template <class T>
std::optional<T> read(const Element& e, T sentinel) {
    T value = sentinel;
    try {
        GetAs<T>(e, value);
    } catch (const MetaDataException&) {
        EXPECT_EQ(value, sentinel) << "a refused read changed the value";
        return std::nullopt;
    }
    return value;
}

std::optional<unsigned long> asUnsignedLong(const Element& e) { return read<unsigned long>(e, 77); }
std::optional<unsigned int> asUnsignedInt(const Element& e) { return read<unsigned int>(e, 77); }
std::optional<long> asLong(const Element& e) { return read<long>(e, 77); }
std::optional<int> asInt(const Element& e) { return read<int>(e, 77); }
std::optional<double> asDouble(const Element& e) { return read<double>(e, 77.0); }
std::optional<float> asFloat(const Element& e) { return read<float>(e, 77.0F); }
std::optional<bool> asBool(const Element& e) { return read<bool>(e, true); }
std::optional<std::string> asString(const Element& e) { return read<std::string>(e, "sentinel"); }

// Expected values in the order unsigned long, unsigned int, long, int.
struct Integers {
    std::optional<unsigned long> unsignedLong;
    std::optional<unsigned int> unsignedInt;
    std::optional<long> signedLong;
    std::optional<int> signedInt;
};

void expectIntegers(const Element& e, const Integers& expected) {
    EXPECT_EQ(asUnsignedLong(e), expected.unsignedLong);
    EXPECT_EQ(asUnsignedInt(e), expected.unsignedInt);
    EXPECT_EQ(asLong(e), expected.signedLong);
    EXPECT_EQ(asInt(e), expected.signedInt);
}

TEST(ElementConversions, ZeroOfEveryNumberKindReadsAsEveryNumberType) {
    for (const Element& zero : {Element(0UL), Element(0L), Element(0.0)}) {
        expectIntegers(zero, {0UL, 0U, 0L, 0});
        EXPECT_EQ(asDouble(zero), 0.0);
        EXPECT_EQ(asFloat(zero), 0.0F);
        ASSERT_TRUE(asDouble(zero).has_value());
        EXPECT_FALSE(std::signbit(*asDouble(zero)));
    }
}

TEST(ElementConversions, UnsignedFiveReadsAsSignedFiveAndSignedFiveAsUnsignedFive) {
    expectIntegers(Element(5UL), {5UL, 5U, 5L, 5});
    expectIntegers(Element(5L), {5UL, 5U, 5L, 5});
    EXPECT_EQ(asDouble(Element(5L)), 5.0);
    EXPECT_EQ(asFloat(Element(5UL)), 5.0F);
}

TEST(ElementConversions, MinusOneNeverReadsAsUnsigned) {
    const Element minusOne(-1L);
    expectIntegers(minusOne, {std::nullopt, std::nullopt, -1L, -1});
    EXPECT_EQ(asDouble(minusOne), -1.0);
    EXPECT_EQ(asFloat(minusOne), -1.0F);
    expectIntegers(Element(-1.0), {std::nullopt, std::nullopt, -1L, -1});
}

TEST(ElementConversions, LongMinReadsAsLongAndExactlyAsDoubleButNotAsIntOrUnsigned) {
    const Element e(LONG_MIN);
    expectIntegers(e, {std::nullopt, std::nullopt, LONG_MIN, std::nullopt});
    EXPECT_EQ(asDouble(e), -kTwo63);
    EXPECT_EQ(asFloat(e), static_cast<float>(-kTwo63));
    // And back: -2^63 as a double is a whole number in long's range.
    EXPECT_EQ(asLong(Element(-kTwo63)), LONG_MIN);
}

TEST(ElementConversions, LongMaxReadsAsUnsignedButNotAsDoubleWhichCannotHoldIt) {
    const Element e(LONG_MAX);
    expectIntegers(e, {static_cast<unsigned long>(LONG_MAX), std::nullopt, LONG_MAX, std::nullopt});
    EXPECT_EQ(asDouble(e), std::nullopt);
    EXPECT_EQ(asFloat(e), std::nullopt);
    // The unsigned LONG_MAX reads as long; one more does not.
    EXPECT_EQ(asLong(Element(static_cast<unsigned long>(LONG_MAX))), LONG_MAX);
}

TEST(ElementConversions, UnsignedAboveLongMaxNeverReadsAsSigned) {
    const Element twoTo63(static_cast<unsigned long>(LONG_MAX) + 1);
    expectIntegers(twoTo63, {static_cast<unsigned long>(LONG_MAX) + 1, std::nullopt, std::nullopt,
                             std::nullopt});
    EXPECT_EQ(asDouble(twoTo63), kTwo63);  // a power of two: exact

    const Element ulongMax(ULONG_MAX);
    expectIntegers(ulongMax, {ULONG_MAX, std::nullopt, std::nullopt, std::nullopt});
    // The nearest double is 2^64, one more than ULONG_MAX.
    EXPECT_EQ(asDouble(ulongMax), std::nullopt);
    EXPECT_EQ(asFloat(ulongMax), std::nullopt);
}

TEST(ElementConversions, IntegerReadsAsDoubleOnlyWhenDoubleHoldsItExactly) {
    EXPECT_EQ(asDouble(Element(kTwo53Unsigned)), kTwo53);
    EXPECT_EQ(asDouble(Element(kTwo53Unsigned + 1)), std::nullopt);
    EXPECT_EQ(asDouble(Element(kTwo53Unsigned + 2)), kTwo53 + 2);
    EXPECT_EQ(asDouble(Element(static_cast<long>(kTwo53Unsigned))), kTwo53);
    EXPECT_EQ(asDouble(Element(static_cast<long>(kTwo53Unsigned + 1))), std::nullopt);
    EXPECT_EQ(asDouble(Element(-static_cast<long>(kTwo53Unsigned))), -kTwo53);
    EXPECT_EQ(asDouble(Element(-static_cast<long>(kTwo53Unsigned) - 1)), std::nullopt);
}

TEST(ElementConversions, IntegerReadsAsFloatOnlyWhenFloatHoldsItExactly) {
    // 2^24 is float's last integer before gaps; 2^53 is a power of two.
    EXPECT_EQ(asFloat(Element(16777216UL)), 16777216.0F);
    EXPECT_EQ(asFloat(Element(16777217UL)), std::nullopt);
    EXPECT_EQ(asDouble(Element(16777217UL)), 16777217.0);
    EXPECT_EQ(asFloat(Element(-16777217L)), std::nullopt);
    EXPECT_EQ(asFloat(Element(kTwo53Unsigned)), static_cast<float>(kTwo53));
    EXPECT_EQ(asFloat(Element(kTwo53Unsigned + 1)), std::nullopt);
}

TEST(ElementConversions, NarrowIntegersTakeOnlyValuesInTheirRange) {
    expectIntegers(Element(static_cast<long>(INT_MAX)),
                   {static_cast<unsigned long>(INT_MAX), static_cast<unsigned int>(INT_MAX), INT_MAX,
                    INT_MAX});
    expectIntegers(Element(static_cast<long>(INT_MAX) + 1),
                   {static_cast<unsigned long>(INT_MAX) + 1, static_cast<unsigned int>(INT_MAX) + 1,
                    static_cast<long>(INT_MAX) + 1, std::nullopt});
    expectIntegers(Element(static_cast<long>(INT_MIN)),
                   {std::nullopt, std::nullopt, INT_MIN, INT_MIN});
    expectIntegers(Element(static_cast<long>(INT_MIN) - 1),
                   {std::nullopt, std::nullopt, static_cast<long>(INT_MIN) - 1, std::nullopt});
    expectIntegers(Element(static_cast<unsigned long>(UINT_MAX)),
                   {UINT_MAX, UINT_MAX, static_cast<long>(UINT_MAX), std::nullopt});
    expectIntegers(Element(static_cast<unsigned long>(UINT_MAX) + 1),
                   {static_cast<unsigned long>(UINT_MAX) + 1, std::nullopt,
                    static_cast<long>(UINT_MAX) + 1, std::nullopt});
}

TEST(ElementConversions, DoubleReadsAsIntegerOnlyWhenWholeAndInRange) {
    expectIntegers(Element(0.5), {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
    expectIntegers(Element(-2.5), {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
    expectIntegers(Element(3.0), {3UL, 3U, 3L, 3});
    expectIntegers(Element(-3.0), {std::nullopt, std::nullopt, -3L, -3});
    expectIntegers(Element(kTwo63), {static_cast<unsigned long>(LONG_MAX) + 1, std::nullopt,
                                     std::nullopt, std::nullopt});
    expectIntegers(Element(-kTwo63), {std::nullopt, std::nullopt, LONG_MIN, std::nullopt});
    // The largest double below 2^64 is a whole number; 2^64 itself is out of range.
    const double belowTwo64 = std::nextafter(kTwo64, 0.0);
    EXPECT_EQ(asUnsignedLong(Element(belowTwo64)), static_cast<unsigned long>(belowTwo64));
    expectIntegers(Element(kTwo64), {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
    expectIntegers(Element(1e300), {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
    expectIntegers(Element(-1e300), {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
    expectIntegers(Element(static_cast<double>(INT_MAX) + 1),
                   {static_cast<unsigned long>(INT_MAX) + 1, static_cast<unsigned int>(INT_MAX) + 1,
                    static_cast<long>(INT_MAX) + 1, std::nullopt});
}

TEST(ElementConversions, NaNAndInfinitiesReadAsThemselvesButNeverAsIntegers) {
    const Element nan(kNaN);
    expectIntegers(nan, {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
    ASSERT_TRUE(asDouble(nan).has_value());
    EXPECT_TRUE(std::isnan(*asDouble(nan)));
    ASSERT_TRUE(asFloat(nan).has_value());
    EXPECT_TRUE(std::isnan(*asFloat(nan)));

    for (double infinity : {kInf, -kInf}) {
        const Element e(infinity);
        expectIntegers(e, {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
        EXPECT_EQ(asDouble(e), infinity);
        EXPECT_EQ(asFloat(e), static_cast<float>(infinity));
    }
}

TEST(ElementConversions, NegativeZeroReadsAsNegativeZeroAndAsIntegerZero) {
    const Element e(-0.0);
    ASSERT_TRUE(asDouble(e).has_value());
    EXPECT_TRUE(std::signbit(*asDouble(e)));
    ASSERT_TRUE(asFloat(e).has_value());
    EXPECT_TRUE(std::signbit(*asFloat(e)));
    EXPECT_EQ(*asFloat(e), 0.0F);
    // As a number it equals zero, which every integer type holds.
    expectIntegers(e, {0UL, 0U, 0L, 0});
}

TEST(ElementConversions, DoubleReadsAsFloatOnlyWhenFloatHoldsItExactly) {
    EXPECT_EQ(asFloat(Element(0.5)), 0.5F);
    EXPECT_EQ(asFloat(Element(-3.25)), -3.25F);
    EXPECT_EQ(asFloat(Element(0.1)), std::nullopt);
    EXPECT_EQ(asDouble(Element(0.1)), 0.1);
    EXPECT_EQ(asFloat(Element(static_cast<double>(0.1F))), 0.1F);
    EXPECT_EQ(asFloat(Element(16777217.0)), std::nullopt);
    EXPECT_EQ(asFloat(Element(static_cast<double>(FLT_MAX))), FLT_MAX);
    EXPECT_EQ(asFloat(Element(static_cast<double>(FLT_MAX) * 2)), std::nullopt);
    EXPECT_EQ(asFloat(Element(-1e300)), std::nullopt);
    // The smallest subnormal float is exact; a double below it is not.
    const float tiny = std::numeric_limits<float>::denorm_min();
    EXPECT_EQ(asFloat(Element(static_cast<double>(tiny))), tiny);
    EXPECT_EQ(asFloat(Element(1e-50)), std::nullopt);
}

TEST(ElementConversions, FloatWrittenWithSetAsReadsBackAsTheSameFloat) {
    for (float f : {0.1F, -3.25F, FLT_MAX, -FLT_MIN, std::numeric_limits<float>::denorm_min()}) {
        Element e;
        SetAs<float>(f, e);
        EXPECT_EQ(e.GetElementType(), Element::FloatType);
        EXPECT_EQ(asFloat(e), f);
        EXPECT_EQ(asDouble(e), static_cast<double>(f));
    }
    Element nan;
    SetAs<float>(std::numeric_limits<float>::quiet_NaN(), nan);
    ASSERT_TRUE(asFloat(nan).has_value());
    EXPECT_TRUE(std::isnan(*asFloat(nan)));
}

TEST(ElementConversions, BooleanIsNotANumber) {
    for (bool flag : {false, true}) {
        const Element e(flag);
        EXPECT_EQ(asBool(e), flag);
        expectIntegers(e, {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
        EXPECT_EQ(asDouble(e), std::nullopt);
        EXPECT_EQ(asFloat(e), std::nullopt);
        EXPECT_EQ(asString(e), std::nullopt);
    }
    for (const Element& number : {Element(0UL), Element(1UL), Element(1L), Element(0.0), Element(1.0)}) {
        EXPECT_EQ(asBool(number), std::nullopt);
    }
}

TEST(ElementConversions, StringsReadOnlyAsStrings) {
    const Element e("5");
    EXPECT_EQ(asString(e), "5");
    expectIntegers(e, {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
    EXPECT_EQ(asDouble(e), std::nullopt);
    EXPECT_EQ(asFloat(e), std::nullopt);
    EXPECT_EQ(asBool(Element("true")), std::nullopt);
    for (const Element& number : {Element(5UL), Element(5L), Element(5.0)}) {
        EXPECT_EQ(asString(number), std::nullopt);
    }
}

TEST(ElementConversions, EmptyObjectAndArrayReadAsNoScalar) {
    Element object;
    object["n"];
    Element array;
    static_cast<Array&>(array).resize(1);
    for (const Element& e : {Element(), object, array}) {
        expectIntegers(e, {std::nullopt, std::nullopt, std::nullopt, std::nullopt});
        EXPECT_EQ(asDouble(e), std::nullopt);
        EXPECT_EQ(asFloat(e), std::nullopt);
        EXPECT_EQ(asBool(e), std::nullopt);
        EXPECT_EQ(asString(e), std::nullopt);
    }
}

TEST(ElementConversions, IntAndUnsignedIntWrittenWithSetAsReadBackExactly) {
    Element e;
    SetAs<int>(INT_MIN, e);
    EXPECT_EQ(e.GetElementType(), Element::SignedType);
    EXPECT_EQ(asInt(e), INT_MIN);
    SetAs<unsigned int>(UINT_MAX, e);
    EXPECT_EQ(e.GetElementType(), Element::NumberType);
    EXPECT_EQ(asUnsignedInt(e), UINT_MAX);
    SetAs<long>(LONG_MIN, e);
    EXPECT_EQ(asLong(e), LONG_MIN);
    SetAs<bool>(false, e);
    EXPECT_EQ(asBool(e), false);
}

template <class T>
std::string refusalText(const Element& e) {
    T value{};
    try {
        GetAs<T>(e, value);
    } catch (const MetaDataException& error) {
        return error.what();
    }
    return "(no exception)";
}

TEST(ElementConversions, RefusalNamesTheTypeWantedAndWhatTheElementHolds) {
    EXPECT_EQ(refusalText<bool>(Element(1UL)),
              "Kest::MetaData::Element: expected bool, found unsigned integer");
    EXPECT_EQ(refusalText<double>(Element("x")),
              "Kest::MetaData::Element: expected double, found string");
    EXPECT_EQ(refusalText<int>(Element()), "Kest::MetaData::Element: expected int, found empty");
    EXPECT_EQ(refusalText<unsigned long>(Element(-1L)),
              "Kest::MetaData::Element: the signed integer -1 does not fit unsigned long exactly");
    EXPECT_EQ(refusalText<long>(Element(ULONG_MAX)),
              "Kest::MetaData::Element: the unsigned integer 18446744073709551615 does not fit long "
              "exactly");
    EXPECT_EQ(refusalText<float>(Element(0.1)),
              "Kest::MetaData::Element: the floating-point number 0.10000000000000001 does not fit "
              "float exactly");
    EXPECT_EQ(refusalText<long>(Element(true)), "Kest::MetaData::Element: expected long, found boolean");
}

}  // namespace
