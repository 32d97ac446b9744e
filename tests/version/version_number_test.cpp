// Reading and ordering of four-part versions, and the integer rank of a
// dotted version.
#include "settings/settings_test_support.h"

#include <kestrel/version.h>

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace {

struct ParseRow {
  const char* name;
  QString text;
  int count;
  VersionNumber expected;
};

class VersionNumberParsing : public ::testing::TestWithParam<ParseRow> {};

TEST_P(VersionNumberParsing, ReadsLikeScanfAndZeroesTheRest) {
  const ParseRow& row = GetParam();
  VersionNumber v(9, 9, 9, 9);
  EXPECT_EQ(v.fromQString(row.text), row.count);
  EXPECT_EQ(v.mMajor, row.expected.mMajor);
  EXPECT_EQ(v.mMinor, row.expected.mMinor);
  EXPECT_EQ(v.mBuild, row.expected.mBuild);
  EXPECT_EQ(v.mPatch, row.expected.mPatch);
  // The text constructor reads the same way.
  EXPECT_TRUE(VersionNumber(row.text) == row.expected);
}

const ParseRow kParseRows[] = {
    {"Full", "4.1.7076.4458", 4, {4, 1, 7076, 4458}},
    {"TwoParts", "4.1", 2, {4, 1, 0, 0}},
    {"NullText", QString(), 0, {0, 0, 0, 0}},
    {"EmptyText", "", 0, {0, 0, 0, 0}},
    {"BlanksOnly", "   ", 0, {0, 0, 0, 0}},
    {"BlanksBeforeNumbers", " 1. 2.\t3.\n4", 4, {1, 2, 3, 4}},
    {"BlankBeforeDotStops", "1 .2", 1, {1, 0, 0, 0}},
    {"Signs", "-1.+2.-0.4", 4, {-1, 2, 0, 4}},
    {"SignWithoutDigit", "+.1", 0, {0, 0, 0, 0}},
    {"EmptyPartStops", "1..2", 1, {1, 0, 0, 0}},
    {"CommaIsNoSeparator", "1,2", 1, {1, 0, 0, 0}},
    {"TrailingDot", "7.", 1, {7, 0, 0, 0}},
    {"LetterFirst", "a.1", 0, {0, 0, 0, 0}},
    {"FifthPartIgnored", "1.2.3.4.5", 4, {1, 2, 3, 4}},
    {"TrailingTextIgnored", "1.2.3.4beta", 4, {1, 2, 3, 4}},
    {"HexPrefixStopsAfterZero", "0x10.1", 1, {0, 0, 0, 0}},
    {"LeadingZerosDecimal", "010.08", 2, {10, 8, 0, 0}},
    {"TooLargeSaturates", "99999999999.1", 2, {INT_MAX, 1, 0, 0}},
    {"TooSmallSaturates", "-99999999999.1", 2, {INT_MIN, 1, 0, 0}},
    {"IntLimitsExact", "2147483647.-2147483648", 2, {INT_MAX, INT_MIN, 0, 0}},
    {"NulEndsText", QString::fromLatin1("1.2\0.3", 6), 2, {1, 2, 0, 0}},
    {"NonLatin1IsNotADigit", QString::fromUtf8("1.\xe4\xb8\x80"), 1, {1, 0, 0, 0}},
};

INSTANTIATE_TEST_SUITE_P(Rows, VersionNumberParsing, ::testing::ValuesIn(kParseRows),
                         [](const auto& row) { return std::string(row.param.name); });

struct OrderRow {
  const char* name;
  VersionNumber a;
  VersionNumber b;
  int order;  // -1: a before b, 0: equal, 1: a after b
};

class VersionNumberOrder : public ::testing::TestWithParam<OrderRow> {};

// Every operator agrees with one lexicographic order, in both directions.
TEST_P(VersionNumberOrder, AllOperatorsAgreeWithLexicographicOrder) {
  const OrderRow& row = GetParam();
  const auto check = [](const VersionNumber& x, const VersionNumber& y, int order) {
    EXPECT_EQ(x == y, order == 0);
    EXPECT_EQ(x < y, order < 0);
    EXPECT_EQ(x <= y, order <= 0);
    EXPECT_EQ(x > y, order > 0);
    EXPECT_EQ(x >= y, order >= 0);
  };
  check(row.a, row.b, row.order);
  check(row.b, row.a, -row.order);
}

const OrderRow kOrderRows[] = {
    {"Equal", {1, 2, 3, 4}, {1, 2, 3, 4}, 0},
    {"PatchDecides", {1, 2, 3, 4}, {1, 2, 3, 5}, -1},
    {"BuildBeforePatch", {1, 2, 3, 5}, {1, 2, 4, 0}, -1},
    {"MinorBeforeBuild", {1, 3, 0, 0}, {1, 2, 9999, 9999}, 1},
    {"MajorFirst", {2, 0, 0, 0}, {1, 9, 9, 9}, 1},
    {"SignedParts", {-1, 0, 0, 0}, {0, 0, 0, 0}, -1},
    {"NegativePatch", {1, 2, 3, -4}, {1, 2, 3, 0}, -1},
    {"Extremes", {INT_MIN, 0, 0, 0}, {INT_MAX, 0, 0, 0}, -1},
};

INSTANTIATE_TEST_SUITE_P(Rows, VersionNumberOrder, ::testing::ValuesIn(kOrderRows),
                         [](const auto& row) { return std::string(row.param.name); });

struct RankRow {
  const char* name;
  const char* text;
  int rank;
  bool ok;
};

class VersionRank : public ::testing::TestWithParam<RankRow> {};

// Weights 100000, 10000, 1 on the first three parts; the fourth part is never
// read, more than four parts or a part that is not a number is bad.
TEST_P(VersionRank, WeighsFirstThreeParts) {
  const RankRow& row = GetParam();
  bool ok = !row.ok;
  EXPECT_EQ(VersionInfo::parseVersionNumber(QString::fromLatin1(row.text), &ok), row.rank);
  EXPECT_EQ(ok, row.ok);
  EXPECT_EQ(VersionInfo::parseVersionNumber(QString::fromLatin1(row.text)), row.rank);
}

const RankRow kRankRows[] = {
    {"Build", "4.1.7076.4458", 417076, true},
    {"TwoParts", "4.1", 410000, true},
    {"OnePart", "3", 300000, true},
    {"FiveParts", "1.2.3.4.5", 120003, false},
    {"Letters", "a.b", 0, false},
    {"BadMiddlePart", "1.x.3", 100003, false},
    {"FourthPartNeverRead", "1.2.3.junk", 120003, true},
    {"EmptyPartsDropped", "..4..1..", 410000, true},
    {"FiveWithEmptyPartsStillFive", "1..2.3.4.5", 120003, false},
    {"Empty", "", 0, true},
    {"MinorOverlapsMajor", "1.10", 200000, true},
    {"BuildOverlapsMinor", "0.0.10000", 10000, true},
    {"NegativeIsNotUnsigned", "-1.2", 20000, false},
    {"PlusSignAccepted", "+1", 100000, true},
    {"UnsignedOverflowIsBad", "4294967296.1", 10000, false},
    {"SumWrapsModulo32Bits", "42950", static_cast<int>(42950u * 100000u), true},
};

INSTANTIATE_TEST_SUITE_P(Rows, VersionRank, ::testing::ValuesIn(kRankRows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
