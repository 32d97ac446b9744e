// Time settings on the application clock, the "Performance" group and its
// report file.
#include "settings/settings_test_support.h"

#include <kestrel/settings.h>
#include <kestrel/system.h>

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cmath>

namespace kestrel {
namespace {

using test::RecordingSettingObserver;

int clockMs() {
  return static_cast<int>(System::getTime() * 1000.0);
}

const char* const kPerformanceNames[] = {
    "timeAtAppStart",
    "timeAtSpawnGfxCardInfo",
    "timeAtSpawnAsyncAuth",
    "timeAtSpawnAsyncDoLogin",
    "timeAtExec",
    "timeAtFirstLevel",
    "timeAtLoggedIn",
    "timeForGfxCardInfoInit",
    "timeForGfxCardInfoCall",
    "timeForSetupGfx",
    "timeForInitAlchemy",
    "timeForSetRenderApi",
    "timeForSetupApp",
    "timeForSetupQtLocale",
    "timeForSetupSplash",
    "timeForVerifyUserPaths",
    "timeForSetupMainWin",
    "timeForGuiContextInit",
    "timeForOpenWorkspace",
    "timeForReadScreen",
    "timeForRenderContextInit",
    "timeForAuth",
    "timeForCookie",
    "timeForLogin",
    "timeForFetchDbRoot",
    "timeForParseDbRoot",
    "timeForFinishLogin",
    "timeForMainDbStartup",
    "timeForStyleManager",
    "timeForOnLoggedInLayer",
};

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
}

TEST(TimeSetting, StopWithoutStartKeepsAZeroStart) {
  SettingGroup group(QStringLiteral("PerfTimes"));
  TimeSetting step(group, QStringLiteral("step"), {0, 0}, true, false);
  step.stop();
  EXPECT_EQ(step.get().first, 0);
  EXPECT_NEAR(step.get().second, clockMs(), 1000);
}

TEST(TimeSetting, NowInTheSameMillisecondNotifiesNobody) {
  SettingGroup group(QStringLiteral("PerfTimes"));
  TimeSetting moment(group, QStringLiteral("moment"), {0, 0}, true, false);
  RecordingSettingObserver observer(&moment);
  // Retry until two calls land in one millisecond (bounded: each try is
  // far shorter than a millisecond).
  for (int attempt = 0; attempt < 1000; ++attempt) {
    moment.now();
    const std::pair<int, int> first = moment.get();
    const int notified = observer.changed;
    moment.now();
    if (moment.get() != first) continue;
    EXPECT_EQ(observer.changed, notified);
    return;
  }
  FAIL() << "never saw two calls within one millisecond";
}

TEST(TimeSetting, ChangesAreStampedRecordedAndRolledBack) {
  SettingGroup group(QStringLiteral("PerfTimes"));
  TimeSetting step(group, QStringLiteral("step"), {1, 2}, true, false);
  RecordingSettingObserver observer(&step);
  int modifierTag = 0;
  Setting::sCurrentModifier = &modifierTag;
  Setting::pushAllSettings();
  step.start();
  EXPECT_EQ(step.getModifier(), &modifierTag);
  EXPECT_EQ(observer.changed, 1);
  Setting::popAllSettings();
  Setting::sCurrentModifier = nullptr;
  EXPECT_EQ(step.get(), std::make_pair(1, 2));
}

TEST(PerfOptions, PerformanceGroupHoldsTheStartUpStepsInOrder) {
  SettingGroup* group = SettingGroup::getGroup(QStringLiteral("Performance"));
  ASSERT_EQ(group, &PerfInfo::perfOptions);
  ASSERT_EQ(group->getSettingCount(), 30);
  for (int i = 0; i < 30; ++i) {
    const Setting* setting = group->getSetting(i);
    EXPECT_EQ(setting->getName(), QString::fromLatin1(kPerformanceNames[i])) << i;
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
  for (int i = 0; i < 30; ++i)
    EXPECT_TRUE(lines[i].startsWith(QString::fromLatin1(kPerformanceNames[i]) + ' ')) << i;
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
