// VersionInfoImpl: the edition, the store names and the first-run checks of
// one run.
#include "env/locale_store.h"
#include "env/version_stores.h"

#include <kestrel/system.h>
#include <kestrel/version.h>

#include <QFile>
#include <QSettings>

#include <memory>

namespace {

// This build's version.
constexpr unsigned short kVersionMajor = 4;
constexpr unsigned short kVersionMinor = 1;
constexpr unsigned short kVersionBuild = 7076;
constexpr unsigned short kVersionPatch = 4458;

VersionOptions& options() {
  return VersionInfo::versionOptions;
}

// Marker files in the install folder that choose the edition; the first one
// present wins.
struct EditionMarker {
  const char* fileName;
  int type;
};
constexpr EditionMarker kEditionMarkers[] = {
    {"vq20", VersionInfo::kAppExtra},
    {"vq88", VersionInfo::kAppSite},
    {"vq56", VersionInfo::kAppStudio},
    {"libtrovpro.dylib", VersionInfo::kAppStudio},
};

int detectEdition() {
  const QString installPath = kestrel::System::getInstallPath();
  for (const EditionMarker& marker : kEditionMarkers) {
    if (QFile::exists(installPath + QLatin1Char('/') + QLatin1String(marker.fileName)))
      return marker.type;
  }
  return VersionInfo::kAppExtra;
}

QString registryPath(const QString& company, const QString& product) {
  return QStringLiteral("Software/%1/%2").arg(company, product);
}

void reportLocale(const QString& locale) {
  VersionInfo::setLocale(locale);
}

}  // namespace

VersionInfoImpl* versionInfo = nullptr;

VersionInfoImpl::VersionInfoImpl() {
  controlType = version_detail::controlTypeRequested();
  initialize();
}

VersionInfoImpl::~VersionInfoImpl() = default;

void VersionInfoImpl::initialize() {
  if (initialized) return;

  appTable[VersionInfo::kAppSite] = {QStringLiteral("Orvane Kestrel Site"),
                                     QStringLiteral("OrvaneKestrelSite"),
                                     QStringLiteral("OrvaneKestrelMacStudio"), 0};
  appTable[VersionInfo::kAppStudio] = {QStringLiteral("Orvane Kestrel Studio"),
                                       QStringLiteral("OrvaneKestrelStudio"),
                                       QStringLiteral("OrvaneKestrelMacStudio"), 1};
  appTable[VersionInfo::kAppExtra] = {QStringLiteral("Orvane Kestrel Extra"),
                                      QStringLiteral("OrvaneKestrelExtra"),
                                      QStringLiteral("OrvaneKestrelMac"), 2};
  appTable[VersionInfo::kAppControl] = {QStringLiteral("Orvane Kestrel"),
                                        QStringLiteral("OrvaneKestrelExtra"),
                                        QStringLiteral("OrvaneKestrelMac"), 2};
  appTable[VersionInfo::kAppType3] = appTable[VersionInfo::kAppExtra];
  appTable[VersionInfo::kAppType4] = appTable[VersionInfo::kAppExtra];
  appTable[VersionInfo::kAppType4].appId = QStringLiteral("vq_nv");
  appTable[VersionInfo::kAppUnknown] = {QStringLiteral("UNKNOWN"), QStringLiteral("UNKNOWN"),
                                        QStringLiteral("vq_UNKNOWN"), 255};

  appType = controlType ? int(VersionInfo::kAppControl) : detectEdition();
  const AppInfo row = appTable[appType];
  appGroup = row.group;
  appName = row.displayName;
  appId = row.appId;
  appSettingsProductName = row.settingsProductName;

  companyName = QStringLiteral("Orvane");
  commonSettingsProductName = QStringLiteral("ZRCommonSettings");
  commonSettingsRegistryPath = registryPath(companyName, commonSettingsProductName);
  appSettingsRegistryPath = registryPath(companyName, appSettingsProductName);
  // The locale family keeps the user's choice in the same store and reports
  // the current locale as "osLocale".
  kestrel::env_detail::setLocaleStoreNames(companyName, appSettingsProductName);
  kestrel::env_detail::setOsLocaleReporter(reportLocale);

  setAppVersion(readAppVersion());
  versionTag = QStringLiteral("beta");
  initialized = true;

  options().appName.set(appName);
  options().appVersion.set(appVersion);
  options().appType.set(appType);

  isFirstRunNewVersion();
  isFirstRunOnThisOS();
  storeOsInfo();

  const QStringList locales = kestrel::System::getPlatformPreferredLocaleList();
  if (!locales.isEmpty()) options().osLocale.set(locales.first());

  int total = 0;
  int second = 0;
  kestrel::System::getTotalMemoryMB(total, second);
  options().ramSize.set(total);
}

QString VersionInfoImpl::readAppVersion() {
  return QString::asprintf("%hu.%hu.%04hu.%04hu", kVersionMajor, kVersionMinor, kVersionBuild,
                           kVersionPatch);
}

void VersionInfoImpl::setAppVersion(QString version) {
  appVersion = version;
  options().appVersion.set(appVersion);
}

void VersionInfoImpl::setAppType(VersionInfo::AppType type) {
  const AppInfo wanted = appTable[type];
  const AppInfo current = appTable[appType];
  if (wanted.group != current.group) return;
  appType = type;
  appId = wanted.appId;
  appName = wanted.displayName;
  options().appName.set(appName);
  options().appType.set(appType);
}

void VersionInfoImpl::isFirstRunNewVersion() {
  const std::unique_ptr<QSettings> store(
      version_detail::openStore(*this, appSettingsProductName, QSettings::UserScope));
  const QString stored = store->value(QStringLiteral("currentVersion"), QString()).toString();
  options().lastVersion.set(stored);
  options().firstRunNewVersion.set(stored != appVersion);
  if (options().firstRunNewVersion.get())
    store->setValue(QStringLiteral("currentVersion"), appVersion);
}

void VersionInfoImpl::isFirstRunOnThisOS() {
  const std::unique_ptr<QSettings> store(
      version_detail::openStore(*this, appSettingsProductName, QSettings::UserScope));
  const QString stored = store->value(QStringLiteral("osName"), QString()).toString();
  kestrel::System::OSVersion os = kestrel::System::getOSVersion();
  const QString current = kestrel::System::getOSName(os);
  options().firstRunOnThisOS.set(stored != current);
  if (options().firstRunOnThisOS.get()) store->setValue(QStringLiteral("osName"), current);
}

void VersionInfoImpl::storeOsInfo() {
  kestrel::System::OSVersion os = kestrel::System::OS_UNKNOWN;
  int major = 0, minor = 0, build = 0, patch = 0;
  kestrel::System::getOSVersion(os, major, minor, build, patch);
  options().osName.set(kestrel::System::getOSName(os));
  options().osMajor.set(major);
  options().osMinor.set(minor);
  options().osBuild.set(build);
  options().osPatch.set(patch);
}
