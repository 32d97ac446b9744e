// Returns from main with two restore frames open, holding static settings of
// two files. The static destructors that run after main must not touch the
// restore list once it has been destroyed (an address-sanitizer build reports
// any such use); the exit status is 0 when the registry worked meanwhile.
#include "settings/exit/exit_statics.h"

using kestrel::Setting;
using namespace exit_test;

int main() {
  Setting::pushAllSettings();
  gValueA.set(1);
  gValueB.set(1);
  Setting::pushAllSettings();
  gWaitsForA.set(2);
  gWaitsForB.set(2);
  gValueA.set(3);

  const bool adopted = gGroupA.getSettingCount() == 2 && gGroupB.getSettingCount() == 2 &&
                       Setting::findSetting(QStringLiteral("waitsForB")) == &gWaitsForB;
  const bool recorded = Setting::sRestoreList.size() == 2 &&
                        Setting::sRestoreList.first().size() == 3 &&
                        Setting::sRestoreList.last().size() == 2;
  return adopted && recorded ? 0 : 1;
}
