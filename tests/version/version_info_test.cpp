// The edition, the published facts and the first-run checks, each run
// against stores, an install folder and a machine of its own.
#include "settings/settings_test_support.h"
#include "system/system_test_support.h"

#include <kestrel/locale.h>
#include <kestrel/system.h>
#include <kestrel/version.h>

#include <QFile>
#include <QMap>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using kestrel::System;
using kestrel::test::FakeMachine;
using kestrel::test::ScopedEnv;

const QString kThisVersion = QStringLiteral("4.1.7076.4458");

class VersionRun : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(mUserDir.isValid() && mSystemDir.isValid() && mInstallDir.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, mUserDir.path());
    QSettings::setPath(QSettings::NativeFormat, QSettings::SystemScope, mSystemDir.path());
    System::setInstallPath(mInstallDir.path());
    mMachine.write(QStringLiteral("/proc/sys/kernel/osrelease"), "5.10.0-28-amd64\n");
    mMachine.write(QStringLiteral("/proc/meminfo"), "MemTotal:  3145728 kB\n");
    VersionInfo::shutdown();
    VersionInfo::setControlType(false);
  }

  void TearDown() override {
    VersionInfo::shutdown();
    VersionInfo::setControlType(false);
  }

  void addMarker(const char* name) const {
    QFile file(mInstallDir.filePath(QString::fromLatin1(name)));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  }

  QString userFile(const QString& product) const {
    return mUserDir.path() + QStringLiteral("/Orvane/") + product + QStringLiteral(".conf");
  }

  // The keys of the [General] section of the user's store, read as a file.
  QMap<QString, QString> readUserStore(const QString& product) const {
    QMap<QString, QString> entries;
    QFile file(userFile(product));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return entries;
    bool general = false;
    for (const QByteArray& raw : file.readAll().split('\n')) {
      const QString line = QString::fromUtf8(raw).trimmed();
      if (line.startsWith(QLatin1Char('['))) {
        general = line == QLatin1String("[General]");
      } else if (general && line.contains(QLatin1Char('='))) {
        entries.insert(line.section(QLatin1Char('='), 0, 0), line.section(QLatin1Char('='), 1));
      }
    }
    return entries;
  }

  void writeUserStore(const QString& product, const QString& key, const QVariant& value) const {
    QSettings store(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Orvane"),
                    product);
    store.setValue(key, value);
    store.sync();
    ASSERT_EQ(store.status(), QSettings::NoError);
  }

  static VersionOptions& options() { return VersionInfo::versionOptions; }

  QTemporaryDir mUserDir;
  QTemporaryDir mSystemDir;
  QTemporaryDir mInstallDir;
  FakeMachine mMachine;
  ScopedEnv mLanguage{"LANGUAGE", "fr_CA:fr"};
  ScopedEnv mLcAll{"LC_ALL", std::nullopt};
  ScopedEnv mLcMessages{"LC_MESSAGES", std::nullopt};
  ScopedEnv mLang{"LANG", "de_DE.UTF-8"};
};

// The facts of the three editions a marker can choose, indexed by type. The
// Site edition carries the Studio id on purpose.
struct Edition {
  int group;
  const char* displayName;
  const char* appId;
  const char* product;
};
const Edition kEditions[] = {
    {0, "Orvane Kestrel Site", "OrvaneKestrelMacStudio", "OrvaneKestrelSite"},
    {1, "Orvane Kestrel Studio", "OrvaneKestrelMacStudio", "OrvaneKestrelStudio"},
    {2, "Orvane Kestrel Extra", "OrvaneKestrelMac", "OrvaneKestrelExtra"},
};

struct EditionRow {
  const char* name;
  std::vector<const char*> markers;
  int type;
};

class EditionFromMarkers : public VersionRun, public ::testing::WithParamInterface<EditionRow> {};

