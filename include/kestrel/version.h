// Version information: the application's version, edition and first-run facts.
//
// These classes live in the global namespace.
//
//   VersionNumber    a dotted four-part version (major.minor.build.patch) with
//                    ordering; parse it from text with fromQString.
//   VersionInfo      the static facade every client uses: edition, version
//                    strings, settings store names and factories, first-run
//                    facts (through the "Version" setting group).
//   VersionInfoImpl  the facts of one run; created by the first VersionInfo
//                    call, destroyed by VersionInfo::shutdown().
//   VersionOptions   the setting group "Version" that publishes the facts; its
//                    one instance is VersionInfo::versionOptions.
//
// The first VersionInfo call (other than shutdown and parseVersionNumber)
// detects the edition from marker files in the install folder
// (kestrel::System::getInstallPath()), compares the running version and OS
// family with the ones stored for the user in the per-user application
// settings (an INI file under $XDG_CONFIG_HOME/Orvane/) and writes the new
// ones there.
//
// Example:
//
//   VersionInfo::setControlType(true);          // before the first use only
//   if (VersionInfo::versionOptions.firstRunNewVersion.get())
//     showWhatsNew(VersionInfo::getAppVersionW());
//   VersionNumber running;
//   if (VersionInfo::getAppVersionStruct(running) && running >= VersionNumber(4, 1, 0, 0)) ...
//
// Thread-safety: none. Call from the main thread; make the first call during
// start-up before other threads use VersionInfo.
#pragma once

#include <kestrel/export.h>
#include <kestrel/settings.h>

#include <QMap>
#include <QString>

class QSettings;

// Four signed 32-bit parts compared lexicographically.
class KESTREL_EXPORT VersionNumber {
 public:
  // Leaves the four parts unset (indeterminate).
  VersionNumber() {}
  VersionNumber(int major, int minor, int build, int patch)
      : mMajor(major), mMinor(minor), mBuild(build), mPatch(patch) {}
  // Calls fromQString(text).
  explicit VersionNumber(const QString& text);

  // Sets all four parts to 0, then reads the Latin-1 form of text as
  // "%d.%d.%d.%d" does: each number after optional white space and sign,
  // the dots exactly, stopping at the first mismatch or NUL. Returns the
  // number of parts read, 0 to 4 (0 for a null or empty string); parts not
  // read stay 0. A number beyond the int range saturates.
  int fromQString(const QString& text);

  bool operator==(const VersionNumber& other) const;
  // Lexicographic over major, minor, build, patch; >= is the negation of <.
  bool operator<(const VersionNumber& other) const;
  bool operator>=(const VersionNumber& other) const;
  // < or all four equal; > is the negation of <=.
  bool operator<=(const VersionNumber& other) const;
  bool operator>(const VersionNumber& other) const;

  int mMajor;
  int mMinor;
  int mBuild;
  int mPatch;
};

// The setting group "Version". Every setting is written by VersionInfo except
// currentRunVersion, screenWidth and screenHeight, which the application
// fills. Defaults hold until the first VersionInfo call.
class KESTREL_EXPORT VersionOptions : public kestrel::SettingGroup {
 public:
  VersionOptions();
  ~VersionOptions() override;

  kestrel::StringSetting appName;
  kestrel::StringSetting appVersion;
  kestrel::IntSetting appType;
  kestrel::BoolSetting firstRunNewVersion;
  kestrel::StringSetting currentRunVersion;
  kestrel::StringSetting lastVersion;
  kestrel::StringSetting osName;
  kestrel::IntSetting osMajor;
  kestrel::IntSetting osMinor;
  kestrel::IntSetting osBuild;
  kestrel::IntSetting osPatch;
  kestrel::BoolSetting firstRunOnThisOS;
  kestrel::StringSetting osLocale;
  kestrel::IntSetting ramSize;
  kestrel::IntSetting screenWidth;
  kestrel::IntSetting screenHeight;
};

// The static facade. Every operation except shutdown, parseVersionNumber and
// setControlType first calls initialize(). Main thread only.
class KESTREL_EXPORT VersionInfo {
 public:
  // Editions; the keys of the edition table.
  enum AppType {
    kAppSite = 0,
    kAppStudio = 1,
    kAppExtra = 2,  // also the edition when no marker file is found
    kAppType3 = 3,
    kAppType4 = 4,
    kAppControl = 5,  // running as an embedded control
    kAppUnknown = 255,
  };

  // The process's "Version" group, built during static initialisation.
  static VersionOptions versionOptions;

  // Creates the facts of this run (VersionInfoImpl) when there are none.
  static void initialize();
  // Destroys them; the next call creates a fresh set (and runs the first-run
  // checks again).
  static void shutdown();

