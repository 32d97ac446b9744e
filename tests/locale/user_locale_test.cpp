// The user's languages from the environment, the saved choice in the user's
// settings, region completion, the current locale and the URL templates.
#include "env/locale_store.h"
#include "system/system_test_support.h"

#include <kestrel/locale.h>
#include <kestrel/system.h>

#include <QSettings>

#include <optional>
#include <string>

namespace kestrel {
namespace {

using test::ScopedEnv;
using Var = std::optional<std::string>;
const Var kUnset = std::nullopt;

// Sets the four locale variables for its lifetime (nullopt unsets one).
struct LocaleEnv {
  LocaleEnv(Var language, Var all, Var messages, Var lang)
      : mLanguage("LANGUAGE", std::move(language)),
        mAll("LC_ALL", std::move(all)),
        mMessages("LC_MESSAGES", std::move(messages)),
        mLang("LANG", std::move(lang)) {}
  ScopedEnv mLanguage, mAll, mMessages, mLang;
};

struct EnvRow {
  const char* name;
  Var language, all, messages, lang;
  QStringList expected;
  const char* country;
};

class UserLanguages : public ::testing::TestWithParam<EnvRow> {};

// LANGUAGE entries come first in order, then the first of LC_ALL,
// LC_MESSAGES, LANG that names a locale; "C", "POSIX" and "C.UTF-8" count as
// absent; encoding and modifier are dropped.
TEST_P(UserLanguages, ListFollowsLanguageThenFirstLocaleVariable) {
  const EnvRow& row = GetParam();
  const LocaleEnv env(row.language, row.all, row.messages, row.lang);
  EXPECT_EQ(System::getPlatformPreferredLocaleList(), row.expected);
  EXPECT_EQ(System::getPlatformCountryCode(), QString::fromLatin1(row.country));
}

const EnvRow kEnvRows[] = {
    {"NothingSet", kUnset, kUnset, kUnset, kUnset, {}, ""},
    {"LangOnly", kUnset, kUnset, kUnset, "en_US.UTF-8", {"en_US"}, "us"},
    {"ModifierDropped", kUnset, kUnset, kUnset, "de_DE.UTF-8@euro", {"de_DE"}, "de"},
    {"ModifierWithoutEncodingDropped", kUnset, kUnset, kUnset, "sr_RS@latin", {"sr_RS"}, "rs"},
    {"LcAllWins", kUnset, "fr_FR.UTF-8", "de_DE", "en_US", {"fr_FR"}, "fr"},
    {"MessagesBeforeLang", kUnset, kUnset, "de_AT", "en_US", {"de_AT"}, "at"},
    {"EmptyLcAllSkipped", kUnset, "", "de_AT", "en_US", {"de_AT"}, "at"},
    {"CLcAllSkipped", kUnset, "C", kUnset, "pt_BR.UTF-8", {"pt_BR"}, "br"},
    {"PosixSkipped", kUnset, kUnset, "POSIX", "it_IT", {"it_IT"}, "it"},
    {"CUtf8Skipped", kUnset, "C.UTF-8", kUnset, "ja_JP.eucJP", {"ja_JP"}, "jp"},
    {"OnlyCLocales", kUnset, "C", "POSIX", "C.UTF-8", {}, ""},
    {"LanguageListFirst",
     "fr_CA:fr:en",
     kUnset,
     kUnset,
     "en_GB.UTF-8",
     {"fr_CA", "fr", "en", "en_GB"},
     "gb"},
    {"LanguageEmptyEntriesSkipped", ":de::en:", kUnset, kUnset, kUnset, {"de", "en"}, ""},
    {"LanguageCEntrySkipped", "C:es_MX.UTF-8", kUnset, kUnset, kUnset, {"es_MX"}, ""},
    {"LanguageWithoutLocale", "nl", kUnset, kUnset, kUnset, {"nl"}, ""},
    {"LanguageOnlyWithCLocale", "sv", "C", kUnset, kUnset, {"sv"}, ""},
    {"NoRegionNoCountry", kUnset, kUnset, kUnset, "eo.UTF-8", {"eo"}, ""},
    {"ScriptLocaleCountry", kUnset, kUnset, kUnset, "zh_Hant_TW.UTF-8", {"zh_Hant_TW"}, "tw"},
};

INSTANTIATE_TEST_SUITE_P(Rows, UserLanguages, ::testing::ValuesIn(kEnvRows),
                         [](const auto& row) { return std::string(row.param.name); });

// Writes (or with nullopt removes) the saved "locale" choice in the user's
// application settings, the store the library reads.
void saveLocaleChoice(const std::optional<QString>& value) {
  QSettings settings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Orvane"),
                     QStringLiteral("Kestrel"));
  if (value)
    settings.setValue(QStringLiteral("locale"), *value);
  else
    settings.remove(QStringLiteral("locale"));
  settings.sync();
  ASSERT_EQ(settings.status(), QSettings::NoError);
}

TEST(SavedLocale, ChoiceInUserSettingsGoesInFront) {
  const LocaleEnv env("fr", kUnset, kUnset, "en_US.UTF-8");
  saveLocaleChoice(QStringLiteral("de_CH"));
  // The store is an INI file under $XDG_CONFIG_HOME.
  const QString file = qEnvironmentVariable("XDG_CONFIG_HOME") + "/Orvane/Kestrel.conf";
  ASSERT_TRUE(QFile::exists(file)) << file.toStdString();
  EXPECT_EQ(System::getPreferredLocaleList(), (QStringList{"de_CH", "fr", "en_US"}));
  saveLocaleChoice(std::nullopt);
  EXPECT_EQ(System::getPreferredLocaleList(), (QStringList{"fr", "en_US"}));
}

// A present key counts even when it holds the default's text.
TEST(SavedLocale, SavedDefaultValueStillCounts) {
  const LocaleEnv env(kUnset, kUnset, kUnset, kUnset);
  saveLocaleChoice(QStringLiteral("en_US"));
  EXPECT_EQ(System::getPreferredLocaleList(), QStringList{"en_US"});
  saveLocaleChoice(std::nullopt);
  EXPECT_EQ(System::getPreferredLocaleList(), QStringList{});
}

TEST(SavedLocale, StoreNamesSelectTheFile) {
  const LocaleEnv env(kUnset, kUnset, kUnset, kUnset);
  {
    QSettings other(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Orvane"),
                    QStringLiteral("KestrelPro"));
    other.setValue(QStringLiteral("locale"), QStringLiteral("ko_KR"));
  }
  EXPECT_EQ(System::getPreferredLocaleList(), QStringList{});
  env_detail::setLocaleStoreNames(QStringLiteral("Orvane"), QStringLiteral("KestrelPro"));
  EXPECT_EQ(System::getPreferredLocaleList(), QStringList{"ko_KR"});
  env_detail::setLocaleStoreNames(QStringLiteral("Orvane"), QStringLiteral("Kestrel"));
}

struct AdjustRow {
  const char* name;
  const char* code;
  Var lang;
  const char* expected;
};

class RegionCompletion : public ::testing::TestWithParam<AdjustRow> {};

TEST_P(RegionCompletion, TakesUserRegionOnlyForSameLanguage) {
  const AdjustRow& row = GetParam();
  const LocaleEnv env(kUnset, kUnset, kUnset, row.lang);
  const LanguageCode adjusted = System::adjustLocaleForRegion(LanguageCode(row.code));
  EXPECT_EQ(adjusted.string(), QString::fromLatin1(row.expected));
}

const AdjustRow kAdjustRows[] = {
    {"SameLanguageGetsRegion", "en", "en_GB.UTF-8", "en-GB"},
    {"RegionKept", "en_US", "en_GB.UTF-8", "en-US"},
    {"OtherLanguageUnchanged", "fr", "en_GB.UTF-8", "fr"},
    {"LanguageCompareIsCaseSensitive", "EN", "en_GB.UTF-8", "EN"},
    {"NoUserLocale", "en", kUnset, "en"},
    {"CLocaleIsNoUserLocale", "en", "C.UTF-8", "en"},
    {"ScriptCodeTakesPlatformCode", "zh_Hant", "zh_TW", "zh-TW"},
};

INSTANTIATE_TEST_SUITE_P(Rows, RegionCompletion, ::testing::ValuesIn(kAdjustRows),
                         [](const auto& row) { return std::string(row.param.name); });

QStringList gReported;
void recordOsLocale(const QString& locale) {
  gReported.append(locale);
}

class CurrentLocale : public ::testing::Test {
 protected:
  void SetUp() override {
    env_detail::resetCurrentLocale();
    gReported.clear();
    env_detail::setOsLocaleReporter(recordOsLocale);
  }
  void TearDown() override {
    env_detail::setOsLocaleReporter(nullptr);
    env_detail::resetCurrentLocale();
  }
};

TEST_F(CurrentLocale, FirstUseWithoutSetIsEnUs) {
  const LocaleEnv env(kUnset, kUnset, kUnset, "fr_FR.UTF-8");
  const LanguageCode current = System::getCurrentLocale();
  EXPECT_EQ(current.string(), QStringLiteral("en-US"));
  EXPECT_EQ(current.partCount(), 2);
  EXPECT_TRUE(gReported.isEmpty());
}

TEST_F(CurrentLocale, SetKeepsACopyAndReportsPrintedForm) {
  {
    const LanguageCode chosen(QStringLiteral("zh_Hant_TW.Big5"));
    System::setCurrentLocale(chosen);
  }
  EXPECT_EQ(System::getCurrentLocale().string(), QStringLiteral("zh-Hant-TW"));
  System::setCurrentLocale(LanguageCode(QStringLiteral("de")));
  EXPECT_EQ(System::getCurrentLocale().string(), QStringLiteral("de"));
  EXPECT_EQ(gReported, (QStringList{"zh-Hant-TW", "de"}));
}

struct UrlRow {
  const char* name;
  const char* locale;
  Var lang;
  const char* url;
  int number;
  const char* expected;
};

class UrlLocalisation : public CurrentLocale, public ::testing::WithParamInterface<UrlRow> {};

TEST_P(UrlLocalisation, FillsLanguageCountryPrintedFormThenNumber) {
  const UrlRow& row = GetParam();
  const LocaleEnv env(kUnset, kUnset, kUnset, row.lang);
  System::setCurrentLocale(LanguageCode(row.locale));
  EXPECT_EQ(System::computeSupportUrl(QString::fromLatin1(row.url), row.number),
            QString::fromLatin1(row.expected));
}

const UrlRow kUrlRows[] = {
    {"AllThree", "en_US", "en_US.UTF-8", "x/%1/%2/%3", 0, "x/en/us/en-US"},
    {"EveryOccurrence", "de_CH", "de_CH", "%1%1-%3%3-%2%2", 0, "dede-de-CHde-CH-chch"},
    {"CountryFromEnvironmentNotLocale", "fr_FR", "en_GB", "%2", 0, "gb"},
    {"NoCountry", "fr_FR", kUnset, "a%2b", 0, "ab"},
    {"NoPlaceholdersUnchanged", "en_US", "en_US", "https://example.test/a?b=c%5Fd%", 0,
     "https://example.test/a?b=c%5Fd%"},
    // Replacement is plain text: an escape that starts with "%2" is filled too.
    {"EscapeStartingWithTwoIsFilled", "en_US", "en_US", "a%20b", 0, "aus0b"},
    {"NumberEveryFour", "en_US", kUnset, "%4/%4", -12, "-12/-12"},
    {"NumberAfterLocalising", "ja_JP", kUnset, "t=%4&hl=%1", 2147483647, "t=2147483647&hl=ja"},
    {"ScriptInPrintedForm", "zh_Hans_CN", kUnset, "%1|%3", 0, "zh|zh-Hans-CN"},
};

INSTANTIATE_TEST_SUITE_P(Rows, UrlLocalisation, ::testing::ValuesIn(kUrlRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(CurrentLocale, LocalizeUrlLeavesNumberPlaceholder) {
  System::setCurrentLocale(LanguageCode(QStringLiteral("en_US")));
  EXPECT_EQ(System::localizeUrl(QStringLiteral("%1 %4")), QStringLiteral("en %4"));
  EXPECT_EQ(System::substituteNumberInUrl(QStringLiteral("%1 %4"), 7), QStringLiteral("%1 7"));
}

TEST_F(CurrentLocale, UrlTemplatesBuildOnTheBaseUrl) {
  const LocaleEnv env(kUnset, kUnset, kUnset, "en_US.UTF-8");
  const QString base = System::getDefaultKestrelUrl();
  ASSERT_TRUE(base.endsWith(QLatin1Char('/')));
  EXPECT_TRUE(base.startsWith(QStringLiteral("https://")));
  EXPECT_EQ(System::getDefaultKestrelIntlUrl(), base + "intl/%1/");
  EXPECT_EQ(System::getDefaultSupportBaseUrl(), base + "support/");
  EXPECT_EQ(System::getDefaultSupportBinUrl(), base + "support/bin/");
  EXPECT_EQ(System::getDefaultSupportRequestUrl(), base + "support/bin/request.py?hl=%1");
  EXPECT_EQ(System::getDefaultSupportTopicUrl(), base + "support/bin/topic.py?topic=%4&hl=%1");
  EXPECT_EQ(System::getDefaultSupportAnswerUrl(), base + "support/bin/answer.py?answer=%4&hl=%1");
  System::setCurrentLocale(LanguageCode(QStringLiteral("en_US")));
  EXPECT_EQ(System::computeSupportUrl(System::getDefaultSupportTopicUrl(), 123),
            base + "support/bin/topic.py?topic=123&hl=en");
  EXPECT_EQ(System::localizeUrl(System::getDefaultKestrelIntlUrl()), base + "intl/en/");
}

}  // namespace
}  // namespace kestrel