// The first marker present in the order vq20, vq88, vq56, libtrovpro.dylib
// wins; without one the edition is Extra. The edition names the user's store.
TEST_P(EditionFromMarkers, FirstMarkerInOrderChoosesEditionAndStore) {
  const EditionRow& row = GetParam();
  const Edition& edition = kEditions[row.type];
  for (const char* marker : row.markers) addMarker(marker);
  EXPECT_EQ(VersionInfo::getAppType(), row.type);
  EXPECT_EQ(VersionInfo::getAppGroup(), edition.group);
  EXPECT_EQ(VersionInfo::getAppNameW(), QString::fromLatin1(edition.displayName));
  EXPECT_EQ(VersionInfo::getAppIDW(), QString::fromLatin1(edition.appId));
  const QString product = QString::fromLatin1(edition.product);
  EXPECT_EQ(VersionInfo::getAppSettingsRegistryPath(),
            QStringLiteral("Software/Orvane/") + product);
  EXPECT_EQ(options().appType.get(), row.type);
  EXPECT_EQ(options().appName.get(), QString::fromLatin1(edition.displayName));
  EXPECT_EQ(readUserStore(product).value("currentVersion"), kThisVersion);
}

const EditionRow kEditionRows[] = {
    {"NoMarker", {}, 2},
    {"Vq20", {"vq20"}, 2},
    {"Vq88", {"vq88"}, 0},
    {"Vq56", {"vq56"}, 1},
    {"ProLibrary", {"libtrovpro.dylib"}, 1},
    {"Vq20BeatsVq88", {"vq20", "vq88"}, 2},
    {"Vq88BeatsVq56", {"vq56", "vq88"}, 0},
    {"Vq56BeatsProLibrary", {"libtrovpro.dylib", "vq56"}, 1},
    {"LinuxLibraryNameIsNoMarker", {"libtrovpro.so"}, 2},
};

INSTANTIATE_TEST_SUITE_P(Rows, EditionFromMarkers, ::testing::ValuesIn(kEditionRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(VersionRun, ControlTypeBeforeFirstUseOverridesMarkers) {
  addMarker("vq88");
  VersionInfo::setControlType(true);
  EXPECT_EQ(versionInfo, nullptr);  // the request does not create the facts
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppControl);
  EXPECT_TRUE(VersionInfo::isControlType());
  EXPECT_EQ(VersionInfo::getAppNameW(), QStringLiteral("Orvane Kestrel"));
  EXPECT_EQ(VersionInfo::getAppGroup(), 2);
  EXPECT_EQ(VersionInfo::getAppIDW(), QStringLiteral("OrvaneKestrelMac"));
  EXPECT_EQ(VersionInfo::getAppSettingsRegistryPath(),
            QStringLiteral("Software/Orvane/OrvaneKestrelExtra"));
  EXPECT_TRUE(QFile::exists(userFile(QStringLiteral("OrvaneKestrelExtra"))));

  VersionInfo::shutdown();
  VersionInfo::setControlType(false);
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppSite);
}

TEST_F(VersionRun, ControlTypeAfterFirstUseKeepsEdition) {
  ASSERT_EQ(VersionInfo::getAppType(), VersionInfo::kAppExtra);
  VersionInfo::setControlType(true);
  EXPECT_TRUE(VersionInfo::isControlType());
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppExtra);
}

// The settings stores never change after start-up, so only an edition of the
// current group may be chosen.
TEST_F(VersionRun, SetAppTypeAppliesWithinGroupOnly) {
  ASSERT_EQ(VersionInfo::getAppType(), VersionInfo::kAppExtra);
  VersionInfo::setAppType(VersionInfo::kAppStudio);
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppExtra);
  EXPECT_EQ(options().appType.get(), VersionInfo::kAppExtra);

  VersionInfo::setAppType(VersionInfo::kAppType4);
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppType4);
  EXPECT_EQ(VersionInfo::getAppIDW(), QStringLiteral("vq_nv"));
  EXPECT_EQ(options().appType.get(), VersionInfo::kAppType4);

  VersionInfo::setAppType(VersionInfo::kAppControl);
  EXPECT_EQ(VersionInfo::getAppNameW(), QStringLiteral("Orvane Kestrel"));
  EXPECT_EQ(options().appName.get(), QStringLiteral("Orvane Kestrel"));
  EXPECT_EQ(VersionInfo::getAppIDW(), QStringLiteral("OrvaneKestrelMac"));

  VersionInfo::setAppType(VersionInfo::kAppType3);
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppType3);
  EXPECT_EQ(VersionInfo::getAppNameW(), QStringLiteral("Orvane Kestrel Extra"));

  // Unknown editions get a default row of group 255 and change nothing.
  VersionInfo::setAppType(VersionInfo::kAppUnknown);
  VersionInfo::setAppType(static_cast<VersionInfo::AppType>(7));
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppType3);
  EXPECT_EQ(VersionInfo::getIDFromType(static_cast<VersionInfo::AppType>(7)), QString());
  EXPECT_EQ(versionInfo->appTable.value(7).group, 255);
  EXPECT_EQ(VersionInfo::getAppSettingsRegistryPath(),
            QStringLiteral("Software/Orvane/OrvaneKestrelExtra"));
}

