// `kestrel-info settings`: every setting group and its settings.
#include "command.h"

#include <kestrel/settings.h>

#include <QDateTime>

#include <algorithm>

namespace kestrel::info {
namespace {

const char* kindName(SettingType type) {
  switch (type) {
    case TypeBool:
      return "bool";
    case TypeInt:
      return "int";
    case TypeFloat:
      return "float";
    case TypeDouble:
      return "double";
    case TypeString:
      return "string";
    case TypeDateTime:
      return "datetime";
    case TypeCount:
      return "count";
    case TypeIntPair:
      return "intpair";
    case TypeTime:
      return "time";
    case TypeHashedString:
      return "hashed";
    case TypeIntHistogram:
      return "histogram";
  }
  return "unknown";
}

// Width of the name column: the longest setting name of any group, plus two
// blanks.
int nameColumnWidth() {
  qsizetype longest = 0;
  for (int g = 0; g < SettingGroup::getGroupCount(); ++g) {
    const SettingGroup* group = SettingGroup::getGroup(g);
    for (int s = 0; s < group->getSettingCount(); ++s)
      longest = std::max(longest, group->getSetting(s)->getName().size());
  }
  return static_cast<int>(longest) + 2;
}

void listSettings(QTextStream& out) {
  const int groupCount = SettingGroup::getGroupCount();
  if (groupCount == 0) out << "(no setting groups)\n";
  const int nameWidth = nameColumnWidth();
  for (int g = 0; g < groupCount; ++g) {
    const SettingGroup* group = SettingGroup::getGroup(g);
    const int settingCount = group->getSettingCount();
    out << group->getName() << " (" << settingCount
        << (settingCount == 1 ? " setting)\n" : " settings)\n");
    for (int s = 0; s < settingCount; ++s) {
      const Setting* setting = group->getSetting(s);
      const QString log = setting->toLogString();
      out << "  " << qSetFieldWidth(nameWidth) << Qt::left << setting->getName()
          << qSetFieldWidth(10) << kindName(setting->getType()) << qSetFieldWidth(0) << '"'
          << setting->toString() << "\"  " << (log.isNull() ? QStringLiteral("(not logged)") : log)
          << '\n';
    }
  }
}

QString allLogStrings() {
  QString log;
  for (int g = 0; g < SettingGroup::getGroupCount(); ++g) {
    const SettingGroup* group = SettingGroup::getGroup(g);
    for (int s = 0; s < group->getSettingCount(); ++s) log += group->getSetting(s)->toLogString();
  }
  return log;
}

int runSettings(const QStringList& args, QTextStream& out, QTextStream& err) {
  if (args.isEmpty()) {
    listSettings(out);
    return 0;
  }
  if (args == QStringList{QStringLiteral("--log")}) {
    out << allLogStrings() << '\n';
    return 0;
  }
  err << "kestrel-info settings: unknown option '" << args.join(QLatin1Char(' ')) << "'\n";
  return 2;
}

// Builds one setting of every kind, changes some inside a restore frame and
// rolls them back, listing the registry before and after.
void tourSettings(QTextStream& out) {
  SettingGroup group(QStringLiteral("Tour"));
  BoolSetting fullScreen(group, QStringLiteral("fullScreen"), true, true, false);
  IntSetting cacheSize(group, QStringLiteral("cacheSize"), 256, true, false);
  CountSetting crashes(group, QStringLiteral("crashes"), 0, true, false);
  FloatSetting fov(group, QStringLiteral("fieldOfView"), 60.5f, true, false);
  DoubleSetting altitude(group, QStringLiteral("altitude"), 1234567.0, true, false);
  StringSetting server(group, QStringLiteral("server"), QStringLiteral("tiles.example.org"), true,
                       false);
  HashedStringSetting user(group, QStringLiteral("user"), QStringLiteral("someone"), true, false);
  IntPairSetting winSize(group, QStringLiteral("winSize"), {640, 480}, true, false);
  QDateTimeSetting lastRun(group, QStringLiteral("lastRun"),
                           QDateTime(QDate(2006, 7, 4), QTime(9, 5, 0)), true, false);
  IntHistogram fpsHistogram(0, 100, 10);
  IntHistogramSetting fps(group, QStringLiteral("fps"), fpsHistogram, true, false);
  for (int sample : {24, 30, 30, 60, 120}) fps.addIntSample(sample);

  listSettings(out);

  Setting::pushAllSettings();
  cacheSize.set(512);
  winSize.fromString(QStringLiteral("1024 768"));
  crashes.set(2);
  out << "\ninside a restore frame: cacheSize " << cacheSize.toString() << ", winSize "
      << winSize.toString() << ", crashes " << crashes.toString() << '\n';
  Setting::popAllSettings();
  out << "after popAllSettings:   cacheSize " << cacheSize.toString() << ", winSize "
      << winSize.toString() << ", crashes " << crashes.toString() << '\n';
  out << "\nlog form of every setting:\n" << allLogStrings() << '\n';
}

const Command kSettings{
    "settings",
    "lists every setting group with its settings",
    "settings\n"
    "  Lists every setting group in registry order (newest first) and each of its\n"
    "  settings: name, kind, text form (toString) and log form (toLogString).\n"
    "settings --log\n"
    "  Prints the log form of every setting, concatenated, as one query string.\n",
    runSettings,
    tourSettings,
    10};

}  // namespace

KESTREL_INFO_COMMAND(kSettings);

}  // namespace kestrel::info
