#include <kest/metadata/Element.h>
#include <kest/metadata/MirroredObject.h>
#include <kest/model/Reflector.h>

#include <support/TestSupport.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using Kest::MetaData::Array;
using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::HasElement;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::MirroredObject;
using Kest::MetaData::Reflector;
using Kest::MetaData::ReflectorArray;
using Kest::MetaData::ReflectorNoWriteParend;
using Kest::MetaData::SetAs;
using KestTest::CaptureStdout;

template <class T>
using Field = Reflector<T, false, true>;

static_assert(std::is_base_of_v<ReflectorNoWriteParend<long, true>, Field<long>>);
static_assert(std::is_base_of_v<ReflectorNoWriteParend<double, true>, Field<double>>);
static_assert(std::is_base_of_v<ReflectorNoWriteParend<bool, true>, Field<bool>>);
static_assert(std::is_same_v<decltype(std::declval<const Field<float>&>()()), const float&>);
static_assert(std::is_same_v<decltype(std::declval<const ReflectorArray<bool>&>()()),
                             const std::vector<bool>&>);

// A reading from a sensor: one field of every scalar type, and arrays.
class Reading : public MirroredObject {
public:
    Reading() = default;
    Reading(const Reading& other)
        : MirroredObject(other),
          level(this, other.level),
          offset(this, other.offset),
          samples(this, other.samples),
          value(this, other.value),
          gain(this, other.gain),
          valid(this, other.valid),
          total(this, other.total),
          unit(this, other.unit),
          history(this, other.history),
          weights(this, other.weights),
          flags(this, other.flags),
          steps(this, other.steps),
          counts(this, other.counts),
          scales(this, other.scales),
          totals(this, other.totals),
          labels(this, other.labels) {}

    Field<long> level{this, "Level", false};
    Field<int> offset{this, "Offset", false};
    Field<unsigned int> samples{this, "Samples", false};
    Field<double> value{this, "Value", true};
    Field<float> gain{this, "Gain", false};
    Field<bool> valid{this, "Valid", false};
    Field<unsigned long> total{this, "Total", false};
    Field<std::string> unit{this, "Unit", false};
    ReflectorArray<long> history{this, "History", false};
    ReflectorArray<double> weights{this, "Weights", false};
    ReflectorArray<bool> flags{this, "Flags", false};
    ReflectorArray<int> steps{this, "Steps", false};
    ReflectorArray<unsigned int> counts{this, "Counts", false};
    ReflectorArray<float> scales{this, "Scales", false};
    ReflectorArray<unsigned long> totals{this, "Totals", false};
    ReflectorArray<std::string> labels{this, "Labels", false};
};

// Every field set, values at the edges of their types.
void fill(Reading& r) {
    r.level.assign(LONG_MIN);
    r.offset.assign(INT_MIN);
    r.samples.assign(UINT_MAX);
    r.value.assign(-3.25);
    r.gain.assign(0.1F);
    r.valid.assign(true);
    r.total.assign(ULONG_MAX);
    r.unit.assign("degC");
    r.history.assign({LONG_MAX, -1, 0});
    r.weights.assign({0.5, -0.0, std::numeric_limits<double>::infinity(), 1e-300});
    r.flags.assign({true, false, true});
    r.steps.assign({INT_MAX, -7});
    r.counts.assign({0U, UINT_MAX});
    r.scales.assign({FLT_MAX, -0.1F});
    r.totals.assign({ULONG_MAX, 5});
    r.labels.assign({"a", ""});
}

