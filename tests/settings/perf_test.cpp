// Time settings on the application clock, the "Performance" group and its
// report file.
#include "settings/settings_test_support.h"

#include <kestrel/settings.h>
#include <kestrel/system.h>

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

namespace kestrel {
namespace {

int clockMs() {
  return static_cast<int>(System::getTime() * 1000.0);
}

const QStringList kPerformanceNames =
    QStringLiteral(
        "timeAtAppStart timeAtSpawnGfxCardInfo timeAtSpawnAsyncAuth timeAtSpawnAsyncDoLogin "
        "timeAtExec "
        "timeAtFirstLevel timeAtLoggedIn timeForGfxCardInfoInit timeForGfxCardInfoCall "
        "timeForSetupGfx "
        "timeForInitAlchemy timeForSetRenderApi timeForSetupApp timeForSetupQtLocale "
        "timeForSetupSplash timeForVerifyUserPaths timeForSetupMainWin timeForGuiContextInit "
        "timeForOpenWorkspace timeForReadScreen timeForRenderContextInit timeForAuth timeForCookie "
        "timeForLogin timeForFetchDbRoot timeForParseDbRoot timeForFinishLogin "
        "timeForMainDbStartup "
        "timeForStyleManager timeForOnLoggedInLayer")
        .split(QLatin1Char(' '));

TEST(TimeSetting, StartStopAndNowReadTheApplicationClockInMilliseconds) {
  SettingGroup group(QStringLiteral("PerfTimes"));
  TimeSetting step(group, QStringLiteral("step"), {5, 6}, true, false);

  int before = clockMs();
  step.start();
  int after = clockMs();
  EXPECT_GE(step.get().first, before);
  EXPECT_LE(step.get().first, after);
  EXPECT_EQ(step.get().second, 0) << "start clears the stop";
  const int started = step.get().first;

  before = clockMs();
  step.stop();
  after = clockMs();
  EXPECT_EQ(step.get().first, started) << "stop keeps the start";
  EXPECT_GE(step.get().second, before);
  EXPECT_LE(step.get().second, after);

  step.now();
  EXPECT_EQ(step.get().first, step.get().second);
  EXPECT_EQ(step.getType(), TypeTime);
  EXPECT_EQ(step.toString(), QStringLiteral("%1 %1").arg(step.get().first));

  TimeSetting unstarted(group, QStringLiteral("unstarted"), {0, 0}, true, false);
  unstarted.stop();
  EXPECT_EQ(unstarted.get().first, 0) << "stop without start keeps a zero start";
  EXPECT_NEAR(unstarted.get().second, clockMs(), 1000);
}

TEST(PerfOptions, PerformanceGroupHoldsTheStartUpStepsInOrder) {
  SettingGroup* group = SettingGroup::getGroup(QStringLiteral("Performance"));
  ASSERT_EQ(group, &PerfInfo::perfOptions);
  ASSERT_EQ(group->getSettingCount(), 30);
  for (int i = 0; i < 30; ++i) {
    const Setting* setting = group->getSetting(i);
    EXPECT_EQ(setting->getName(), kPerformanceNames[i]) << i;
    EXPECT_EQ(setting->getType(), TypeTime);
    EXPECT_EQ(setting->toString(), QStringLiteral("0 0"));
    EXPECT_TRUE(setting->getFirstFlag());
    EXPECT_FALSE(setting->getSecondFlag());
  }
  EXPECT_EQ(&PerfInfo::perfOptions.timeForSetupApp, group->getSetting(12));
}

QStringList readLines(const QString& path) {
  QFile file(path);
  if (!file.open(QIODevice::ReadOnly)) return {};
  return QString::fromLatin1(file.readAll()).split(QLatin1Char('\n'));
}

TEST(PerfInfo, OutputWritesOneLinePerTimeSettingAndSkipsOtherKinds) {
  QTemporaryDir tmp;
  const QString path = tmp.path() + "/perf.txt";
  {
    QFile old(path);
    ASSERT_TRUE(old.open(QIODevice::WriteOnly));
    old.write("stale text that must go\nmore\nand more\n");
  }
  Setting::pushAllSettings();
  PerfInfo::perfOptions.timeForSetupApp.set({1043, 1187});
  PerfInfo::perfOptions.timeAtAppStart.set({-5, 7});
  IntSetting other(PerfInfo::perfOptions, QStringLiteral("notATime"), 3, true, false);
  PerfInfo::output(path);
  Setting::popAllSettings();

  const QStringList lines = readLines(path);
  ASSERT_EQ(lines.size(), 31) << "30 lines, each ended by a line end";
  EXPECT_EQ(lines.last(), QString());
  EXPECT_EQ(lines[0], QStringLiteral("timeAtAppStart -5 7"));
  EXPECT_EQ(lines[12], QStringLiteral("timeForSetupApp 1043 1187"));
  for (int i = 0; i < 30; ++i) EXPECT_TRUE(lines[i].startsWith(kPerformanceNames[i] + ' ')) << i;
  EXPECT_FALSE(lines.join('\n').contains(QStringLiteral("notATime")));
}

TEST(PerfInfo, UnwritablePathWritesNothing) {
  QTemporaryDir tmp;
  PerfInfo::output(tmp.path() + "/missing/folder/perf.txt");
  EXPECT_FALSE(QFileInfo::exists(tmp.path() + "/missing"));
  PerfInfo::output(tmp.path());  // a folder
  EXPECT_TRUE(QFileInfo(tmp.path()).isDir());
}

}  // namespace
}  // namespace kestrel
