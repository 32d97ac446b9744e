// Shared internals of the version family: the persistent stores and the
// control-type request that outlives one set of facts.
#pragma once

#include <kestrel/version.h>

#include <QSettings>

namespace version_detail {

// A new native-format store (company, product) in scope; the caller owns it.
inline QSettings* openStore(const VersionInfoImpl& impl, const QString& product,
                            QSettings::Scope scope) {
  return new QSettings(QSettings::NativeFormat, scope, impl.companyName, product);
}

// The choice of VersionInfo::setControlType, read when facts are created.
bool controlTypeRequested();

}  // namespace version_detail
