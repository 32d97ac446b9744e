// Parsing, printing and the fallback chain of language tags.
#include <kestrel/locale.h>

#include <QFile>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrel {
namespace {

struct ParseRow {
  const char* name;
  const char* tag;
  int count;
  const char* language;
  const char* script;
  const char* region;
  const char* printed;
};

class LanguageTagParsing : public ::testing::TestWithParam<ParseRow> {};

TEST_P(LanguageTagParsing, SplitsIntoPartsAndPrintsHyphenated) {
  const ParseRow& row = GetParam();
  const LanguageCode code{QString::fromUtf8(row.tag)};
  EXPECT_EQ(code.partCount(), row.count);
  EXPECT_EQ(code.language(), QString::fromUtf8(row.language));
  EXPECT_EQ(code.script(), QString::fromUtf8(row.script));
  EXPECT_EQ(code.region(), QString::fromUtf8(row.region));
  EXPECT_EQ(code.string(), QString::fromUtf8(row.printed));
}

const ParseRow kParseRows[] = {
    {"Underscore", "en_US", 2, "en", "", "US", "en-US"},
    {"Hyphen", "en-US", 2, "en", "", "US", "en-US"},
    {"LanguageOnly", "fr", 1, "fr", "", "", "fr"},
    {"EncodingIgnored", "en_US.UTF-8", 2, "en", "", "US", "en-US"},
    {"LeadingDotsSkipped", "..de_CH.ISO-8859-1", 2, "de", "", "CH", "de-CH"},
    {"ScriptAndRegion", "zh_Hant_TW", 3, "zh", "Hant", "TW", "zh-Hant-TW"},
    {"ScriptOnly", "zh-Hant", 2, "zh", "Hant", "", "zh-Hant"},
    {"ThreeDigitRegionIgnored", "es-419", 2, "es", "", "", "es"},
    {"EmptySecondPartCounted", "en__US", 3, "en", "", "", "en"},
    {"CaseKept", "EN_us", 2, "EN", "", "us", "EN-us"},
    {"FourLetterSecondIsScriptEvenIfRegionLike", "sr_Latn_RS", 3, "sr", "Latn", "RS", "sr-Latn-RS"},
    {"RegionAfterNonScriptNotSeen", "ca_ES_VALENCIA", 3, "ca", "", "ES", "ca-ES"},
    {"OneLetterRegionIgnored", "en_U", 2, "en", "", "", "en"},
    {"ThreeLetterRegionIgnored", "en_USA", 2, "en", "", "", "en"},
    {"LongSecondPartIgnored", "en_Latin1", 2, "en", "", "", "en"},
    {"OnlyThirdPartExaminedAfterScript", "zh_Hans_CHN", 3, "zh", "Hans", "", "zh-Hans"},
    {"ModifierStaysInLanguage", "en@euro", 1, "en@euro", "", "", "en@euro"},
    {"UnparsableBecomesLanguage", "hello world", 1, "hello world", "", "", "hello world"},
    {"Empty", "", 0, "", "", "", ""},
    {"DotsOnly", "...", 0, "", "", "", ""},
    {"SeparatorOnly", "_", 2, "", "", "", ""},
    {"TrailingSeparator", "de_", 2, "de", "", "", "de"},
};

INSTANTIATE_TEST_SUITE_P(Rows, LanguageTagParsing, ::testing::ValuesIn(kParseRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(LanguageCode, DefaultIsEmptyCodeThatIsItsOwnParent) {
  const LanguageCode code;
  EXPECT_EQ(code.partCount(), 0);
  EXPECT_EQ(code.string(), QString());
  EXPECT_EQ(code.parent(), &code);
}

struct ChainRow {
  const char* tag;
  std::vector<const char*> chain;  // printed forms of parent(), parent()->parent(), ...
  std::vector<int> counts;
};

class LanguageFallback : public ::testing::TestWithParam<ChainRow> {};

// The walk ends at an empty code of count 0, which is its own parent; the
// region is never carried into a parent.
TEST_P(LanguageFallback, WalksToEmptyCodeThatEndsTheChain) {
  const ChainRow& row = GetParam();
  const LanguageCode code{QString::fromLatin1(row.tag)};
  const LanguageCode* at = &code;
  for (size_t i = 0; i < row.chain.size(); ++i) {
    const LanguageCode* up = at->parent();
    ASSERT_NE(up, at) << "chain ended early at step " << i;
    EXPECT_EQ(up->string(), QString::fromLatin1(row.chain[i])) << "step " << i;
    EXPECT_EQ(up->partCount(), row.counts[i]) << "step " << i;
    EXPECT_TRUE(up->region().isEmpty());
    at = up;
  }
  EXPECT_EQ(at->partCount(), 0);
  EXPECT_EQ(at->parent(), at);
}

const ChainRow kChainRows[] = {
    {"zh_Hant_TW", {"zh-Hant", "zh", ""}, {2, 1, 0}},
    {"en_US", {"en", ""}, {1, 0}},
    {"fr", {""}, {0}},
    {"en__US", {"en", "en", ""}, {2, 1, 0}},
    {"zh-Hant", {"zh", ""}, {1, 0}},
    {"sr_Latn_RS_x", {"sr-Latn", "sr-Latn", "sr", ""}, {3, 2, 1, 0}},
};

INSTANTIATE_TEST_SUITE_P(Rows, LanguageFallback, ::testing::ValuesIn(kChainRows),
                         [](const auto& row) {
                           std::string name = row.param.tag;
                           for (char& c : name)
                             if (c == '-') c = '_';
                           return name;
                         });

TEST(LanguageCode, EachParentCallReplacesTheEarlierParent) {
  const LanguageCode code(QStringLiteral("en_US"));
  const Ref<LanguageCode> first(const_cast<LanguageCode*>(code.parent()));
  const LanguageCode* second = code.parent();
  EXPECT_NE(first.get(), second);
  EXPECT_EQ(first->refCount(), 1);   // only our reference is left
  EXPECT_EQ(second->refCount(), 1);  // held by code
  EXPECT_EQ(second->string(), QStringLiteral("en"));
}

TEST(LanguageCode, CopySharesParentAndPrintedFormButNotTheCount) {
  const LanguageCode code(QStringLiteral("zh_Hant_TW"));
  EXPECT_EQ(code.string(), QStringLiteral("zh-Hant-TW"));
  const LanguageCode* up = code.parent();
  LanguageCode copy(code);
  EXPECT_EQ(copy.refCount(), 0);
  EXPECT_EQ(copy.partCount(), 3);
  EXPECT_EQ(copy.script(), QStringLiteral("Hant"));
  EXPECT_EQ(copy.region(), QStringLiteral("TW"));
  EXPECT_EQ(up->refCount(), 2);  // code and copy both hold the parent
  LanguageCode assigned(QStringLiteral("fr"));
  assigned = copy;
  EXPECT_EQ(assigned.string(), QStringLiteral("zh-Hant-TW"));
  EXPECT_EQ(assigned.partCount(), 3);
  EXPECT_EQ(up->refCount(), 3);
}

TEST(Referent, LastReferenceDeletesTheObject) {
  static int destroyed = 0;
  struct Probe : Referent {
    ~Probe() override { ++destroyed; }
  };
  destroyed = 0;
  Ref<Probe> a(new Probe);
  Ref<Probe> b = a;
  EXPECT_EQ(a->refCount(), 2);
  a = nullptr;
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(b->refCount(), 1);
  Ref<Probe>& alias = b;
  b = alias;  // self-assignment keeps the object
  EXPECT_EQ(destroyed, 0);
  b = nullptr;
  EXPECT_EQ(destroyed, 1);
}

// Every locale the C library lists parses to a language of letters, a region
// of two upper-case letters where the tag has one, and prints hyphenated.
TEST(LanguageCode, ParsesEverySupportedSystemLocale) {
  QFile file(QStringLiteral("/usr/share/i18n/SUPPORTED"));
  if (!file.open(QIODevice::ReadOnly)) GTEST_SKIP() << "/usr/share/i18n/SUPPORTED is not installed";
  const QRegularExpression shape(QRegularExpression::anchoredPattern(
      QStringLiteral("([a-z]{2,3})(?:_([A-Z]{2}|[0-9]{3}))?(?:\\.[^@ ]+)?(?:@\\S+)?")));
  int checked = 0;
  while (!file.atEnd()) {
    const QString tag =
        QString::fromUtf8(file.readLine()).section(QLatin1Char(' '), 0, 0).trimmed();
    const QRegularExpressionMatch match = shape.match(tag);
    if (!match.hasMatch()) continue;
    const LanguageCode code(tag.section(QLatin1Char('@'), 0, 0));
    const QString region = match.captured(2).size() == 2 ? match.captured(2) : QString();
    EXPECT_EQ(code.language(), match.captured(1)) << tag.toStdString();
    EXPECT_EQ(code.region(), region) << tag.toStdString();
    EXPECT_EQ(code.string(),
              region.isEmpty() ? match.captured(1) : match.captured(1) + "-" + region)
        << tag.toStdString();
    ++checked;
  }
  if (checked == 0) GTEST_SKIP() << "SUPPORTED lists no locale";
  EXPECT_GT(checked, 100);
}

}  // namespace
}  // namespace kestrel
