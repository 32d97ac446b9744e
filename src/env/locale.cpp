// The user's languages from the environment, the saved choice, the current
// locale and the localised web addresses.
#include "env/locale_store.h"

#include <kestrel/locale.h>
#include <kestrel/system.h>

#include <QtGlobal>

#include <optional>

namespace kestrel {
namespace {

// The current locale; null until set or first asked for.
Ref<LanguageCode>& currentLocale() {
  static Ref<LanguageCode> locale;
  return locale;
}

// The locale identifier without encoding and modifier, or empty when the
// value stands for no locale at all ("C", "POSIX", "C.UTF-8").
QString canonicalLocale(const QString& value) {
  QString id = value;
  for (qsizetype i = 0; i < id.size(); ++i) {
    if (id.at(i) == QLatin1Char('.') || id.at(i) == QLatin1Char('@')) {
      id.truncate(i);
      break;
    }
  }
  if (id == QLatin1String("C") || id == QLatin1String("POSIX")) return QString();
  return id;
}

// The user's locale: the first of LC_ALL, LC_MESSAGES, LANG that is set to
// a locale, in canonical form; empty if none is.
QString userLocale() {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const QString id = canonicalLocale(qEnvironmentVariable(name));
    if (!id.isEmpty()) return id;
  }
  return QString();
}

}  // namespace

const QString System::sKestrelUrl = QStringLiteral("https://kestrel.orvane.example/");

QStringList System::getPlatformPreferredLocaleList() {
  QStringList list;
  const QStringList languages =
      qEnvironmentVariable("LANGUAGE").split(QLatin1Char(':'), Qt::SkipEmptyParts);
  for (const QString& language : languages) {
    const QString id = canonicalLocale(language);
    if (!id.isEmpty()) list.append(id);
  }
  const QString locale = userLocale();
  if (!locale.isEmpty()) list.append(locale);
  return list;
}

QStringList System::getPreferredLocaleList() {
  QStringList list = getPlatformPreferredLocaleList();
  if (const std::optional<QString> saved = env_detail::readSavedLocale()) list.prepend(*saved);
  return list;
}

QString System::getPlatformCountryCode() {
  const QString locale = userLocale();
  if (locale.isEmpty()) return QString();
  return LanguageCode(locale).region().toLower();
}

LanguageCode System::adjustLocaleForRegion(const LanguageCode& code) {
  if (!code.region().isEmpty()) return code;
  const QString locale = userLocale();
  if (!locale.isEmpty()) {
    LanguageCode platform(locale);
    if (platform.language() == code.language()) return platform;
  }
  return code;
}

void System::setCurrentLocale(const LanguageCode& code) {
  currentLocale() = Ref<LanguageCode>(new LanguageCode(code));
  env_detail::reportOsLocale(code.string());
}

LanguageCode System::getCurrentLocale() {
  Ref<LanguageCode>& locale = currentLocale();
  if (!locale) locale = Ref<LanguageCode>(new LanguageCode(QStringLiteral("en_US")));
  return *locale;
}

QString System::localizeUrl(const QString& url) {
  const LanguageCode locale = getCurrentLocale();
  QString result = url;
  result.replace(QLatin1String("%1"), locale.language());
  result.replace(QLatin1String("%2"), getPlatformCountryCode());
  result.replace(QLatin1String("%3"), locale.string());
  return result;
}

QString System::substituteNumberInUrl(const QString& url, int number) {
  QString result = url;
  return result.replace(QLatin1String("%4"), QString::number(number));
}

QString System::computeSupportUrl(const QString& url, int number) {
  return substituteNumberInUrl(localizeUrl(url), number);
}

QString System::getDefaultKestrelUrl() {
  return sKestrelUrl;
}

QString System::getDefaultKestrelIntlUrl() {
  return getDefaultKestrelUrl() + QStringLiteral("intl/%1/");
}

QString System::getDefaultSupportBaseUrl() {
  return getDefaultKestrelUrl() + QStringLiteral("support/");
}

QString System::getDefaultSupportBinUrl() {
  return getDefaultSupportBaseUrl() + QStringLiteral("bin/");
}

QString System::getDefaultSupportRequestUrl() {
  return getDefaultSupportBinUrl() + QStringLiteral("request.py?hl=%1");
}

QString System::getDefaultSupportTopicUrl() {
  return getDefaultSupportBinUrl() + QStringLiteral("topic.py?topic=%4&hl=%1");
}

QString System::getDefaultSupportAnswerUrl() {
  return getDefaultSupportBinUrl() + QStringLiteral("answer.py?answer=%4&hl=%1");
}

namespace env_detail {

void resetCurrentLocale() {
  currentLocale() = nullptr;
}

}  // namespace env_detail
}  // namespace kestrel