void expectFilled(const Reading& r) {
    EXPECT_EQ(r.level(), LONG_MIN);
    EXPECT_EQ(r.offset(), INT_MIN);
    EXPECT_EQ(r.samples(), UINT_MAX);
    EXPECT_EQ(r.value(), -3.25);
    EXPECT_EQ(r.gain(), 0.1F);
    EXPECT_EQ(r.valid(), true);
    EXPECT_EQ(r.total(), ULONG_MAX);
    EXPECT_EQ(r.unit(), "degC");
    EXPECT_EQ(r.history(), (std::vector<long>{LONG_MAX, -1, 0}));
    ASSERT_EQ(r.weights().size(), 4U);
    EXPECT_EQ(r.weights()[0], 0.5);
    EXPECT_EQ(r.weights()[1], 0.0);
    EXPECT_TRUE(std::signbit(r.weights()[1]));
    EXPECT_EQ(r.weights()[2], std::numeric_limits<double>::infinity());
    EXPECT_EQ(r.weights()[3], 1e-300);
    EXPECT_EQ(r.flags(), (std::vector<bool>{true, false, true}));
    EXPECT_EQ(r.steps(), (std::vector<int>{INT_MAX, -7}));
    EXPECT_EQ(r.counts(), (std::vector<unsigned int>{0U, UINT_MAX}));
    EXPECT_EQ(r.scales(), (std::vector<float>{FLT_MAX, -0.1F}));
    EXPECT_EQ(r.totals(), (std::vector<unsigned long>{ULONG_MAX, 5}));
    EXPECT_EQ(r.labels(), (std::vector<std::string>{"a", ""}));
}

const Element& member(const Element& tree, const std::string& name) { return tree[name]; }

TEST(ReflectorTypes, FieldsOfEveryTypeWriteTheKindOfTheirType) {
    Reading r;
    fill(r);
    Element tree;
    r.copyToMetaData(tree);
    EXPECT_EQ(member(tree, "Level").GetElementType(), Element::SignedType);
    EXPECT_EQ(member(tree, "Offset").GetElementType(), Element::SignedType);
    EXPECT_EQ(member(tree, "Samples").GetElementType(), Element::NumberType);
    EXPECT_EQ(member(tree, "Value").GetElementType(), Element::FloatType);
    EXPECT_EQ(member(tree, "Gain").GetElementType(), Element::FloatType);
    EXPECT_EQ(member(tree, "Valid").GetElementType(), Element::BooleanType);
    EXPECT_EQ(member(tree, "Total").GetElementType(), Element::NumberType);
    const Array& history = member(tree, "History");
    ASSERT_EQ(history.size(), 3U);
    EXPECT_EQ(history[1].GetElementType(), Element::SignedType);
    const Array& flags = member(tree, "Flags");
    ASSERT_EQ(flags.size(), 3U);
    EXPECT_EQ(flags[0].GetElementType(), Element::BooleanType);
    const Array& scales = member(tree, "Scales");
    ASSERT_EQ(scales.size(), 2U);
    EXPECT_EQ(scales[1].GetElementType(), Element::FloatType);

    long level = 0;
    GetAs(member(tree, "Level"), level);
    EXPECT_EQ(level, LONG_MIN);
    double gain = 0;
    GetAs(member(tree, "Gain"), gain);
    EXPECT_EQ(gain, static_cast<double>(0.1F));
    bool valid = false;
    GetAs(member(tree, "Valid"), valid);
    EXPECT_TRUE(valid);
}

TEST(ReflectorTypes, RecordWithFieldsOfEveryTypeRoundTripsThroughTree) {
    Reading r;
    fill(r);
    Element tree;
    r.copyToMetaData(tree);
    Reading back;
    CaptureStdout capture;
    back.copyFromMetaData(tree);
    EXPECT_EQ(capture.text(), "");
    expectFilled(back);
}

TEST(ReflectorTypes, CopyOfRecordCarriesValuesOfEveryTypeInItsOwnFields) {
    Reading r;
    fill(r);
    Reading copy(r);
    expectFilled(copy);
    // Reading into the copy leaves the original alone.
    Element tree;
    SetAs<long>(1, tree["Level"]);
    copy.copyFromMetaData(tree);
    EXPECT_EQ(copy.level(), 1);
    EXPECT_FALSE(copy.value.initialized());
    expectFilled(r);
}

TEST(ReflectorTypes, NaNAndNegativeZeroSurviveTheRoundTrip) {
    Reading r;
    r.value.assign(std::numeric_limits<double>::quiet_NaN());
    r.gain.assign(-0.0F);
    Element tree;
    r.copyToMetaData(tree);
    Reading back;
    back.copyFromMetaData(tree);
    ASSERT_TRUE(back.value.initialized());
    EXPECT_TRUE(std::isnan(back.value()));
    ASSERT_TRUE(back.gain.initialized());
    EXPECT_EQ(back.gain(), 0.0F);
    EXPECT_TRUE(std::signbit(back.gain()));
}

