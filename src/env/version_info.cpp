// VersionInfo: the static facade over the facts of this run.
#include "env/version_stores.h"

#include <kestrel/version.h>

#include <QStringList>

#include <algorithm>
#include <memory>
#include <utility>

namespace {

bool sControlTypeRequested = false;

// The facts of this run, created on first use.
VersionInfoImpl& facts() {
  VersionInfo::initialize();
  return *versionInfo;
}

}  // namespace

bool version_detail::controlTypeRequested() {
  return sControlTypeRequested;
}

void VersionInfo::initialize() {
  if (versionInfo == nullptr) versionInfo = new VersionInfoImpl;
}

void VersionInfo::shutdown() {
  delete versionInfo;
  versionInfo = nullptr;
}

QString VersionInfo::getAppNameW() {
  return facts().appName;
}

QString VersionInfo::getAppCompanyW() {
  return facts().companyName;
}

QString VersionInfo::getAppVersionW() {
  return facts().appVersion;
}

QString VersionInfo::getAppVersionTagW() {
  return facts().versionTag;
}

QString VersionInfo::getAppIDW() {
  return facts().appId;
}

VersionInfo::AppType VersionInfo::getAppType() {
  return static_cast<AppType>(facts().appType);
}

int VersionInfo::getAppGroup() {
  return facts().appGroup;
}

QString VersionInfo::getIDFromType(AppType type) {
  return facts().appTable[type].appId;
}

bool VersionInfo::getAppVersionStruct(VersionNumber& version) {
  return version.fromQString(facts().appVersion) == 4;
}

void VersionInfo::setAppVersion(QString version) {
  facts().setAppVersion(std::move(version));
}

void VersionInfo::setAppType(AppType type) {
  facts().setAppType(type);
}

void VersionInfo::setControlType(bool control) {
  sControlTypeRequested = control;
  if (versionInfo != nullptr) versionInfo->controlType = control;
}

bool VersionInfo::isControlType() {
  return facts().controlType;
}

void VersionInfo::setLocale(const QString& locale) {
  initialize();
  versionOptions.osLocale.set(locale);
}

QString VersionInfo::getAppSettingsRegistryPath() {
  return facts().appSettingsRegistryPath;
}

QString VersionInfo::getCommonSettingsRegistryPath() {
  return facts().commonSettingsRegistryPath;
}

QSettings* VersionInfo::createGlobalAppSettings() {
  VersionInfoImpl& impl = facts();
  return version_detail::openStore(impl, impl.appSettingsProductName, QSettings::SystemScope);
}

QSettings* VersionInfo::createGlobalCommonSettings() {
  VersionInfoImpl& impl = facts();
  return version_detail::openStore(impl, impl.commonSettingsProductName, QSettings::SystemScope);
}

QSettings* VersionInfo::createUserAppSettings() {
  VersionInfoImpl& impl = facts();
  return version_detail::openStore(impl, impl.appSettingsProductName, QSettings::UserScope);
}

QSettings* VersionInfo::createUserCommonSettings() {
  VersionInfoImpl& impl = facts();
  return version_detail::openStore(impl, impl.commonSettingsProductName, QSettings::UserScope);
}

int VersionInfo::parseVersionNumber(const QString& text, bool* ok) {
  static constexpr quint32 kWeights[] = {100000, 10000, 1};
  const QStringList parts = text.split(QLatin1Char('.'), Qt::SkipEmptyParts);
  bool bad = parts.size() > 4;
  // Only the first three parts carry weight; a fourth is never read.
  const qsizetype used = std::min<qsizetype>(parts.size(), 3);
  quint32 sum = 0;
  for (qsizetype i = 0; i < used; ++i) {
    bool converted = false;
    const quint32 value = parts.at(i).toUInt(&converted, 10);
    if (!converted) bad = true;
    sum += value * kWeights[i];
  }
  if (ok != nullptr) *ok = !bad;
  return static_cast<int>(sum);
}

QString VersionInfo::getProductNameForCrash() {
  VersionInfoImpl& impl = facts();
  const QString family = QStringLiteral("Orvane Kestrel");
  QString name = impl.appName;
  if (impl.appGroup == 2) {
    const std::unique_ptr<QSettings> store(createUserAppSettings());
    if (store->value(QStringLiteral("SMode"), true).toBool())
      name = impl.appTable[kAppControl].displayName;
  }
  if (!name.startsWith(family)) name = family;
  return name + QStringLiteral(" Linux");
}
