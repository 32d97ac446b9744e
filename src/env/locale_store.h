// Seams of the locale family: the user's application settings that keep the
// saved "locale" choice, the "osLocale" report, and the current locale.
//
// The settings store is the per-user application store,
// QSettings(NativeFormat, UserScope, domain, product) (an INI file under
// $XDG_CONFIG_HOME); the version information sets its names and the
// "osLocale" reporter at start-up.
#pragma once

#include <kestrel/export.h>

#include <QString>

#include <optional>

namespace kestrel::env_detail {

// Names of the per-user application settings store; "Orvane" and "Kestrel"
// until set.
KESTREL_EXPORT void setLocaleStoreNames(const QString& domain, const QString& product);

// The value of the key "locale" in the per-user application settings, or
// nullopt when the key is not present.
KESTREL_EXPORT std::optional<QString> readSavedLocale();

// Called with the printed form of each new current locale; none by default.
using OsLocaleReporter = void (*)(const QString& locale);
KESTREL_EXPORT void setOsLocaleReporter(OsLocaleReporter reporter);
KESTREL_EXPORT void reportOsLocale(const QString& locale);

// Forgets the current locale, as at start-up.
KESTREL_EXPORT void resetCurrentLocale();

}  // namespace kestrel::env_detail
