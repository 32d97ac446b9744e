// Uses the installed libbase: builds a settings group, changes a value inside
// a restore frame and checks that the frame puts it back.
#include <kestrel/settings.h>

#include <cstdio>

int main() {
  kestrel::SettingGroup group(QStringLiteral("Consumer"));
  kestrel::IntSetting answer(group, QStringLiteral("answer"), 41, false, false);

  kestrel::Setting::pushAllSettings();
  answer.set(42);
  const QString log = kestrel::Setting::findSetting(QStringLiteral("answer"))->toLogString();
  kestrel::Setting::popAllSettings();

  std::printf("%s restored to %d\n", qPrintable(log), answer.get());
  return log == QStringLiteral("&answer:i=42") && answer.get() == 41 ? 0 : 1;
}
