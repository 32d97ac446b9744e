// TimeSetting's clock operations, the "Performance" group and its report.
#include <kestrel/settings.h>
#include <kestrel/system.h>

#include <cstdio>

namespace kestrel {
namespace {

// The application clock in whole milliseconds, truncated toward zero.
int nowInMilliseconds() {
  return static_cast<int>(System::getTime() * 1000.0);
}

}  // namespace

void TimeSetting::start() {
  set({nowInMilliseconds(), 0});
}

void TimeSetting::stop() {
  const int t = nowInMilliseconds();
  set({get().first, t});
}

void TimeSetting::now() {
  const int t = nowInMilliseconds();
  set({t, t});
}

#define KESTREL_PERF_SETTING(name) name(*this, QStringLiteral(#name), {0, 0}, true, false)

PerfOptions::PerfOptions()
    : SettingGroup(QStringLiteral("Performance")),
      KESTREL_PERF_SETTING(timeAtAppStart),
      KESTREL_PERF_SETTING(timeAtSpawnGfxCardInfo),
      KESTREL_PERF_SETTING(timeAtSpawnAsyncAuth),
      KESTREL_PERF_SETTING(timeAtSpawnAsyncDoLogin),
      KESTREL_PERF_SETTING(timeAtExec),
      KESTREL_PERF_SETTING(timeAtFirstLevel),
      KESTREL_PERF_SETTING(timeAtLoggedIn),
      KESTREL_PERF_SETTING(timeForGfxCardInfoInit),
      KESTREL_PERF_SETTING(timeForGfxCardInfoCall),
      KESTREL_PERF_SETTING(timeForSetupGfx),
      KESTREL_PERF_SETTING(timeForInitAlchemy),
      KESTREL_PERF_SETTING(timeForSetRenderApi),
      KESTREL_PERF_SETTING(timeForSetupApp),
      KESTREL_PERF_SETTING(timeForSetupQtLocale),
      KESTREL_PERF_SETTING(timeForSetupSplash),
      KESTREL_PERF_SETTING(timeForVerifyUserPaths),
      KESTREL_PERF_SETTING(timeForSetupMainWin),
      KESTREL_PERF_SETTING(timeForGuiContextInit),
      KESTREL_PERF_SETTING(timeForOpenWorkspace),
      KESTREL_PERF_SETTING(timeForReadScreen),
      KESTREL_PERF_SETTING(timeForRenderContextInit),
      KESTREL_PERF_SETTING(timeForAuth),
      KESTREL_PERF_SETTING(timeForCookie),
      KESTREL_PERF_SETTING(timeForLogin),
      KESTREL_PERF_SETTING(timeForFetchDbRoot),
      KESTREL_PERF_SETTING(timeForParseDbRoot),
      KESTREL_PERF_SETTING(timeForFinishLogin),
      KESTREL_PERF_SETTING(timeForMainDbStartup),
      KESTREL_PERF_SETTING(timeForStyleManager),
      KESTREL_PERF_SETTING(timeForOnLoggedInLayer) {}

#undef KESTREL_PERF_SETTING

PerfOptions::~PerfOptions() = default;

PerfOptions PerfInfo::perfOptions;

void PerfInfo::output(const QString& path) {
  std::FILE* file = std::fopen(path.toLatin1().constData(), "w");
  if (file == nullptr) return;
  if (const SettingGroup* group = SettingGroup::getGroup(QStringLiteral("Performance"))) {
    for (int i = 0; i < group->getSettingCount(); ++i) {
      const Setting* setting = group->getSetting(i);
      if (setting->getType() != TypeTime) continue;
      const QByteArray line =
          (setting->getName() + QLatin1Char(' ') + setting->toString()).toLatin1();
      std::fputs(line.constData(), file);
      std::fputc('\n', file);
    }
  }
  std::fclose(file);
}

}  // namespace kestrel