TEST_F(VersionRun, SiteSharesStudioIdButNotItsGroup) {
  addMarker("vq88");
  EXPECT_EQ(VersionInfo::getIDFromType(VersionInfo::kAppSite),
            VersionInfo::getIDFromType(VersionInfo::kAppStudio));
  EXPECT_EQ(VersionInfo::getIDFromType(VersionInfo::kAppUnknown), QStringLiteral("vq_UNKNOWN"));
  VersionInfo::setAppType(VersionInfo::kAppStudio);
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppSite);
  EXPECT_EQ(VersionInfo::getAppNameW(), QStringLiteral("Orvane Kestrel Site"));
}

TEST_F(VersionRun, SecondRunOfSameVersionIsNotFirstRun) {
  VersionInfo::initialize();
  EXPECT_TRUE(options().firstRunNewVersion.get());
  EXPECT_EQ(options().lastVersion.get(), QString());
  EXPECT_TRUE(options().firstRunOnThisOS.get());
  const QMap<QString, QString> written = readUserStore(QStringLiteral("OrvaneKestrelExtra"));
  EXPECT_EQ(written.value("currentVersion"), kThisVersion);
  EXPECT_EQ(written.value("osName"), QStringLiteral("Linux"));

  VersionInfo::shutdown();
  EXPECT_EQ(versionInfo, nullptr);
  EXPECT_EQ(VersionInfo::getAppVersionW(), kThisVersion);
  EXPECT_FALSE(options().firstRunNewVersion.get());
  EXPECT_EQ(options().lastVersion.get(), kThisVersion);
  EXPECT_FALSE(options().firstRunOnThisOS.get());
}

TEST_F(VersionRun, DowngradeCountsAsNewVersion) {
  writeUserStore(QStringLiteral("OrvaneKestrelExtra"), QStringLiteral("currentVersion"),
                 QStringLiteral("5.0.0.0"));
  writeUserStore(QStringLiteral("OrvaneKestrelExtra"), QStringLiteral("osName"),
                 QStringLiteral("Linux"));
  VersionInfo::initialize();
  EXPECT_TRUE(options().firstRunNewVersion.get());
  EXPECT_EQ(options().lastVersion.get(), QStringLiteral("5.0.0.0"));
  EXPECT_FALSE(options().firstRunOnThisOS.get());
  EXPECT_EQ(readUserStore(QStringLiteral("OrvaneKestrelExtra")).value("currentVersion"),
            kThisVersion);
}

// Only the family name is compared, so another family is a first run.
TEST_F(VersionRun, AnotherOsFamilyIsFirstRunOnThisOs) {
  writeUserStore(QStringLiteral("OrvaneKestrelExtra"), QStringLiteral("currentVersion"),
                 kThisVersion);
  writeUserStore(QStringLiteral("OrvaneKestrelExtra"), QStringLiteral("osName"),
                 QStringLiteral("Mac OS X"));
  VersionInfo::initialize();
  EXPECT_FALSE(options().firstRunNewVersion.get());
  EXPECT_TRUE(options().firstRunOnThisOS.get());
  EXPECT_EQ(readUserStore(QStringLiteral("OrvaneKestrelExtra")).value("osName"),
            QStringLiteral("Linux"));
}

