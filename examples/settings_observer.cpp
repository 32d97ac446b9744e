// Watches a setting and its group, changes the value inside a restore frame
// and rolls it back.
//
//   $ examples/settings_observer
//   setting observer: cacheSize is now 512
//   group observer:   Display/cacheSize changed
//   after the frame:  cacheSize = 256 (nobody was told)
#include <kestrel/settings.h>

#include <cstdio>

namespace {

class PrintOnChange : public kestrel::SettingObserver {
 public:
  using SettingObserver::SettingObserver;
  void onChanged(const kestrel::SettingEvent& event) override {
    std::printf("setting observer: %s is now %s\n", qPrintable(event.setting->getName()),
                qPrintable(event.setting->toString()));
  }
  void onPreDelete(const kestrel::SettingEvent&) override {}
};

class PrintGroupChange : public kestrel::SettingGroupObserver {
 public:
  using SettingGroupObserver::SettingGroupObserver;
  void onChanged(const kestrel::SettingGroupEvent& event) override {
    std::printf("group observer:   %s/%s changed\n", qPrintable(event.group->getName()),
                qPrintable(event.setting->getName()));
  }
  void onPreDelete(const kestrel::SettingGroupEvent&) override {}
};

}  // namespace

int main() {
  kestrel::SettingGroup display(QStringLiteral("Display"));
  kestrel::IntSetting cacheSize(display, QStringLiteral("cacheSize"), 256, true, false);
  PrintOnChange settingWatcher(cacheSize);
  PrintGroupChange groupWatcher(display);

  kestrel::Setting::pushAllSettings();
  cacheSize.fromString(QStringLiteral("512"));
  kestrel::Setting::popAllSettings();
  std::printf("after the frame:  cacheSize = %d (nobody was told)\n", cacheSize.get());
  return 0;
}
