#include <kest/metadata/Element.h>
#include <kest/model/Identifier.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

using Kest::MetaData::Element;
using Kest::MetaData::GetAs;
using Kest::MetaData::MetaDataException;
using Kest::MetaData::SetAs;
using Kest::Msgs::Identifier;

static_assert(static_cast<unsigned long>(Identifier(0x0102, 0x0304)) == 0x01020304UL);
static_assert(Identifier(0x01020304UL).category() == 0x0102);
static_assert(Identifier(0x01020304UL).type() == 0x0304);

TEST(Identifier, PacksCategoryAboveType) {
    EXPECT_EQ(static_cast<unsigned long>(Identifier(1, 0)), 0x10000UL);
    EXPECT_EQ(static_cast<unsigned long>(Identifier(0, 1)), 1UL);
    EXPECT_EQ(static_cast<unsigned long>(Identifier(0xABCD, 0x1234)), 0xABCD1234UL);
    EXPECT_EQ(static_cast<unsigned long>(Identifier(0x0F0D, 9)), (0x0F0DUL << 16) | 9UL);
}

TEST(Identifier, NumberConvertsBackToTheSameNumber) {
    for (unsigned long n : {0UL, 1UL, 65535UL, 65536UL, 0x12345678UL, 0xFFFFFFFFUL}) {
        EXPECT_EQ(static_cast<unsigned long>(Identifier(n)), n) << n;
    }
}

TEST(Identifier, PartsSurviveTheRoundTripThroughTheNumber) {
    for (std::uint16_t category : {0, 1, 0x7FFF, 0x8000, 0xFFFF}) {
        for (std::uint16_t type : {0, 1, 0x7FFF, 0x8000, 0xFFFF}) {
            const Identifier id(Identifier(category, type).operator unsigned long());
            EXPECT_EQ(id.category(), category);
            EXPECT_EQ(id.type(), type);
        }
    }
}

TEST(Identifier, CategoryAndTypeHoldZero) {
    const Identifier id(0, 0);
    EXPECT_EQ(id.category(), 0);
    EXPECT_EQ(id.type(), 0);
    EXPECT_EQ(static_cast<unsigned long>(id), 0UL);
    EXPECT_EQ(Identifier(0UL).category(), 0);
    EXPECT_EQ(Identifier(0UL).type(), 0);
}

TEST(Identifier, CategoryAndTypeHold65535) {
    const Identifier id(65535, 65535);
    EXPECT_EQ(id.category(), 65535);
    EXPECT_EQ(id.type(), 65535);
    EXPECT_EQ(static_cast<unsigned long>(id), 0xFFFFFFFFUL);

    EXPECT_EQ(Identifier(65535, 0).category(), 65535);
    EXPECT_EQ(Identifier(65535, 0).type(), 0);
    EXPECT_EQ(Identifier(0, 65535).category(), 0);
    EXPECT_EQ(Identifier(0, 65535).type(), 65535);
}

TEST(Identifier, DefaultIsZero) {
    EXPECT_EQ(static_cast<unsigned long>(Identifier()), 0UL);
}

TEST(Identifier, CopiesItselfToTreeAsThePackedNumber) {
    Element tree;
    Identifier(7, 9).copyToMetaData(tree);
    unsigned long n = 0;
    GetAs<unsigned long>(tree, n);
    EXPECT_EQ(n, (7UL << 16) | 9UL);
}

TEST(Identifier, ReadsItselfFromTree) {
    Element tree;
    SetAs<unsigned long>(0x00050006UL, tree);
    Identifier id;
    id.copyFromMetaData(tree);
    EXPECT_EQ(id.category(), 5);
    EXPECT_EQ(id.type(), 6);
}

TEST(Identifier, ReadingFromNonNumberThrowsAndKeepsValue) {
    Element tree;
    SetAs<std::string>("5", tree);
    Identifier id(3, 4);
    EXPECT_THROW(id.copyFromMetaData(tree), MetaDataException);
    EXPECT_EQ(static_cast<unsigned long>(id), static_cast<unsigned long>(Identifier(3, 4)));
}

TEST(Identifier, ReadsASignedOrFloatingPointNumberThatFitsUnsignedLong) {
    Element tree;
    SetAs<long>(0x00050006L, tree);
    Identifier id;
    id.copyFromMetaData(tree);
    EXPECT_EQ(static_cast<unsigned long>(id), 0x00050006UL);
    SetAs<double>(65536.0, tree);
    id.copyFromMetaData(tree);
    EXPECT_EQ(static_cast<unsigned long>(id), 65536UL);
}

TEST(Identifier, ReadingANumberThatDoesNotFitOrABooleanThrowsAndKeepsValue) {
    Element negative;
    SetAs<long>(-1, negative);
    Element fraction;
    SetAs<double>(1.5, fraction);
    Element flag;
    SetAs<bool>(true, flag);
    for (const Element& tree : {negative, fraction, flag}) {
        Identifier id(3, 4);
        EXPECT_THROW(id.copyFromMetaData(tree), MetaDataException) << tree.GetElementType();
        EXPECT_EQ(static_cast<unsigned long>(id), static_cast<unsigned long>(Identifier(3, 4)));
    }
}

}  // namespace
