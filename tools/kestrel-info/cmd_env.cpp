// `kestrel-info env`: the edition, version and first-run facts, the user's
// languages and the folders searched for a localised resource.
#include "command.h"

#include <kestrel/locale.h>
#include <kestrel/system.h>
#include <kestrel/version.h>

#include <QSettings>
#include <QTemporaryDir>

namespace kestrel::info {
namespace {

void row(QTextStream& out, const char* name, const QString& value) {
  out << "  " << qSetFieldWidth(22) << Qt::left << name << qSetFieldWidth(0) << value << '\n';
}

QString yesNo(bool value) {
  return value ? QStringLiteral("yes") : QStringLiteral("no");
}

void printEdition(QTextStream& out) {
  out << "Edition\n";
  row(out, "type", QString::number(VersionInfo::getAppType()));
  row(out, "display name", VersionInfo::getAppNameW());
  row(out, "application id", VersionInfo::getAppIDW());
  row(out, "group", QString::number(VersionInfo::getAppGroup()));
  row(out, "control type", yesNo(VersionInfo::isControlType()));
  const QString install = System::getInstallPath();
  row(out, "install path", install.isEmpty() ? QStringLiteral("(not set)") : install);
}

void printVersion(QTextStream& out) {
  out << "Version\n";
  row(out, "application version", VersionInfo::getAppVersionW());
  row(out, "tag", VersionInfo::getAppVersionTagW());
  row(out, "company", VersionInfo::getAppCompanyW());
  row(out, "application registry", VersionInfo::getAppSettingsRegistryPath());
  row(out, "common registry", VersionInfo::getCommonSettingsRegistryPath());
  row(out, "crash product name", VersionInfo::getProductNameForCrash());
}

void printFirstRun(QTextStream& out) {
  const VersionOptions& options = VersionInfo::versionOptions;
  out << "First run\n";
  row(out, "new version", yesNo(options.firstRunNewVersion.get()));
  row(out, "last version",
      options.lastVersion.get().isEmpty() ? QStringLiteral("(none)") : options.lastVersion.get());
  row(out, "first run on this OS", yesNo(options.firstRunOnThisOS.get()));
  row(out, "OS",
      QStringLiteral("%1 %2.%3.%4.%5")
          .arg(options.osName.get())
          .arg(options.osMajor.get())
          .arg(options.osMinor.get())
          .arg(options.osBuild.get())
          .arg(options.osPatch.get()));
}

// The current locale and its more general codes, most specific first.
QStringList localeChain() {
  const LanguageCode current = System::getCurrentLocale();
  QStringList chain;
  for (const LanguageCode* code = &current; !code->string().isEmpty(); code = code->parent())
    chain.append(code->string());
  return chain;
}

// The folders a localised resource is looked for in, in order: for each code
// of the chain "<tag>.lproj", then the same with "_" for "-", and finally
// the resource folder itself.
QStringList resourceFolders(const QStringList& chain) {
  const QString base = System::getResourceDirectory() + QLatin1Char('/');
  QStringList folders;
  for (const QString& tag : chain) {
    folders.append(base + tag + QStringLiteral(".lproj"));
    if (tag.contains(QLatin1Char('-')))
      folders.append(base + QString(tag).replace(QLatin1Char('-'), QLatin1Char('_')) +
                     QStringLiteral(".lproj"));
  }
  folders.append(base);
  return folders;
}

void printLanguages(QTextStream& out) {
  out << "Languages\n";
  const QStringList preferred = System::getPlatformPreferredLocaleList();
  row(out, "preferred",
      preferred.isEmpty() ? QStringLiteral("(none)") : preferred.join(QStringLiteral(", ")));
  row(out, "OS locale setting", VersionInfo::versionOptions.osLocale.get());
  const QStringList chain = localeChain();
  row(out, "current locale chain", chain.join(QStringLiteral(" > ")));
  out << "Resource folders, in search order\n";
  for (const QString& folder : resourceFolders(chain)) out << "  " << folder << '\n';
}

int runEnv(const QStringList& args, QTextStream& out, QTextStream& err) {
  if (!args.isEmpty()) {
    err << "kestrel-info env: unknown option '" << args.join(QLatin1Char(' ')) << "'\n";
    return 2;
  }
  printEdition(out);
  printVersion(out);
  printFirstRun(out);
  printLanguages(out);
  return 0;
}

// The tour keeps the first-run records in a temporary folder, so that the
// demonstration leaves the user's settings as they were.
void tourEnv(QTextStream& out) {
  QTemporaryDir userSettings;
  if (userSettings.isValid())
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, userSettings.path());
  printEdition(out);
  printVersion(out);
  printFirstRun(out);
  printLanguages(out);
}

const Command kEnv{"env",
                   "shows the edition, version, first-run facts, languages and resource folders",
                   "env\n"
                   "  Prints the edition (type, display name, application id, group, control\n"
                   "  type) chosen by the marker files in the install folder; the version\n"
                   "  facts (version, tag, company, settings registry paths, crash product\n"
                   "  name); the first-run state (new version, last version, first run on\n"
                   "  this OS family, OS numbers); the user's languages (LANGUAGE, then\n"
                   "  LC_ALL, LC_MESSAGES or LANG), the current locale with its more general\n"
                   "  codes; and the folders searched for a localised resource, in order.\n"
                   "  Note: like the application's start-up, it runs the first-run checks,\n"
                   "  which record this version and OS family in the user's settings\n"
                   "  ($XDG_CONFIG_HOME/Orvane/<product>.conf, by default under ~/.config).\n",
                   runEnv,
                   tourEnv,
                   70};

}  // namespace

KESTREL_INFO_COMMAND(kEnv);

}  // namespace kestrel::info