  static QString getAppNameW();        // display name, "Orvane Kestrel Extra"
  static QString getAppCompanyW();     // "Orvane"
  static QString getAppVersionW();     // "4.1.7076.4458" unless setAppVersion
  static QString getAppVersionTagW();  // "beta"
  static QString getAppIDW();
  static AppType getAppType();
  static int getAppGroup();
  // The application id of that edition; a type absent from the table gets a
  // default row (null strings, group 255) and yields a null string.
  static QString getIDFromType(AppType type);
  // Parses the application version into version; true only when all four
  // parts were read.
  static bool getAppVersionStruct(VersionNumber& version);
  // Replaces the application version and publishes it as "appVersion".
  static void setAppVersion(QString version);
  // Switches to another edition of the same group (display name, id,
  // "appName", "appType"); a type of another group is ignored on purpose, as
  // the settings stores never change after start-up.
  static void setAppType(AppType type);
  // Running as an embedded control makes the edition kAppControl. Does not
  // create the facts itself, so that a call before the first use takes
  // effect; the choice also holds for facts created after a shutdown.
  static void setControlType(bool control);
  static bool isControlType();
  // Publishes locale as "osLocale".
  static void setLocale(const QString& locale);
  // "Software/Orvane/<application settings product>" and
  // "Software/Orvane/ZRCommonSettings".
  static QString getAppSettingsRegistryPath();
  static QString getCommonSettingsRegistryPath();
  // New native-format stores, deleted by the caller: application stores are
  // named (company, application settings product), common ones (company,
  // "ZRCommonSettings"); Global is the system scope, User the user scope.
  static QSettings* createGlobalAppSettings();
  static QSettings* createGlobalCommonSettings();
  static QSettings* createUserAppSettings();
  static QSettings* createUserCommonSettings();
  // A rank of a dotted version: the first three non-empty parts between
  // dots, each an unsigned decimal, weighted 100000, 10000 and 1 (the fourth
  // part is never read; overlapping weights are kept on purpose, so a minor
  // of 10 adds as much as a major of 1). "4.1.7076.4458" gives 417076. *ok
  // (when given) becomes false when there are more than four parts or a used
  // part is not a number, which then counts 0. Arithmetic wraps modulo 2^32.
  static int parseVersionNumber(const QString& text, bool* ok = nullptr);
  // The product name for crash reports: "Orvane Kestrel" for group 2 while
  // the user's "SMode" is true (the default), else the display name; a name
  // not starting with "Orvane Kestrel" becomes that; then " Linux" is
  // appended.
  static QString getProductNameForCrash();
};

// The facts of one run. Created by VersionInfo::initialize(); clients use
// VersionInfo. The members are those facts, readable by diagnostics.
class KESTREL_EXPORT VersionInfoImpl {
 public:
  // One row of the edition table.
  struct AppInfo {
    QString displayName;
    QString settingsProductName;
    QString appId;
    int group = 255;  // editions of one group share their settings
  };

  // Runs initialize().
  VersionInfoImpl();
  ~VersionInfoImpl();
  VersionInfoImpl(const VersionInfoImpl&) = delete;
  VersionInfoImpl& operator=(const VersionInfoImpl&) = delete;

  // Once: fills the edition table, detects the edition, names the stores,
  // publishes the facts and runs the first-run checks (which write the
  // user's application settings), the OS facts, the locale and the memory.
  void initialize();
  // The version of this build, "4.1.7076.4458".
  QString readAppVersion();
  void setAppVersion(QString version);
  void setAppType(VersionInfo::AppType type);
  // Publishes "lastVersion" (the stored "currentVersion") and
  // "firstRunNewVersion" (stored differs from running, so a downgrade counts
  // too); stores the running version when it differs.
  void isFirstRunNewVersion();
  // Publishes "firstRunOnThisOS" (stored "osName" differs from the running
  // OS family's name); stores the family name when it differs.
  void isFirstRunOnThisOS();
  // Publishes "osName" and the four OS numbers.
  void storeOsInfo();

  QMap<int, AppInfo> appTable;
  QString appName;
  QString companyName;
  QString appVersion;
  QString versionTag;
  QString commonSettingsProductName;
  QString commonSettingsRegistryPath;
  QString appSettingsProductName;
  QString appSettingsRegistryPath;
  QString appId;
  bool initialized = false;
  bool controlType = false;
  int appType = VersionInfo::kAppUnknown;
  int appGroup = 255;
};

// The facts of this run; null until the first VersionInfo call and after
// VersionInfo::shutdown().
KESTREL_EXPORT extern VersionInfoImpl* versionInfo;