TEST_F(VersionRun, PublishesFactsOfThisRun) {
  EXPECT_EQ(VersionInfo::getAppCompanyW(), QStringLiteral("Orvane"));
  EXPECT_EQ(VersionInfo::getAppVersionTagW(), QStringLiteral("beta"));
  EXPECT_EQ(VersionInfo::getCommonSettingsRegistryPath(),
            QStringLiteral("Software/Orvane/ZRCommonSettings"));
  EXPECT_EQ(options().appVersion.get(), kThisVersion);
  EXPECT_EQ(options().osName.get(), QStringLiteral("Linux"));
  EXPECT_EQ(options().osMajor.get(), 5);
  EXPECT_EQ(options().osMinor.get(), 10);
  EXPECT_EQ(options().osBuild.get(), 0);
  EXPECT_EQ(options().osPatch.get(), 28);
  EXPECT_EQ(options().osLocale.get(), QStringLiteral("fr_CA"));  // first of the list
  EXPECT_EQ(options().ramSize.get(), 3072);
}

TEST_F(VersionRun, AppVersionStructNeedsAllFourParts) {
  VersionNumber v;
  ASSERT_TRUE(VersionInfo::getAppVersionStruct(v));
  EXPECT_TRUE(v == VersionNumber(4, 1, 7076, 4458));
  VersionInfo::setAppVersion(QStringLiteral("4.1"));
  EXPECT_EQ(options().appVersion.get(), QStringLiteral("4.1"));
  EXPECT_FALSE(VersionInfo::getAppVersionStruct(v));
  EXPECT_TRUE(v == VersionNumber(4, 1, 0, 0));
}

TEST_F(VersionRun, EmptyLocaleListLeavesOsLocaleAlone) {
  const ScopedEnv language("LANGUAGE", std::nullopt);
  const ScopedEnv lang("LANG", "C.UTF-8");
  options().osLocale.set(QStringLiteral("kept"));
  VersionInfo::initialize();
  EXPECT_EQ(options().osLocale.get(), QStringLiteral("kept"));
}

TEST_F(VersionRun, ShutdownForgetsChangesOfTheRun) {
  VersionInfo::setAppVersion(QStringLiteral("9.9.9.9"));
  VersionInfo::setAppType(VersionInfo::kAppType3);
  VersionInfo::shutdown();
  EXPECT_EQ(VersionInfo::getAppVersionW(), kThisVersion);
  EXPECT_EQ(VersionInfo::getAppType(), VersionInfo::kAppExtra);
  // setAppVersion wrote nothing to the store.
  EXPECT_FALSE(options().firstRunNewVersion.get());
}

TEST_F(VersionRun, StoresAreNamedByCompanyProductAndScope) {
  addMarker("vq56");
  const struct {
    std::unique_ptr<QSettings> store;
    QString file;
    QSettings::Scope scope;
  } rows[] = {
      {std::unique_ptr<QSettings>(VersionInfo::createUserAppSettings()),
       mUserDir.path() + "/Orvane/OrvaneKestrelStudio.conf", QSettings::UserScope},
      {std::unique_ptr<QSettings>(VersionInfo::createUserCommonSettings()),
       mUserDir.path() + "/Orvane/ZRCommonSettings.conf", QSettings::UserScope},
      {std::unique_ptr<QSettings>(VersionInfo::createGlobalAppSettings()),
       mSystemDir.path() + "/Orvane/OrvaneKestrelStudio.conf", QSettings::SystemScope},
      {std::unique_ptr<QSettings>(VersionInfo::createGlobalCommonSettings()),
       mSystemDir.path() + "/Orvane/ZRCommonSettings.conf", QSettings::SystemScope},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.store->fileName(), row.file);
    EXPECT_EQ(row.store->scope(), row.scope);
    EXPECT_EQ(row.store->organizationName(), QStringLiteral("Orvane"));
  }
}

struct CrashRow {
  const char* name;
  const char* marker;  // null: none
  int type;
  std::optional<bool> sMode;
  const char* expected;
};

class CrashProductName : public VersionRun, public ::testing::WithParamInterface<CrashRow> {};

// Group 2 reports the family name while the user's "SMode" is true (its
// default); other groups report their display name.
TEST_P(CrashProductName, DependsOnGroupAndSMode) {
  const CrashRow& row = GetParam();
  if (row.marker) addMarker(row.marker);
  if (row.sMode)
    writeUserStore(QString::fromLatin1(kEditions[row.type].product), QStringLiteral("SMode"),
                   *row.sMode);
  EXPECT_EQ(VersionInfo::getProductNameForCrash(), QString::fromLatin1(row.expected));
}

