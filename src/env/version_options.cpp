// The setting group "Version".
#include <kestrel/version.h>

VersionOptions::VersionOptions()
    : SettingGroup(QStringLiteral("Version")),
      appName(*this, QStringLiteral("appName"), QString(), true, false),
      appVersion(*this, QStringLiteral("appVersion"), QString(), true, false),
      appType(*this, QStringLiteral("appType"), 255, true, false),
      firstRunNewVersion(*this, QStringLiteral("firstRunNewVersion"), false, true, true),
      currentRunVersion(*this, QStringLiteral("currentRunVersion"), QString(), false, false),
      lastVersion(*this, QStringLiteral("lastVersion"), QString(), false, false),
      osName(*this, QStringLiteral("osName"), QString(), true, true),
      osMajor(*this, QStringLiteral("osMajor"), 0, true, true),
      osMinor(*this, QStringLiteral("osMinor"), 0, true, true),
      osBuild(*this, QStringLiteral("osBuild"), 0, true, true),
      osPatch(*this, QStringLiteral("osPatch"), 0, true, true),
      firstRunOnThisOS(*this, QStringLiteral("firstRunOnThisOS"), false, true, true),
      osLocale(*this, QStringLiteral("osLocale"), QString(), true, false),
      ramSize(*this, QStringLiteral("ramSize"), 0, true, true),
      screenWidth(*this, QStringLiteral("screenWidth"), 0, true, false),
      screenHeight(*this, QStringLiteral("screenHeight"), 0, true, false) {}

VersionOptions::~VersionOptions() = default;

VersionOptions VersionInfo::versionOptions;
