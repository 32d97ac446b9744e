// The per-user settings store of the saved locale choice and the "osLocale"
// report.
#include "env/locale_store.h"

#include <QSettings>

namespace kestrel::env_detail {
namespace {

struct StoreNames {
  QString domain = QStringLiteral("Orvane");
  QString product = QStringLiteral("Kestrel");
};

StoreNames& storeNames() {
  static StoreNames names;
  return names;
}

OsLocaleReporter sReporter = nullptr;

}  // namespace

void setLocaleStoreNames(const QString& domain, const QString& product) {
  storeNames() = StoreNames{domain, product};
}

std::optional<QString> readSavedLocale() {
  const StoreNames& names = storeNames();
  const QSettings settings(QSettings::NativeFormat, QSettings::UserScope, names.domain,
                           names.product);
  const QString key = QStringLiteral("locale");
  if (!settings.contains(key)) return std::nullopt;
  return settings.value(key, QStringLiteral("en_US")).toString();
}

void setOsLocaleReporter(OsLocaleReporter reporter) {
  sReporter = reporter;
}

void reportOsLocale(const QString& locale) {
  if (sReporter) sReporter(locale);
}

}  // namespace kestrel::env_detail