TEST(ReflectorTypes, NumberOfAnotherKindIsReadWhereItsValueFitsExactly) {
    Element tree;
    SetAs<unsigned long>(5, tree["Level"]);
    SetAs<double>(-3.0, tree["Offset"]);
    SetAs<long>(7, tree["Samples"]);
    SetAs<long>(-9007199254740992L, tree["Value"]);
    SetAs<unsigned long>(16777216, tree["Gain"]);
    SetAs<long>(12, tree["Total"]);
    Reading r;
    r.copyFromMetaData(tree);
    EXPECT_EQ(r.level(), 5);
    EXPECT_EQ(r.offset(), -3);
    EXPECT_EQ(r.samples(), 7U);
    EXPECT_EQ(r.value(), -9007199254740992.0);
    EXPECT_EQ(r.gain(), 16777216.0F);
    EXPECT_EQ(r.total(), 12U);
}

// The value a field falls back to is T(), unset; the field reads it once set again.
template <class T>
void expectReset(Field<T>& field, const std::string& what) {
    EXPECT_FALSE(field.initialized()) << what;
    field.init();
    EXPECT_EQ(field(), T()) << what;
}

TEST(ReflectorTypes, NumberThatDoesNotFitTheFieldResetsItSilently) {
    Element tree;
    SetAs<unsigned long>(static_cast<unsigned long>(LONG_MAX) + 1, tree["Level"]);
    SetAs<long>(static_cast<long>(INT_MAX) + 1, tree["Offset"]);
    SetAs<long>(-1, tree["Samples"]);
    SetAs<unsigned long>(9007199254740993UL, tree["Value"]);  // 2^53 + 1
    SetAs<double>(0.1, tree["Gain"]);
    SetAs<double>(0.5, tree["Total"]);
    Reading r;
    fill(r);
    CaptureStdout capture;
    r.copyFromMetaData(tree);
    EXPECT_EQ(capture.text(), "");
    expectReset(r.level, "long from 2^63");
    expectReset(r.offset, "int from 2^31");
    expectReset(r.samples, "unsigned int from -1");
    expectReset(r.value, "double from 2^53 + 1");
    expectReset(r.gain, "float from 0.1");
    expectReset(r.total, "unsigned long from 0.5");
}

TEST(ReflectorTypes, ElementOfTheWrongKindResetsEveryScalarFieldSilently) {
    // For each field, elements of every kind it does not read.
    Element string;
    SetAs<std::string>("1", string);
    Element object;
    object["Level"];
    Element array;
    static_cast<Array&>(array).resize(1);
    const Element numbers[] = {Element(1UL), Element(1L), Element(1.0)};
    const Element flag(true);

    std::vector<Element> notNumbers = {Element(), string, object, array, flag};
    std::vector<Element> notBooleans = {Element(), string, object, array};
    notBooleans.insert(notBooleans.end(), std::begin(numbers), std::end(numbers));
    std::vector<Element> notStrings = {Element(), object, array, flag};
    notStrings.insert(notStrings.end(), std::begin(numbers), std::end(numbers));

    for (const Element& wrong : notNumbers) {
        Element tree;
        for (const char* name : {"Level", "Offset", "Samples", "Value", "Gain", "Total"}) tree[name] = wrong;
        tree["Valid"] = Element(false);
        Reading r;
        fill(r);
        CaptureStdout capture;
        r.copyFromMetaData(tree);
        EXPECT_EQ(capture.text(), "");
        const std::string what = "element type " + std::to_string(wrong.GetElementType());
        expectReset(r.level, what);
        expectReset(r.offset, what);
        expectReset(r.samples, what);
        expectReset(r.value, what);
        expectReset(r.gain, what);
        expectReset(r.total, what);
        EXPECT_EQ(r.valid(), false);  // read from its own element
    }
    for (const Element& wrong : notBooleans) {
        Element tree;
        tree["Valid"] = wrong;
        Reading r;
        fill(r);
        r.copyFromMetaData(tree);
        expectReset(r.valid, "element type " + std::to_string(wrong.GetElementType()));
    }
    for (const Element& wrong : notStrings) {
        Element tree;
        tree["Unit"] = wrong;
        Reading r;
        fill(r);
        r.copyFromMetaData(tree);
        expectReset(r.unit, "element type " + std::to_string(wrong.GetElementType()));
    }
}