const CrashRow kCrashRows[] = {
    {"ExtraSModeDefault", nullptr, 2, std::nullopt, "Orvane Kestrel Linux"},
    {"ExtraSModeTrue", nullptr, 2, true, "Orvane Kestrel Linux"},
    {"ExtraSModeFalse", nullptr, 2, false, "Orvane Kestrel Extra Linux"},
    {"SiteIgnoresSMode", "vq88", 0, std::nullopt, "Orvane Kestrel Site Linux"},
    {"StudioIgnoresSMode", "vq56", 1, true, "Orvane Kestrel Studio Linux"},
};

INSTANTIATE_TEST_SUITE_P(Rows, CrashProductName, ::testing::ValuesIn(kCrashRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(VersionRun, CrashProductNameKeepsFamilyPrefixCaseSensitively) {
  addMarker("vq88");
  VersionInfo::initialize();
  versionInfo->appName = QStringLiteral("Globe Viewer");
  EXPECT_EQ(VersionInfo::getProductNameForCrash(), QStringLiteral("Orvane Kestrel Linux"));
  versionInfo->appName = QStringLiteral("orvane kestrel site");
  EXPECT_EQ(VersionInfo::getProductNameForCrash(), QStringLiteral("Orvane Kestrel Linux"));
}

// The locale family keeps the user's choice in the edition's store and
// reports a new current locale as "osLocale".
TEST_F(VersionRun, LocaleFamilyUsesEditionStoreAndReportsOsLocale) {
  addMarker("vq88");
  writeUserStore(QStringLiteral("OrvaneKestrelSite"), QStringLiteral("locale"),
                 QStringLiteral("it_IT"));
  VersionInfo::initialize();
  EXPECT_EQ(System::getPreferredLocaleList(), (QStringList{"it_IT", "fr_CA", "fr", "de_DE"}));
  System::setCurrentLocale(kestrel::LanguageCode(QStringLiteral("pt_BR")));
  EXPECT_EQ(options().osLocale.get(), QStringLiteral("pt-BR"));
}

TEST(VersionGroup, KeysInDeclarationOrderWithTheirFlags) {
  const struct {
    const char* key;
    kestrel::SettingType type;
    bool first;
    bool second;
  } rows[] = {
      {"appName", kestrel::TypeString, true, false},
      {"appVersion", kestrel::TypeString, true, false},
      {"appType", kestrel::TypeInt, true, false},
      {"firstRunNewVersion", kestrel::TypeBool, true, true},
      {"currentRunVersion", kestrel::TypeString, false, false},
      {"lastVersion", kestrel::TypeString, false, false},
      {"osName", kestrel::TypeString, true, true},
      {"osMajor", kestrel::TypeInt, true, true},
      {"osMinor", kestrel::TypeInt, true, true},
      {"osBuild", kestrel::TypeInt, true, true},
      {"osPatch", kestrel::TypeInt, true, true},
      {"firstRunOnThisOS", kestrel::TypeBool, true, true},
      {"osLocale", kestrel::TypeString, true, false},
      {"ramSize", kestrel::TypeInt, true, true},
      {"screenWidth", kestrel::TypeInt, true, false},
      {"screenHeight", kestrel::TypeInt, true, false},
  };
  const kestrel::SettingGroup* group = kestrel::SettingGroup::getGroup(QStringLiteral("Version"));
  ASSERT_EQ(group, &VersionInfo::versionOptions);
  ASSERT_EQ(group->getSettingCount(), 16);
  for (int i = 0; i < 16; ++i) {
    const kestrel::Setting* setting = group->getSetting(i);
    EXPECT_EQ(setting->getName(), QString::fromLatin1(rows[i].key)) << i;
    EXPECT_EQ(setting->getType(), rows[i].type) << rows[i].key;
    EXPECT_EQ(setting->getFirstFlag(), rows[i].first) << rows[i].key;
    EXPECT_EQ(setting->getSecondFlag(), rows[i].second) << rows[i].key;
  }
}

}  // namespace