TEST(ReflectorTypes, MissingElementResetsFieldsOfEveryType) {
    Reading r;
    fill(r);
    Element tree;
    tree["Unrelated"];
    r.copyFromMetaData(tree);
    expectReset(r.level, "Level");
    expectReset(r.offset, "Offset");
    expectReset(r.samples, "Samples");
    expectReset(r.value, "Value");
    expectReset(r.gain, "Gain");
    expectReset(r.valid, "Valid");
    EXPECT_FALSE(r.flags.initialized());
    EXPECT_TRUE(r.flags().empty());
}

TEST(ReflectorTypes, ReadingUnsetFieldOfNewTypeThrows) {
    Reading r;
    EXPECT_THROW((void)r.level(), MetaDataException);
    EXPECT_THROW((void)r.value(), MetaDataException);
    EXPECT_THROW((void)r.valid(), MetaDataException);
}

TEST(ReflectorTypes, UnsetFieldsOfNewTypesWriteNothing) {
    Reading r;
    r.valid.assign(false);
    Element tree;
    r.copyToMetaData(tree);
    EXPECT_TRUE(HasElement(tree, "Valid"));
    for (const char* name : {"Level", "Offset", "Samples", "Value", "Gain", "History", "Flags"}) {
        EXPECT_FALSE(HasElement(tree, name)) << name;
    }
}

TEST(ReflectorTypes, ArrayEntryThatDoesNotFitPrintsCorruptAndKeepsTheField) {
    Reading r;
    fill(r);
    Element tree;
    r.copyToMetaData(tree);
    Array& steps = tree["Steps"];
    SetAs<long>(static_cast<long>(INT_MAX) + 1, steps[1]);
    Array& flags = tree["Flags"];
    SetAs<unsigned long>(1, flags[2]);
    Array& counts = tree["Counts"];
    SetAs<long>(-1, counts[0]);
    Array& scales = tree["Scales"];
    SetAs<double>(0.1, scales[0]);
    CaptureStdout capture;
    r.copyFromMetaData(tree);
    EXPECT_EQ(capture.lines(),
              (std::vector<std::string>{"Exception MetaDat::ReflectorArray MetaData Array corrupt for Flags",
                                        "Exception MetaDat::ReflectorArray MetaData Array corrupt for Steps",
                                        "Exception MetaDat::ReflectorArray MetaData Array corrupt for Counts",
                                        "Exception MetaDat::ReflectorArray MetaData Array corrupt for Scales"}));
    expectFilled(r);
}

TEST(ReflectorTypes, ArrayOfNumbersReadsEntriesOfAnotherKindThatFit) {
    Element tree;
    Array& history = tree["History"];
    history.resize(3);
    SetAs<unsigned long>(5, history[0]);
    SetAs<double>(-2.0, history[1]);
    SetAs<long>(-3, history[2]);
    Array& weights = tree["Weights"];
    weights.resize(2);
    SetAs<long>(-1, weights[0]);
    SetAs<unsigned long>(1UL << 60, weights[1]);
    Reading r;
    CaptureStdout capture;
    r.copyFromMetaData(tree);
    EXPECT_EQ(capture.text(), "");
    EXPECT_EQ(r.history(), (std::vector<long>{5, -2, -3}));
    EXPECT_EQ(r.weights(), (std::vector<double>{-1.0, 1152921504606846976.0}));
}

TEST(ReflectorTypes, FieldThatIsNotSerialisedStaysOutOfTheTree) {
    ReflectorNoWriteParend<double, false> hidden(nullptr, "Hidden", false);
    hidden.assign(2.5);
    Element tree;
    hidden.copyToMetaData(tree);
    EXPECT_EQ(tree.GetElementType(), Element::EmptyType);
    SetAs<double>(7.0, tree["Hidden"]);
    hidden.copyFromMetaData(tree);
    EXPECT_EQ(hidden(), 2.5);
}

}  // namespace
